// SPDX-License-Identifier: MIT
//
// Measures many alarms: one created and cancelled while 100,000 others are outstanding, 100,000 created and
// cancelled, and 10,000 due at one moment. lateness.cpp measures how late a recurring one is.
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/timerfd.h>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

unsigned long const hour_ms = 3600 * 1000;

// Draws delays of one to two hours, in no order.
class Delays {
public:
    unsigned long next() {
        state_ = state_ * 1664525 + 1013904223;
        return hour_ms + (state_ >> 8) % hour_ms;
    }

private:
    std::uint32_t state_ = 1;
};

// Keeps deadlines as a program does by hand: sorted, and in one thread.
class BareAlarms {
public:
    using queue_type = std::multimap<bench::Clock::time_point, boost::function<void()>>;

    queue_type::iterator add(unsigned long ms, boost::function<void()> const& handler) {
        return queue_.emplace(bench::Clock::now() + std::chrono::milliseconds(ms), handler);
    }
    void cancel(queue_type::iterator it) { queue_.erase(it); }
    std::size_t size() const { return queue_.size(); }

private:
    queue_type queue_;
};

// Uses a descriptor for each alarm, and so nothing but system calls.
void arm_and_close_timerfd(unsigned long ms) {
    int const fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(ms / 1000);
    when.it_value.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    bench::expect(fd != -1 && timerfd_settime(fd, 0, &when, nullptr) == 0, "timerfd");
    close(fd);
}

void create_and_cancel(benchmark::State& state) {
    state.SetLabel("an alarm created and cancelled, with so many outstanding");
    std::size_t const outstanding = static_cast<std::size_t>(state.range(0));
    long fired = 0;
    auto const handler = [&fired] { ++fired; };
    Delays delays;
    bench::Versus versus(state, 1000);

    std::vector<std::unique_ptr<orn::zel::Alarm>> alarms;
    BareAlarms bare;
    for (std::size_t i = 0; i < outstanding; ++i) {
        alarms.push_back(std::make_unique<orn::zel::Alarm>(delays.next(), handler));
        bare.add(delays.next(), handler);
    }
    versus.leg("zel", [&](long count) {
        double const time =
            bench::timed_calls(count, [&] { orn::zel::Alarm const alarm(delays.next(), handler); });
        bench::expect(orn::zel::OutstandingAlarmCount() == outstanding, "alarms are missing or left");
        return time;
    });
    versus.leg("bare", [&](long count) {
        double const time = bench::timed_calls(count, [&] { bare.cancel(bare.add(delays.next(), handler)); });
        bench::expect(bare.size() == outstanding, "bare alarms are missing or left");
        return time;
    });
    versus.leg("timerfd", [&](long count) {
        return bench::timed_calls(count, [&] { arm_and_close_timerfd(delays.next()); });
    });
    versus.run();
    alarms.clear();
    if (fired != 0 || orn::zel::OutstandingAlarmCount() != 0)
        state.SkipWithError("an alarm fired early, or was left");
}
BENCHMARK(create_and_cancel)
    ->ArgName("outstanding")
    ->Arg(0)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void create_all_then_cancel_all(benchmark::State& state) {
    state.SetLabel("an alarm of so many: all created, then all cancelled in the same order");
    long fired = 0;
    auto const handler = [&fired] { ++fired; };
    Delays delays;
    bench::Versus versus(state, static_cast<long>(state.range(0)));
    versus.leg("zel", [&](long count) {
        std::vector<std::unique_ptr<orn::zel::Alarm>> alarms(static_cast<std::size_t>(count));
        double const creating = bench::timed([&] {
            for (auto& alarm : alarms)
                alarm = std::make_unique<orn::zel::Alarm>(delays.next(), handler);
        });
        bench::expect(orn::zel::OutstandingAlarmCount() == alarms.size(), "alarms are missing");
        double const cancelling = bench::timed([&] {
            for (auto& alarm : alarms)
                alarm.reset();
        });
        bench::expect(orn::zel::OutstandingAlarmCount() == 0 && fired == 0, "alarms are left");
        versus.note_each("zel_create", creating, count);
        versus.note_each("zel_cancel", cancelling, count);
        return creating + cancelling;
    });
    versus.leg("bare", [&](long count) {
        BareAlarms bare;
        std::vector<BareAlarms::queue_type::iterator> alarms(static_cast<std::size_t>(count));
        double const creating = bench::timed([&] {
            for (auto& alarm : alarms)
                alarm = bare.add(delays.next(), handler);
        });
        double const cancelling = bench::timed([&] {
            for (auto const& alarm : alarms)
                bare.cancel(alarm);
        });
        bench::expect(bare.size() == 0, "bare alarms are left");
        versus.note_each("bare_create", creating, count);
        versus.note_each("bare_cancel", cancelling, count);
        return creating + cancelling;
    });
    versus.run();
}
BENCHMARK(create_all_then_cancel_all)
    ->ArgName("alarms")
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// ---- All due at one moment ------------------------------------------------------------------------------

