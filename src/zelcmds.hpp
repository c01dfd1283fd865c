// SPDX-License-Identifier: MIT
//
// The modules that clients have brought. Internal. Bringing them is in <orn/zel/zelcmds.hpp>.
#ifndef ZEL_SRC_ZELCMDS_HPP
#define ZEL_SRC_ZELCMDS_HPP

#include <string>
#include <vector>

namespace orn::zel::zelcmds {

// The names that "zel load" has loaded and nobody has unloaded, in alphabetical order. Any thread.
std::vector<std::string> loaded_modules();

} // namespace orn::zel::zelcmds

#endif
