// SPDX-License-Identifier: MIT
//
// The monotonic clock as one number. Internal.
#ifndef ZEL_SRC_CLOCK_HPP
#define ZEL_SRC_CLOCK_HPP

#include <cstdint>

#include <time.h>

namespace orn::zel::detail {

// CLOCK_MONOTONIC in nanoseconds.
inline std::uint64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
}

// The same clock in milliseconds as of the kernel's latest tick, which is some milliseconds old. Costs a few
// nanoseconds.
inline std::uint64_t coarse_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

} // namespace orn::zel::detail

#endif
