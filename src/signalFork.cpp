// SPDX-License-Identifier: MIT
//
// The handlers that fork() runs in the parent and the child, and what they need to know of watched signals.
#include "signalFork.hpp"

#include <atomic>

#include <pthread.h>

#include <orn/forkHandlers.hpp>
#include <orn/zel/core.hpp>

#include "immortal.hpp"
#include "signalGate.hpp"

namespace orn::zel::detail {

namespace {

struct BarrierLock;

// Held during each fork() as well. A leaf, and taken with the signals blocked: no handler may run on top of
// its holder, since it could fork.
ThreadMutex& barrier_lock() {
    return immortal<ThreadMutex, BarrierLock>();
}

// Kept here and not in the handlers' objects: a thread that is not in the child may have held their lock.
struct Watched {
    std::atomic<bool> in_place;
    std::atomic<bool> from_others;
    struct sigaction before;
};

Watched watched[NSIG] = {};

sigset_t mask_before ZEL_GUARDED_BY(barrier_lock()); // of the thread that forks

sigset_t block_signals() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    return before;
}

void prepare() ZEL_ACQUIRE(barrier_lock()) {
    sigset_t const before = block_signals();
    barrier_lock().Lock();
    mask_before = before;
}

void in_parent() ZEL_RELEASE(barrier_lock()) {
    // A copy, since the next thread that forks may overwrite mask_before as soon as the lock is free.
    sigset_t const before = mask_before;
    barrier_lock().Unlock();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Takes no other lock and allocates nothing: a thread that is not in the child may hold any lock for ever.
void in_child() ZEL_RELEASE(barrier_lock()) {
    SignalGate::forked();
    for (int signo = 1; signo < NSIG; ++signo) {
        Watched& signal = watched[signo];
        if (!signal.from_others && signal.in_place.exchange(false))
            sigaction(signo, &signal.before, nullptr);
    }
    in_parent();
}

internal::ForkHandlers const fork_handlers = {prepare, in_parent, in_child};

} // namespace

SignalShield::SignalShield() : before_(block_signals()) {}

SignalShield::~SignalShield() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

ForkBarrier::ForkBarrier() : lock_(barrier_lock()) {}

void handler_installed(int signo, struct sigaction const& before) {
    watched[signo].before = before;
    watched[signo].in_place = true;
}

bool handler_in_place(int signo) {
    return watched[signo].in_place;
}

bool handler_given_up(int signo) {
    return watched[signo].in_place.exchange(false);
}

void expect_from_others(int signo) {
    watched[signo].from_others = true;
}

bool expected_from_others(int signo) {
    return watched[signo].from_others;
}

} // namespace orn::zel::detail
