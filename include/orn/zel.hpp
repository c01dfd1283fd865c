// SPDX-License-Identifier: MIT
//
// zel: one loop for descriptors, alarms, signals, tasks and commands. The one header that an application
// includes.
//
// What holds unless a comment says otherwise:
//
//   - A function may be called from any thread and inside a handler, but not from a signal handler.
//   - It concerns the calling thread: its registrations, its alarms, its group.
//   - It does not block, and does not run the loop.
//   - Handlers run on the thread that runs the loop of the group, one at a time, with no lock of the library
//     held. They may throw: the exception leaves the run call.
//   - Descriptors stay the caller's; handlers are copied.
//   - Misuse throws orn::zel::Exception with a fixed text; handler lists and receptors (receptacle.hpp) throw
//     its base, orn::Exception. A broken contract between the library's own parts is an assertion, which
//     prints its text on stderr and aborts, in every build type. Lack of memory throws std::bad_alloc, lack
//     of descriptors std::system_error.
//   - Times are milliseconds. A negative timeout waits without limit, 0 does not wait.
#ifndef ORN_ZEL_HPP
#define ORN_ZEL_HPP

#include <orn/zel/Thread.hpp>
#include <orn/zel/alarm.hpp>
#include <orn/zel/cmd.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>
#include <orn/zel/load.hpp>
#include <orn/zel/receptacle.hpp>
#include <orn/zel/response.hpp>
#include <orn/zel/signal.hpp>
#include <orn/zel/task.hpp>
#include <orn/zel/threadFunctions.hpp>
#include <orn/zel/threadGroup.hpp>
#include <orn/zel/threadRegistry.hpp>
#include <orn/zel/zelcmds.hpp>

#endif
