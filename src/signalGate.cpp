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

// Published while the first function is still awaited, and the arrivals until then.
char const no_functions = 0;
std::atomic<unsigned> missed[NSIG] = {};

SignalGate::functions_type const* awaited() {
    return reinterpret_cast<SignalGate::functions_type const*>(&no_functions);
}

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

namespace {

void call(SignalGate::functions_type const& functions, int signo) {
    for (boost::shared_ptr<boost::function<void(int)>> const& function : functions)
        (*function)(signo);
}

} // namespace

void SignalGate::deliver(int signo) {
    unsigned const side = phase.load() & 1;
    inside[side].fetch_add(1);
    functions_type const* const functions = published[signo].load();
    if (functions == awaited())
        missed[signo].fetch_add(1);
    else if (functions)
        call(*functions, signo);
    inside[side].fetch_sub(1);
}

void SignalGate::await(int signo) {
    CancelShield const shield;
    AutoLock const guard(immortal<ThreadMutex, WriterLock>());
    missed[signo] = 0;
    // Of a handler that an unload in another thread is about to retire, if there is anything.
    functions_type const* const before = published[signo].exchange(awaited());
    if (before != awaited() && wait_for_handlers())
        delete before;
}

void SignalGate::publish(int signo, functions_type const& functions) {
    std::unique_ptr<functions_type const> next(functions.empty() ? nullptr : new functions_type(functions));
    // The wait below is a cancellation point. Unwound there, this would free what a handler still reads, or
    // be in a destructor.
    CancelShield const shield;
    AutoLock const guard(immortal<ThreadMutex, WriterLock>());
    functions_type const* const now = next.release();
    functions_type const* const before = published[signo].exchange(now);
    bool const quiet = wait_for_handlers();
    if (before == awaited()) {
        // Whoever saw that nobody was there has been counted by now.
        for (unsigned arrivals = missed[signo].exchange(0); now && arrivals > 0; --arrivals)
            call(*now, signo);
    } else if (quiet) {
        delete before;
    } // else better lost than freed under a handler that may come back
}

} // namespace detail
} // namespace zel
} // namespace orn
