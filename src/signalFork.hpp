// SPDX-License-Identifier: MIT
//
// What becomes of watched signals in a child of fork(). Internal to signals. A child inherits the library's
// handlers and the pipes behind them, which are its parent's. So the child gets back what was in force before
// each signal was watched, with every signal blocked from before the fork until that is done: none that is
// sent to it is lost, or told to its parent.
#ifndef ZEL_SRC_SIGNALFORK_HPP
#define ZEL_SRC_SIGNALFORK_HPP

#include <signal.h>

namespace orn {
namespace zel {
namespace detail {

// How many forks lie between this process and the one that loaded the library. What signal context holds of a
// parent's is told by it. Signal-safe.
unsigned lineage();

// Keeps every thread from forking for a scope, a signal's handler on this one included. What a child puts
// back depends on which handlers are installed and on what is noted of them, so both change in one such
// scope.
class ForkBarrier {
public:
    ForkBarrier();
    ~ForkBarrier();
    ForkBarrier(ForkBarrier const&) = delete;
    ForkBarrier& operator=(ForkBarrier const&) = delete;

private:
    sigset_t mask_before_;
};

// That the library's handler is installed in this process, and what was in force before.
void handler_installed(int signo, struct sigaction const& before);
bool handler_in_place(int signo);
// True when it was in place. Before the disposition is put back.
bool handler_given_up(int signo);

// Says that other processes send this signal without asking. Its default action ends a process, so the
// handler stays in place in children, where it does nothing until they watch the signal themselves, and
// exit() leaves the signal ignored.
void expect_from_others(int signo);
bool expected_from_others(int signo);

} // namespace detail
} // namespace zel
} // namespace orn

#endif
