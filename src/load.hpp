// SPDX-License-Identifier: MIT
//
// The modules that came with the library. Internal. Loading and unloading is in <orn/zel/load.hpp>.
#ifndef ZEL_SRC_LOAD_HPP
#define ZEL_SRC_LOAD_HPP

#include <string>
#include <vector>

namespace orn::zel::detail {

// The names in ZEL_PRELOAD that could be loaded, in their order.
std::vector<std::string> preloaded_modules();

} // namespace orn::zel::detail

#endif
