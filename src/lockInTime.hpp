// SPDX-License-Identifier: MIT
//
// Waiting for a mutex, but not for ever. Internal. Who cannot have it in time has to do without.
#ifndef ZEL_SRC_LOCKINTIME_HPP
#define ZEL_SRC_LOCKINTIME_HPP

#include <mutex>

#include <poll.h>

#include <orn/cancel.hpp>

namespace orn::zel::detail {

// The lock that is returned holds the mutex, unless that was not free in all the time. Waiting for the mutex
// itself would go by the wall clock, which may be set back meanwhile: ThreadSanitizer does not know a mutex
// that waits by another.
inline std::unique_lock<std::mutex> lock_in_time(std::mutex& mutex, unsigned ms) {
    internal::CancelShield const shield; // poll() is a cancellation point, and destructors come here
    std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
    while (!lock && ms-- > 0) {
        poll(nullptr, 0, 1);
        lock.try_lock();
    }
    return lock;
}

} // namespace orn::zel::detail

#endif
