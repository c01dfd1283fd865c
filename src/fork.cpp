// SPDX-License-Identifier: MIT
//
// The process's id as fork() changes it, and the hook that runs once in a child.
#include "fork.hpp"

#include <atomic>

#include <unistd.h>

#include <orn/forkHandlers.hpp>

#include "observer.hpp"
#include "readiness.hpp"

namespace orn::zel::detail {

namespace {

std::atomic<pid_t> current(0);
std::atomic<bool> is_child(false);

void in_child() {
    current = getpid();
    is_child = true;
    renew_observers();
    Readiness::forked();
}

internal::ForkHandlers const fork_handlers = {nullptr, nullptr, in_child};

std::atomic<void (*)()> child_hook(nullptr);
std::atomic<pid_t> hooked(0); // the process in which the hook was set or has last run

} // namespace

bool forked() {
    return is_child;
}

void set_child_hook(void (*hook)()) {
    child_hook = hook;
    hooked = process_id();
}

void run_child_hook() {
    pid_t const before = hooked.exchange(process_id());
    if (before != process_id() && child_hook)
        child_hook.load()();
}

bool in_unused_child() {
    return hooked != process_id();
}

pid_t process_id() {
    pid_t known = current.load(std::memory_order_relaxed);
    if (known == 0) {
        known = getpid();
        current.store(known, std::memory_order_relaxed);
    }
    return known;
}

} // namespace orn::zel::detail
