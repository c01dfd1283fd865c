// SPDX-License-Identifier: MIT
//
// How signal context reads functions that other threads replace and free, without a lock.
#include "signalGate.hpp"

#include <atomic>

#include <signal.h>

#include <orn/cancel.hpp>
#include <orn/clock.hpp>
#include <orn/zel/core.hpp>

#include "immortal.hpp"

namespace orn::zel::detail {

namespace {

struct Snapshot {
    SignalGate::functions_type functions;
    Snapshot* next; // among the retired ones
};

struct WriterLock;

// A leaf: no function is called or destroyed under it.
ThreadMutex& writer_lock() {
    return immortal<ThreadMutex, WriterLock>();
}

// A signal handler raises inside before it reads published; a writer replaces published before it reads
// inside. All of this is sequentially consistent. So when a writer reads 0, every handler that has read the
// former snapshot has left, and every handler that comes in later reads the replacement.
std::atomic<int> inside(0);
std::atomic<Snapshot*> published[NSIG] = {};
Snapshot* retired ZEL_GUARDED_BY(writer_lock()) = nullptr;

// How many arrivals came while the first function was awaited.
std::atomic<unsigned> missed[NSIG] = {};

std::atomic<unsigned> forks(0); // see lineage()

// Published while the first function is awaited. It only marks that state, and is never read as a snapshot.
char no_functions = 0;
Snapshot* awaited() {
    return reinterpret_cast<Snapshot*>(&no_functions);
}

class Inside {
public:
    Inside() : counted_in_(forks) { inside.fetch_add(1); }
    ~Inside() {
        // In a child that was forked inside the gate the count has begun anew, without this one.
        if (counted_in_ == forks)
            inside.fetch_sub(1);
    }
    Inside(Inside const&) = delete;
    Inside& operator=(Inside const&) = delete;

private:
    unsigned const counted_in_;
};

void call(Snapshot const* snapshot, int signo) {
    if (!snapshot)
        return;
    for (boost::shared_ptr<boost::function<void(int)>> const& function : snapshot->functions)
        (*function)(signo);
}

// Calls the functions for the arrivals that have been missed. deliver() comes here after it has counted one,
// and publish() after it has published the functions, so at least one of the two sees both. The exchange
// gives each arrival to only one of them.
[[gnu::cold]] void make_up(int signo) {
    Snapshot const* const now = published[signo].load();
    if (now == awaited())
        return;
    for (unsigned arrivals = missed[signo].exchange(0); arrivals > 0; --arrivals)
        call(now, signo);
}

[[gnu::cold]] void replace(int signo, Snapshot* next) {
    AutoLock const guard(writer_lock());
    Snapshot* const before = published[signo].exchange(next);
    if (before && before != awaited()) {
        before->next = retired;
        retired = before;
    }
}

} // namespace

void SignalGate::deliver(int signo) {
    Inside const scope;
    Snapshot const* const now = published[signo].load();
    if (now != awaited())
        return call(now, signo);
    missed[signo].fetch_add(1);
    make_up(signo);
}

[[gnu::cold]] void SignalGate::await(int signo) {
    replace(signo, awaited());
}

[[gnu::cold]] void SignalGate::publish(int signo, functions_type const& functions) {
    replace(signo, functions.empty() ? nullptr : new Snapshot{functions, nullptr});
    Inside const scope;
    make_up(signo);
}

[[gnu::cold]] void SignalGate::reclaim() {
    Snapshot* doomed = nullptr;
    {
        AutoLock const guard(writer_lock());
        if (inside == 0)
            std::swap(doomed, retired);
    }
    // Closing a pipe is a cancellation point, and the caller may be a destructor.
    internal::CancelShield const shield;
    while (doomed) {
        Snapshot* const next = doomed->next;
        delete doomed;
        doomed = next;
    }
}

[[gnu::cold]] void SignalGate::drain() {
    // A signal handler takes microseconds. One that is still inside after this time never leaves, because
    // something has jumped out of it or sits on top of it. Leak what it may come back to, rather than free
    // it.
    internal::Patience const longest_wait(1000);
    internal::CancelShield const shield;
    while (inside != 0 && longest_wait.nap()) {
    }
    reclaim();
}

[[gnu::cold]] void SignalGate::forked() {
    ++forks;
    inside = 0;
}

unsigned SignalGate::lineage() {
    return forks;
}

} // namespace orn::zel::detail
