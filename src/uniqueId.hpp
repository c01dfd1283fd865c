// SPDX-License-Identifier: MIT
//
// The counter behind unique_id(). Internal: it exists so that what happens when the counter wraps, after four
// thousand million identifiers, can be tried out.
#ifndef ZEL_SRC_UNIQUEID_HPP
#define ZEL_SRC_UNIQUEID_HPP

#include <cstdint>

namespace orn::zel::detail {

// The next call of unique_id() returns this.
void continue_identifiers_at(std::uint32_t id);

} // namespace orn::zel::detail

#endif
