// SPDX-License-Identifier: MIT
#include "signalFork.hpp"

#include <atomic>

#include <pthread.h>

#include <orn/zel/core.hpp>

#include "immortal.hpp"
#include "signalGate.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::atomic<unsigned> forks(0);

struct BarrierLock;

// Held over each fork() as well. Nothing is called under it, and no signal's handler runs on top of it.
ThreadMutex& barrier_lock() {
    return immortal<ThreadMutex, BarrierLock>();
}

// Beside the handlers' own objects: a child of a process with several threads can rely on no other lock.
struct Watched {
    std::atomic<bool> in_place;
    std::atomic<bool> from_others;
    struct sigaction before;
};

Watched watched[NSIG] = {};

sigset_t mask_before; // of the thread that forks; guarded by the barrier's lock

sigset_t close_barrier() ZEL_NO_ANALYSIS {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    barrier_lock().Lock();
    return before;
}

// By value: the next one to fork may overwrite what it noted as soon as the lock is free.
void open_barrier(sigset_t before) ZEL_NO_ANALYSIS {
    barrier_lock().Unlock();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void prepare() {
    mask_before = close_barrier();
}

void in_parent() {
    open_barrier(mask_before);
}

// As in signal context: no other lock, no allocation.
void in_child() {
    ++forks;
    SignalGate::forked();
    for (int signo = 1; signo < NSIG; ++signo) {
        Watched& signal = watched[signo];
        if (!signal.from_others && signal.in_place.exchange(false))
            sigaction(signo, &signal.before, nullptr);
    }
    open_barrier(mask_before);
}

std::atomic<bool> handled(false);

// Withdrawn by the C library when this library is unmapped. The loader may run this again during exit():
// handled twice, fork() would wait for itself.
int const registered = handled.exchange(true) ? 0 : pthread_atfork(prepare, in_parent, in_child);

} // namespace

ForkBarrier::ForkBarrier() : mask_before_(close_barrier()) {}

ForkBarrier::~ForkBarrier() {
    open_barrier(mask_before_);
}

unsigned lineage() {
    return forks;
}

void handler_installed(int signo, struct sigaction const& before) {
    static_cast<void>(registered);
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

} // namespace detail
} // namespace zel
} // namespace orn
