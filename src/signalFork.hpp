// SPDX-License-Identifier: MIT
//
// What becomes of watched signals in a child of fork(). Internal to signals. A child inherits the library's
// handlers, and the pipes behind them are its parent's. So the child gets the dispositions back that were in
// force before the signals were watched. Every signal is blocked from before the fork until that is done, so
// that none which is sent to the child is lost, or told to its parent.
#ifndef ZEL_SRC_SIGNALFORK_HPP
#define ZEL_SRC_SIGNALFORK_HPP

#include <signal.h>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// Blocks every signal in the calling thread for a scope, but those that its own faults raise.
class SignalShield {
public:
    SignalShield();
    ~SignalShield();
    SignalShield(SignalShield const&) = delete;
    SignalShield& operator=(SignalShield const&) = delete;

private:
    sigset_t before_;
};

// Keeps every thread from forking for a scope, and signal handlers off this one. A disposition and what is
// noted of it here change in one such scope, so that a child finds them in agreement, and so do an epoll set
// and the list of them (readiness.hpp).
class ForkBarrier {
public:
    ForkBarrier();

private:
    SignalShield const shield_;
    AutoLock const lock_;
};

// Notes that the library's handler is installed in this process, and what was in force before.
void handler_installed(int signo, struct sigaction const& before);
bool handler_in_place(int signo);
// Notes that the handler goes, before the disposition is put back. False when it was not in place.
bool handler_given_up(int signo);

// Says that other processes send this signal without asking. Its default action ends a process, so the
// handler stays in place in children, where it does nothing until they watch the signal themselves, and
// exit() leaves the signal ignored.
void expect_from_others(int signo);
bool expected_from_others(int signo);

} // namespace orn::zel::detail

#endif
