// SPDX-License-Identifier: MIT
#include "signalGate.hpp"

#include <atomic>
#include <memory>

#include <poll.h>
#include <signal.h>

#include <orn/zel/core.hpp>

#include "cancel.hpp"
#include "immortal.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

struct WriterLock;

std::atomic<SignalGate::functions_type const*> published[NSIG] = {};

// Signal handlers that are inside, counted by the phase in which they came in. A writer turns the phase and
// waits for the other one to empty, twice: a handler that read the phase before the first turn and counted
// itself after the wait is caught by the second.
std::atomic<unsigned> phase(0);
std::atomic<int> inside[2] = {};

// A signal handler finishes within microseconds of running time. One that has not within this many
// milliseconds never will, because something jumped out of it or is sitting on top of it.
int const longest_wait_ms = 1000;

bool drain(unsigned side) {
    for (int waited = 0; inside[side].load() != 0; ++waited) {
        if (waited == longest_wait_ms)
            return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

bool wait_for_handlers() {
    for (int turn = 0; turn < 2; ++turn) {
        if (!drain(phase.fetch_add(1) & 1))
            return false;
    }
    return true;
}

} // namespace

void SignalGate::deliver(int signo) {
    unsigned const side = phase.load() & 1;
    inside[side].fetch_add(1);
    functions_type const* const functions = published[signo].load();
    if (functions) {
        for (boost::shared_ptr<boost::function<void(int)>> const& function : *functions)
            (*function)(signo);
    }
    inside[side].fetch_sub(1);
}

void SignalGate::publish(int signo, functions_type const& functions) {
    std::unique_ptr<functions_type const> next(functions.empty() ? nullptr : new functions_type(functions));
    // The wait below is a cancellation point. Unwound there, this would free what a handler still reads, or
    // be in a destructor.
    CancelShield const shield;
    AutoLock const guard(immortal<ThreadMutex, WriterLock>());
    std::unique_ptr<functions_type const> before(published[signo].exchange(next.release()));
    if (!wait_for_handlers())
        before.release(); // better lost than freed under a handler that may come back
}

} // namespace detail
} // namespace zel
} // namespace orn
