// SPDX-License-Identifier: MIT
//
// A timer that calls a function, once or periodically, on one service thread of the process. Public; the
// alarms are built on it. Telling the thread that waits for the expiry is left to the callback.
#ifndef ORN_OS_TIMER_HPP
#define ORN_OS_TIMER_HPP

#include <atomic>
#include <cstdint>

#include <boost/function.hpp>

#include <orn/api.h>

namespace orn::os {

class TimerService;

// All operations may be called from any thread, but not from a signal handler.
class ORN_API Timer {
public:
    // Makes a timer that is not set. The callback runs on the service thread with all signals blocked and no
    // lock held. It may set, create and destroy timers, its own included. It delays all other timers while it
    // runs, and an exception that leaves it ends the process.
    explicit Timer(boost::function<void(Timer*)> callback);

    // Once it has returned, no callback of this timer runs or will run. It waits for a callback that is
    // running, so the caller must not hold a lock that the callback takes. Called by that very callback it
    // does not wait, and the callback's function object lives on until the callback returns.
    ~Timer();

    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    // Replaces any earlier setting. The callback runs initial_ms after the call, at once for 0, and then
    // every recurring_ms, or not again for 0. It is never early and it keeps its phase; periods that were
    // missed in a stall are skipped. Delays beyond the clock's range never end.
    //
    // The first call in a process starts the service thread, which inherits the caller's scheduling policy,
    // niceness and processors. Let the thread whose timers matter most make that call, or let a callback
    // choose others with sched_setscheduler(0, ...), since callbacks run on the service thread.
    //
    // Throws std::system_error when the thread, or the descriptor that it sleeps on, cannot be had, and
    // std::bad_alloc without memory; the timer is not set then. Does nothing once the library is being
    // unloaded. In a child of fork() no timer is set, and all may be set anew.
    void Set(unsigned long initial_ms, unsigned long recurring_ms);

private:
    friend class TimerService;

    boost::function<void(Timer*)> callback_;
    std::uint64_t deadline_ns_;                    // CLOCK_MONOTONIC
    std::uint64_t period_ns_;                      // 0: once
    std::uint32_t number_;                         // in the service, while it is armed
    [[maybe_unused]] std::atomic<unsigned> state_; // 0: neither armed nor in its callback
};

} // namespace orn::os

#endif
