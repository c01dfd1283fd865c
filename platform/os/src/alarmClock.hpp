// SPDX-License-Identifier: MIT
//
// The clock that wakes the timers' thread: a timerfd, which any thread may set while that one sleeps on it.
// Internal to the platform layer. Which deadline is the earliest is left to Timer.cpp.
#ifndef ORN_PLATFORM_ALARMCLOCK_HPP
#define ORN_PLATFORM_ALARMCLOCK_HPP

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <limits>

#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <orn/clock.hpp>
#include <orn/descriptor.hpp>

namespace orn::os {

using internal::now_ns;
using internal::ns_per_second;

// A time of CLOCK_MONOTONIC.
inline timespec timespec_of(std::uint64_t ns) {
    // Cut to what a time_t of 32 bits holds. Waking too early once in decades does no harm.
    std::uint64_t const seconds = ns / ns_per_second;
    std::uint64_t const limit = std::numeric_limits<std::int32_t>::max();
    timespec time = {};
    time.tv_sec = static_cast<time_t>(seconds < limit ? seconds : limit);
    time.tv_nsec = static_cast<long>(ns % ns_per_second);
    return time;
}

// Constant-initialised and never destroyed, as the service is that it belongs to. The functions that return
// bool return false when the system refuses, with errno.
class AlarmClock {
public:
    bool made() const { return fd_ != -1; }
    bool make() {
        fd_ = internal::above_standard(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
        return made();
    }
    // Nobody may use the clock meanwhile.
    void unmake() {
        if (made())
            close(fd_);
        fd_ = -1;
    }

    // The deadline is not 0.
    bool set(std::uint64_t deadline_ns) const {
        itimerspec when = {};
        when.it_value = timespec_of(deadline_ns);
        return timerfd_settime(fd_, TFD_TIMER_ABSTIME, &when, nullptr) == 0;
    }

    // A clock that is set to the past expires by an interrupt, which takes 20 us in a virtual machine. A
    // kernel with CHECKPOINT_RESTORE takes the expiry itself, and wakes the sleeper as a futex would.
    bool expire() const {
        // TFD_IOC_SET_TICKS, whose header cannot be included beside <sys/timerfd.h>.
        unsigned long const set_ticks = _IOW('T', 0, std::uint64_t);
        std::uint64_t expiries = 1;
        return ioctl(fd_, set_ticks, &expiries) == 0 || set(1);
    }

    // Sleeps until the clock expires.
    bool wait() const {
        std::uint64_t expiries;
        return read(fd_, &expiries, sizeof expiries) == sizeof expiries || errno == EINTR;
    }

private:
    std::atomic<int> fd_{-1};
};

} // namespace orn::os

#endif