// How far ahead the moment is. It grows when a slow machine needs longer to set everything up.
std::chrono::milliseconds lead(20);

// Sets up for a moment to come. When the moment passes before everything is set, it sets up again for a later
// one.
template <class SetUp>
void set_up_in_time(SetUp set_up) {
    for (;;) {
        bench::Clock::time_point const moment = bench::Clock::now() + lead;
        set_up(moment);
        if (bench::Clock::now() < moment)
            return;
        bench::expect(lead < std::chrono::seconds(5), "the set-up takes too long");
        lead *= 2;
    }
}

// Counts calls, and notes when the first and the last one came.
struct Arrivals {
    Arrivals() : count(0) {}
    void operator()() {
        last = bench::Clock::now();
        if (count++ == 0)
            first = last;
    }
    double time() const { return bench::seconds(last - first); }

    long count;
    bench::Clock::time_point first;
    bench::Clock::time_point last;
};

double zel_due_at_once(long count) {
    Arrivals arrivals;
    bench::Clock::time_point due;
    std::vector<std::unique_ptr<orn::zel::Alarm>> alarms;
    set_up_in_time([&](bench::Clock::time_point moment) {
        due = moment;
        alarms.clear();
        while (static_cast<long>(alarms.size()) < count) {
            // Rounded up, so that each alarm is due within the millisecond that begins at the moment.
            auto const left = moment - bench::Clock::now() + std::chrono::nanoseconds(999999);
            long const ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            alarms.push_back(std::make_unique<orn::zel::Alarm>(static_cast<unsigned long>(ms > 0 ? ms : 0),
                                                               [&arrivals] { arrivals(); }));
        }
    });
    while (arrivals.count < count)
        orn::zel::RunOnce(-1);
    while (orn::zel::RunOnce(0) > 0) {
    }
    bench::expect(arrivals.count == count && orn::zel::OutstandingAlarmCount() == 0,
                  "alarms and calls do not match");
    bench::expect(arrivals.first >= due, "an alarm was early");
    return arrivals.time();
}

// A thread that sleeps until the moment and then writes four bytes for each alarm into the loop's pipe.
class BareTimerThread {
public:
    BareTimerThread() : thread_([this] { serve(); }) {}
    ~BareTimerThread() {
        order(bench::Clock::now(), -1);
        thread_.join();
    }
    BareTimerThread(BareTimerThread const&) = delete;
    BareTimerThread& operator=(BareTimerThread const&) = delete;

    void order(bench::Clock::time_point moment, long count) {
        std::lock_guard<std::mutex> const guard(mutex_);
        moment_ = moment;
        count_ = count;
        changed_.notify_one();
    }
    int read_end() const { return pipe_.read_end(); }

private:
    void serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return count_ != 0; });
            if (count_ < 0)
                return;
            while (bench::Clock::now() < moment_)
                changed_.wait_until(lock, moment_);
            for (std::uint32_t id = 0; id < static_cast<std::uint32_t>(count_); ++id) {
                if (write(pipe_.write_end(), &id, sizeof id) != static_cast<ssize_t>(sizeof id))
                    std::terminate(); // the loop would wait for ever
            }
            count_ = 0;
        }
    }

    bench::Pipe pipe_; // holds 16,384 words
    std::mutex mutex_;
    std::condition_variable changed_;
    bench::Clock::time_point moment_;
    long count_ = 0;
    std::thread thread_;
};

double bare_due_at_once(BareTimerThread& timer, int wake, long count) {
    Arrivals arrivals;
    std::vector<boost::function<void()>> handlers(static_cast<std::size_t>(count),
                                                  [&arrivals] { arrivals(); });
    timer.order(bench::Clock::now() + lead, count);
    pollfd set[2] = {{wake, POLLIN, 0}, {timer.read_end(), POLLIN, 0}};
    while (arrivals.count < count) {
        if (poll(set, 2, -1) <= 0 || set[1].revents == 0)
            continue;
        std::uint32_t id;
        while (read(set[1].fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id))
            handlers[id]();
    }
    return arrivals.time();
}

void due_at_once(benchmark::State& state) {
    state.SetLabel("an alarm of so many that are due at one moment, from the first call to the last");
    BareTimerThread timer;
    bench::Pipe const wake;
    bench::Versus versus(state, static_cast<long>(state.range(0)));
    versus.leg("zel", zel_due_at_once);
    versus.leg("bare", [&](long count) { return bare_due_at_once(timer, wake.read_end(), count); });
    versus.run();
}
BENCHMARK(due_at_once)->ArgName("alarms")->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
