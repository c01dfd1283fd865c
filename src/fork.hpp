// SPDX-License-Identifier: MIT
//
// Whether this process is a child of fork(), and what such a child has to do once. Internal. What becomes of
// signals in a child is signalFork.hpp's.
#ifndef ZEL_SRC_FORK_HPP
#define ZEL_SRC_FORK_HPP

#include <sys/types.h>

namespace orn::zel::detail {

// Like getpid(), without the system call: a child of fork() must not act in its parent's name. Signal-safe.
pid_t process_id();

// Whether this process is a child of fork() that has not called exec().
bool forked();

// The child hook is for a child of fork() that goes on to use the library instead of calling exec(). It runs
// once in each, on the thread that first uses the library there. The command channel sets it: it has to watch
// its signal anew (cmdServer.cpp). The thread registry runs it when it has made a thread's group, with no
// lock held, because using the library begins with that (threadRegistry.cpp).
void set_child_hook(void (*hook)());
void run_child_hook();
// Whether this is a child of fork() in which the hook has not run yet.
bool in_unused_child();

} // namespace orn::zel::detail

#endif
