// SPDX-License-Identifier: MIT
//
// CLOCK_MONOTONIC as one number. Internal; not installed.
#ifndef ORN_CLOCK_HPP
#define ORN_CLOCK_HPP

#include <cstdint>

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

} // namespace orn::internal

#endif
