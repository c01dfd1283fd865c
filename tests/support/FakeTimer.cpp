// SPDX-License-Identifier: MIT
//
// orn::os::Timer on a clock that stands still between calls of fake_timer::advance().
#include "FakeTimer.hpp"

#include <limits>
#include <map>
#include <mutex>
#include <orn/os/Timer.hpp>
#include <utility>

namespace orn::os {

class TimerService {
public:
    using Key = std::pair<std::uint64_t, std::uint32_t>; // deadline, order of setting

    static Key key(Timer const& timer) { return {timer.deadline_ns_, timer.number_}; }

    void disarm(Timer& timer) {
        if (timer.number_ != 0) {
            armed.erase(key(timer));
            timer.number_ = 0;
        }
    }

    void arm(Timer& timer, std::uint64_t deadline_ns) {
        timer.deadline_ns_ = deadline_ns;
        timer.number_ = ++settings;
        armed.emplace(key(timer), &timer);
    }

    void set(Timer& timer, std::uint64_t delay_ns, std::uint64_t period_ns) {
        std::lock_guard<std::mutex> const guard(mutex);
        disarm(timer);
        timer.period_ns_ = period_ns;
        arm(timer, after(delay_ns));
    }

    std::uint64_t after(std::uint64_t delay_ns) const {
        auto const never = std::numeric_limits<std::uint64_t>::max();
        return delay_ns < never - now_ns ? now_ns + delay_ns : never;
    }

    bool fire_one(std::uint64_t until_ns) {
        std::unique_lock<std::mutex> lock(mutex);
        if (armed.empty() || armed.begin()->first.first > until_ns) {
            now_ns = until_ns;
            return false;
        }
        Timer& timer = *armed.begin()->second;
        now_ns = timer.deadline_ns_;
        disarm(timer);
        if (timer.period_ns_ != 0)
            arm(timer, after(timer.period_ns_));
        auto const callback = timer.callback_; // which may destroy its timer
        lock.unlock();
        callback(&timer);
        return true;
    }

    std::mutex mutex; // not held while a callback runs
    std::map<Key, Timer*> armed;
    std::uint32_t settings = 0;
    std::size_t live = 0;
    std::uint64_t now_ns = 0;
};

namespace {

// Never destroyed: alarms are taken down after the test's own static objects.
TimerService& service() {
    static auto* const instance = new TimerService;
    return *instance;
}

std::uint64_t ns_of(unsigned long ms) {
    auto const never = std::numeric_limits<std::uint64_t>::max();
    return ms < never / 1000000u ? ms * std::uint64_t{1000000} : never;
}

} // namespace

Timer::Timer(boost::function<void(Timer*)> callback)
    : callback_(std::move(callback)), deadline_ns_(0), period_ns_(0), number_(0), state_(0) {
    std::lock_guard<std::mutex> const guard(service().mutex);
    ++service().live;
}

Timer::~Timer() {
    std::lock_guard<std::mutex> const guard(service().mutex);
    service().disarm(*this);
    --service().live;
}

void Timer::Set(unsigned long initialMs, unsigned long recurringMs) {
    service().set(*this, ns_of(initialMs), ns_of(recurringMs));
}

} // namespace orn::os

namespace fake_timer {

void advance(unsigned long ms) {
    auto& service = orn::os::service();
    std::uint64_t const until = service.after(orn::os::ns_of(ms));
    while (service.fire_one(until)) {
    }
}

long now() {
    std::lock_guard<std::mutex> const guard(orn::os::service().mutex);
    return static_cast<long>(orn::os::service().now_ns / 1000000);
}

std::size_t live() {
    std::lock_guard<std::mutex> const guard(orn::os::service().mutex);
    return orn::os::service().live;
}

} // namespace fake_timer
