// SPDX-License-Identifier: MIT
//
// A timer that calls a function back, once or periodically, from one service thread of the process. Public;
// the alarms are built on it. Bringing the expiry to the thread that waits for it is left to the callback.
#ifndef ORN_OS_TIMER_HPP
#define ORN_OS_TIMER_HPP

#include <boost/function.hpp>
#include <cstddef>
#include <cstdint>
#include <orn/api.h>

namespace orn::os {

class TimerService;

// All operations from any thread, but not from a signal handler.
class ORN_API Timer {
public:
    // Disarmed. The callback runs on the service thread with all signals blocked and no lock held; it may
    // set, create and destroy timers, its own included. It holds up every other timer while it runs, and an
    // exception that leaves it ends the process.
    explicit Timer(boost::function<void(Timer*)> callback);

    // When it returns, no callback of this timer runs or will run: it waits for one that is running, so no
    // lock that the callback takes may be held here. Called from that very callback it does not wait, and
    // the callback's function object lives on until it returns.
    ~Timer();

    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    // Replaces any earlier setting: the callback runs initial_ms from now and then, unless recurring_ms is 0,
    // every recurring_ms. Delays count from the call. An initial_ms of 0 fires at once. Never early; the
    // phase is kept, and periods that were missed in a stall are skipped. Delays past the clock's range never
    // end.
    //
    // The first call starts the service thread, which inherits the caller's scheduling policy, niceness and
    // processors: let it be made by the thread whose timers matter most, or have a callback, which runs on
    // the service thread, set them with sched_setscheduler(0, ...). std::system_error when there is none to
    // be had, std::bad_alloc without memory: the timer is then disarmed. Does nothing once the library is
    // being unloaded. A child of fork() finds every timer disarmed, and may set them anew.
    void Set(unsigned long initial_ms, unsigned long recurring_ms);

private:
    friend class TimerService; // the implementation's own

    boost::function<void(Timer*)> callback_;
    std::uint64_t deadline_ns_;                 // CLOCK_MONOTONIC
    std::uint64_t period_ns_;                   // 0: once
    std::size_t index_;                         // place in the service's heap
    [[maybe_unused]] std::uint32_t generation_; // armed while equal to the service's
    [[maybe_unused]] std::uint32_t flags_;
};

} // namespace orn::os

#endif
