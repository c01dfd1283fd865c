// SPDX-License-Identifier: MIT
//
// What makes loading the shared library bring it up, and unloading it take it down. Part of the shared
// library only; what is done then is load.cpp's. One static object does both, because static destructors and
// destructor functions run in different orders in exit() and in dlclose().
#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/clock.hpp>
#include <orn/forkHandlers.hpp>
#include <orn/mapping.hpp>
#include <orn/zel/load.hpp>
#include <orn/zel/signal.hpp>

#include "fork.hpp"
#include "procFile.hpp"
#include "shutdown.hpp"

namespace orn::zel {

namespace {

// ---- The last step before the code is unmapped ----------------------------------------------------------

// What a thread has run so far, in nanoseconds. The number is how the kernel names another thread's clock.
// Negative when the thread has ended.
long long run_time(int tid) {
    clockid_t const clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6U);
    timespec spent = {};
    return clock_gettime(clock, &spent) == 0 ? spent.tv_sec * 1000000000LL + spent.tv_nsec : -1;
}

// A thread that sleeps is in a system call, and so not in this library's code.
bool sleeps(int tid) {
    std::vector<std::string> const fields =
        detail::stat_fields(("task/" + std::to_string(tid) + "/stat").c_str());
    return fields.empty() || fields[0] == "S"; // there are none when it has ended
}

// Waits until the thread has left the place where it stood: it sleeps, or has run for a thousand times as
// long as a signal's handler takes. start: what it had run by then.
void let_get_on(int tid, long long start, internal::Patience const& patience) {
    long long const way_ns = 1000000;
    for (long long now = start; now >= 0 && now <= start + way_ns && !sleeps(tid); now = run_time(tid)) {
        if (!patience.nap())
            return;
    }
}

// A thread that a signal has just reached may stand before the first instruction of the handler, where it
// cannot be counted yet, or behind the last one that is counted. Returns when the other threads sleep or have
// got on, after a second at most.
void let_threads_get_on() {
    int const self = static_cast<int>(syscall(SYS_gettid));
    // A thread that gets no processor must not hold the host for ever.
    internal::Patience const patience(1000);
    // All begin now: on one processor they run one after the other while the first is waited for.
    std::vector<std::pair<int, long long>> others;
    for (int const tid : detail::thread_ids()) {
        if (tid != self)
            others.emplace_back(tid, run_time(tid));
    }
    for (auto const& other : others)
        let_get_on(other.first, other.second, patience);
}

// ---- Load and unload ------------------------------------------------------------------------------------

internal::Mapping mapping;
std::atomic<bool> ended(false);

__attribute__((destructor)) void note_destructors() {
    mapping.destructor_function();
}

// While exit() takes it down, another thread's dlopen() may have the loader construct it again. It then does
// nothing, and is destroyed once.
class OnLoad {
public:
    OnLoad() {
        if (mapping.begin("ZEL_Thread_cleanup_extension"))
            ZEL_load__();
    }
    ~OnLoad() {
        if (ended.exchange(true))
            return;
        // Everything that an unused child of fork() has is the parent's. The command thread, for one, was not
        // copied, and may have held a lock.
        if (!mapping.unmapped() && detail::in_unused_child())
            return;
        // A thread that has been cancelled may call exit(). The waits in here must not unwind it: on the way
        // it would wait without limit for a command that exit() leaves running.
        internal::CancelShield const shield;
        detail::Shutdown::begin(mapping.unmapped());
        ZEL_unload__();
        signal::release_managers();
        if (detail::Shutdown::unmapping()) {
            internal::ForkHandlers::withdraw();
            let_threads_get_on();
        }
    }
    OnLoad(OnLoad const&) = delete;
    OnLoad& operator=(OnLoad const&) = delete;
};

OnLoad const on_load;

} // namespace

} // namespace orn::zel
