// SPDX-License-Identifier: MIT
//
// The line numbers that some log records and assertions carry for ever. Internal. People and their tools know
// these records by file and line, as in "src/threadGroup:345", so both are part of the interface and do not
// follow the code. Records that nobody knows by their line carry __LINE__.
#ifndef ZEL_SRC_FIXEDLINE_HPP
#define ZEL_SRC_FIXEDLINE_HPP

namespace orn::zel::detail {

enum FixedLine {
    // "src/Thread"
    line_of_thread_start = 50,

    // "src/fd"
    line_of_manager_made = 174,
    line_of_monitor_inserted = 183,

    // "src/threadGroup"
    line_of_poll_set = 87,
    line_of_missing_group = 140,
    line_of_group_made = 345,
    line_of_missing_entry = 663,
    line_of_runner_depth = 789,
};

} // namespace orn::zel::detail

#endif
