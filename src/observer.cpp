// SPDX-License-Identifier: MIT
//
// Writing the lines of the monitors, and switching the monitors off.
#include "observer.hpp"

#include <cerrno>

#include <orn/zel/response.hpp>

namespace orn::zel::detail {

Observer thread_observer;
Observer poll_observer;
Observer alarm_observer;
Observer task_observer;

namespace {

Observer* const observers[] = {&thread_observer, &poll_observer, &alarm_observer, &task_observer};

} // namespace

void Observer::watch(int fd) {
    std::unique_lock<std::mutex> const guard = lock_in_time(lock_, longest_wait_ms);
    fd_.store(fd, std::memory_order_release);
}

void Observer::forget(int fd) {
    if (!is(fd)) // saves waiting for an observer that blocks
        return;
    std::unique_lock<std::mutex> const guard = lock_in_time(lock_, longest_wait_ms);
    fd_.compare_exchange_strong(fd, -1);
}

void Observer::write(std::string const& text) {
    int const error = errno;
    {
        std::lock_guard<std::mutex> const guard(lock_);
        int fd = fd_.load(std::memory_order_relaxed);
        // With EBADF the descriptor was closed while it was watched. Its number must not be tried again,
        // because the next file that is opened gets it.
        if (fd != -1 && cmd::Write(fd, text) == -1 && (errno == EPIPE || errno == EBADF))
            fd_.compare_exchange_strong(fd, -1);
    }
    errno = error;
}

bool is_observer(int fd) {
    for (Observer const* const observer : observers) {
        if (observer->is(fd))
            return true;
    }
    return false;
}

void forget_observer(int fd) {
    for (Observer* const observer : observers)
        observer->forget(fd);
}

void renew_observers() {
    for (Observer* const observer : observers)
        observer->renew();
}

} // namespace orn::zel::detail
