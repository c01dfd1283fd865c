// SPDX-License-Identifier: MIT
//
// What the library has to know of the process that it is in. Internal.
#ifndef ZEL_SRC_PROCESS_HPP
#define ZEL_SRC_PROCESS_HPP

#include <sys/types.h>

namespace orn {
namespace zel {
namespace detail {

// Like getpid(), without the system call: for what a child of fork() must not do in its parent's name.
// Signal-safe.
pid_t process_id();

// Whether the process has a thread besides the caller that is not on its way out already: a thread that has
// been joined may be listed for a moment longer.
bool other_threads_alive();

} // namespace detail
} // namespace zel
} // namespace orn

#endif
