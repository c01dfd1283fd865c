// SPDX-License-Identifier: MIT
//
// CLOCK_MONOTONIC as one number, and waiting by it. Internal; not installed.
#ifndef ORN_CLOCK_HPP
#define ORN_CLOCK_HPP

#include <cstdint>

#include <poll.h>
#include <time.h>

namespace orn::internal {

constexpr std::uint64_t ns_per_second = 1000000000;

// In nanoseconds.
inline std::uint64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * ns_per_second + static_cast<std::uint64_t>(now.tv_nsec);
}

// In milliseconds as of the kernel's latest tick, which is some milliseconds old. Costs a few nanoseconds.
inline std::uint64_t coarse_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

// Waits for what comes soon as a rule: a millisecond at a time, and as long as it says at most. The naps are
// not counted, because each takes ten times as long on a kernel without high-resolution timers, or longer
// beside busy processes.
class Patience {
public:
    explicit Patience(unsigned ms) : end_ms_(coarse_ms() + ms) {}
    // False when the time is over.
    bool nap() const {
        if (coarse_ms() >= end_ms_)
            return false;
        poll(nullptr, 0, 1);
        return true;
    }

private:
    std::uint64_t const end_ms_;
};

} // namespace orn::internal

#endif
