// SPDX-License-Identifier: MIT
//
// What the library has to know of the process that it is in. Internal.
#ifndef ZEL_SRC_FORK_HPP
#define ZEL_SRC_FORK_HPP

#include <sys/types.h>

namespace orn {
namespace zel {
namespace detail {

// Like getpid(), without the system call: for what a child of fork() must not do in its parent's name.
// Signal-safe.
pid_t process_id();

// What is to be done once in every child of fork() that goes on to use the library instead of calling exec():
// fn is called by the first run_child_hook() there.
void set_child_hook(void (*fn)());
void run_child_hook();
// Whether this is a child of fork() that has not come to use the library.
bool in_unused_child();

} // namespace detail
} // namespace zel
} // namespace orn

#endif
