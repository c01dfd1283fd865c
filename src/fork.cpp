// SPDX-License-Identifier: MIT
#include "fork.hpp"

#include <atomic>

#include <pthread.h>
#include <unistd.h>

#include "observer.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::atomic<pid_t> current(0);

void note() {
    current = getpid();
    renew_observers();
}

// Withdrawn by the C library when this library is unmapped.
int const registered = pthread_atfork(nullptr, nullptr, note);

std::atomic<void (*)()> hook(nullptr);
std::atomic<pid_t> hooked(0); // where it has been run, or set

} // namespace

void set_child_hook(void (*fn)()) {
    hook = fn;
    hooked = process_id();
}

void run_child_hook() {
    pid_t const before = hooked.exchange(process_id());
    if (before != process_id() && hook)
        hook.load()();
}

bool in_unused_child() {
    return hooked != process_id();
}

pid_t process_id() {
    pid_t known = current.load(std::memory_order_relaxed);
    if (known == 0) {
        static_cast<void>(registered);
        known = getpid();
        current.store(known, std::memory_order_relaxed);
    }
    return known;
}

} // namespace detail
} // namespace zel
} // namespace orn
