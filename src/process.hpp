// SPDX-License-Identifier: MIT
//
// What the library has to know of the process that it is in. Internal.
#ifndef ZEL_SRC_PROCESS_HPP
#define ZEL_SRC_PROCESS_HPP

#include <vector>

#include <sys/types.h>

namespace orn {
namespace zel {
namespace detail {

// Like getpid(), without the system call: for what a child of fork() must not do in its parent's name.
// Signal-safe.
pid_t process_id();

// The threads of the process besides the caller and the platform's own, in no order. A thread that has been
// joined, and may be listed for a moment longer, is left out. False when it cannot be told.
bool other_threads(std::vector<int>& tids);

// What is to be done once in every child of fork() that goes on to use the library instead of calling exec():
// fn is called by the first run_child_hook() there.
void set_child_hook(void (*fn)());
void run_child_hook();

} // namespace detail
} // namespace zel
} // namespace orn

#endif
