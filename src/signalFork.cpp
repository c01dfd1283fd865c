// SPDX-License-Identifier: MIT
#include "signalFork.hpp"

#include <atomic>

#include <pthread.h>

#include "signalGate.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::atomic<unsigned> forks(0);

// Plain memory beside the handlers' own objects: a child of a process with several threads can rely on no
// lock and on no other thread's half-made change.
struct Watched {
    std::atomic<bool> in_place;
    std::atomic<bool> kept;
    struct sigaction before;
};

Watched watched[NSIG] = {};

thread_local sigset_t mask_before; // several threads may fork at once

void prepare() {
    sigset_t all;
    sigfillset(&all);
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &mask_before);
}

void in_parent() {
    pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
}

// As in signal context: no lock, no allocation.
void in_child() {
    ++forks;
    SignalGate::forked();
    for (int signo = 1; signo < NSIG; ++signo) {
        Watched& signal = watched[signo];
        if (!signal.kept && signal.in_place.exchange(false))
            sigaction(signo, &signal.before, nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
}

std::atomic<bool> handled(false);

// Withdrawn by the C library when this library is unmapped. The loader may run this again during exit():
// handled twice, fork() would take the mask with everything blocked for the one from before.
int const registered = handled.exchange(true) ? 0 : pthread_atfork(prepare, in_parent, in_child);

} // namespace

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

void keep_in_children(int signo) {
    watched[signo].kept = true;
}

} // namespace detail
} // namespace zel
} // namespace orn
