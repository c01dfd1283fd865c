// SPDX-License-Identifier: MIT
//
// Measures how late the handler of a 2 ms recurring alarm is called. Half a second of it takes turns with
// half a second of a timerfd that is polled and read by hand. No call may be early, and the phase may not
// wander.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include <sys/timerfd.h>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

using bench::Clock;

long const period_ms = 2;
long const calls_a_round = 250;
Clock::duration const period = std::chrono::milliseconds(period_ms);

// The calls of one round against the times at which they were due.
class Calls {
public:
    explicit Calls(Clock::time_point start) : earliest_(start), due_(start), last_(start) {}

    // periods: how many have passed since the call before, as far as the caller knows.
    void operator()(Clock::time_point now, std::uint64_t periods) {
        Clock::duration const step = period * static_cast<Clock::rep>(periods);
        earliest_ += step;
        bench::expect(now >= earliest_, "a call was early");
        due_ += step;
        // After a stall, a timer may skip the periods that it missed, or call for each of them. A pause that
        // leaves the call late tells of skipping. Should that be wrong, a call would be early, and the loop
        // below corrects it.
        if (stalled_ && now - last_ > period / 20 && now - due_ >= period)
            due_ += (now - due_) / period * period;
        while (now < due_)
            due_ -= period;
        late_.push_back(bench::seconds(now - due_) * 1e6);
        stalled_ = now - due_ >= period;
        last_ = now;
    }

    long count() const { return static_cast<long>(late_.size()); }

    // A timer that counts each period from the expiry before drifts by its lateness each time. Without a
    // drift two things hold on a machine that has time. Calls do not become later and later, which shows over
    // a few of them, before a drift has gone through a whole period. And some calls of each window are in
    // time.
    bool in_phase() const {
        std::ptrdiff_t const few = 8;
        std::vector<double> later;
        for (auto call = late_.begin(); call + few < late_.end(); ++call)
            later.push_back(call[few] - *call);
        std::ptrdiff_t const window = calls_a_round / 10;
        long in_time = 0;
        for (auto first = late_.begin(); first + window <= late_.end(); first += window)
            in_time += *std::min_element(first, first + window) < period_us() / 4;
        return std::abs(bench::median(later)) < period_us() / 10 && in_time >= 7;
    }

    std::vector<double> const& late_us() const { return late_; }

private:
    static double period_us() { return bench::seconds(period) * 1e6; }

    Clock::time_point earliest_; // due_, if nothing has been skipped
    Clock::time_point due_;
    Clock::time_point last_;
    bool stalled_ = false;
    std::vector<double> late_;
};

// The alarm is set after the start of the Calls, so that the lateness that is measured is never too small.
Calls zel_round(long count = calls_a_round) {
    Calls calls(Clock::now());
    orn::zel::Alarm const alarm(period_ms, period_ms, [&calls] { calls(Clock::now(), 1); });
    while (calls.count() < count)
        orn::zel::RunOnce(-1);
    return calls;
}

Calls bare_round(int wake, long count = calls_a_round) {
    int const fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec when = {};
    when.it_value.tv_nsec = period_ms * 1000000;
    when.it_interval = when.it_value;
    Calls calls(Clock::now());
    bench::expect(fd != -1 && timerfd_settime(fd, 0, &when, nullptr) == 0, "timerfd");
    pollfd set[2] = {{wake, POLLIN, 0}, {fd, POLLIN, 0}};
    while (calls.count() < count) {
        std::uint64_t expiries;
        if (poll(set, 2, -1) > 0 && read(fd, &expiries, sizeof expiries) == sizeof expiries)
            calls(Clock::now(), expiries);
    }
    close(fd);
    return calls;
}

// Runs rounds of both, and keeps what they say together.
class Comparison {
public:
    // Goes through a few calls beforehand. The first alarm of a process makes the timers' thread and the
    // thread's manager, and code that runs for the first time faults its pages in: all of that is set-up.
    Comparison() {
        long const few = 10;
        zel_round(few);
        bare_round(wake_.read_end(), few);
    }

    // Returns the seconds that the alarm's part took.
    double round() {
        Clock::time_point const begin = Clock::now();
        Calls const ours = zel_round();
        double const time = bench::seconds(Clock::now() - begin);
        Calls const theirs = bare_round(wake_.read_end());
        if (ours.in_phase())
            ++kept_;
        else if (theirs.in_phase())
            ++lost_;
        append(zel_, ours);
        append(bare_, theirs);
        ratios_.push_back(bench::median(ours.late_us()) / bench::median(theirs.late_us()));
        return time;
    }

    // A busy machine makes both lose the phase now and then. An alarm that drifts never keeps it, however
    // often the timerfd does.
    void check_phase() {
        for (int i = 0; i < 10 && kept_ == 0 && lost_ < 4; ++i)
            round();
        bench::expect(kept_ > 0 || lost_ < 4, "the calls drift");
    }

    void report(benchmark::State& state) const {
        count_quantiles(state, "zel", zel_);
        count_quantiles(state, "bare", bare_);
        state.counters["ratio"] = bench::median(ratios_);
        state.counters["calls"] = static_cast<double>(zel_.size());
    }

private:
    static void append(std::vector<double>& all, Calls const& calls) {
        all.insert(all.end(), calls.late_us().begin(), calls.late_us().end());
    }
    static void count_quantiles(benchmark::State& state, std::string const& name,
                                std::vector<double> const& late) {
        state.counters[name + "_p50_us"] = bench::quantile(late, 0.5);
        state.counters[name + "_p99_us"] = bench::quantile(late, 0.99);
        state.counters[name + "_max_us"] = bench::quantile(late, 1);
    }

    bench::Pipe wake_;
    std::vector<double> zel_, bare_, ratios_;
    long kept_ = 0;
    long lost_ = 0;
};

void recurring_alarm(benchmark::State& state) {
    state.SetLabel("how late a call of a 2 ms alarm is");
    try {
        Comparison comparison;
        while (state.KeepRunning())
            state.SetIterationTime(comparison.round());
        comparison.check_phase();
        comparison.report(state);
    } catch (std::exception const& failure) {
        state.SkipWithError(failure.what());
    }
}
BENCHMARK(recurring_alarm)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
