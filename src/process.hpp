// SPDX-License-Identifier: MIT
//
// Which process this is, for what a child of fork() must not do in its parent's name. Internal.
#ifndef ZEL_SRC_PROCESS_HPP
#define ZEL_SRC_PROCESS_HPP

#include <sys/types.h>

namespace orn {
namespace zel {
namespace detail {

// Like getpid(), without the system call. Signal-safe.
pid_t process_id();

} // namespace detail
} // namespace zel
} // namespace orn

#endif
