// SPDX-License-Identifier: MIT
//
// Identifiers that no two living things share, and the counter behind all identifiers. Internal. The counter
// wraps after four thousand million, which a thousand alarms a second draw in fifty days.
#ifndef ZEL_SRC_UNIQUEID_HPP
#define ZEL_SRC_UNIQUEID_HPP

#include <cstdint>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// For groups and fd managers: a thread's alarms, signals and tasks are found by its fd manager, and who looks
// into the process tells groups apart by their identifiers. Each that was drawn has to be ended.
id_t draw_live_id();
void end_live_id(id_t id);

// The next call of unique_id() returns this. For trying out what happens when the counter wraps.
void continue_identifiers_at(std::uint32_t id);

} // namespace orn::zel::detail

#endif
