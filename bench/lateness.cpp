// SPDX-License-Identifier: MIT
//
// How late the handler of a 2 ms recurring alarm is called: half a second of it in turn with half a second of
// a timerfd that is polled and read by hand. No call may be early, and the phase may not wander.
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

    // So many periods have passed since the call before, as far as whoever calls knows.
    void operator()(Clock::time_point now, std::uint64_t periods) {
        Clock::duration const step = period * static_cast<Clock::rep>(periods);
        earliest_ += step;
        bench::expect(now >= earliest_, "a call was early");
        due_ += step;
        // After a stall of periods, those that were missed may be skipped, or their calls be queued. A pause
        // and no end of the delay tells of the first, calls that would be early correct that.
        if (stalled_ && now - last_ > period / 20 && now - due_ >= period)
            due_ += (now - due_) / period * period;
        while (now < due_)
            due_ -= period;
        late_.push_back(bench::seconds(now - due_) * 1e6);
        stalled_ = now - due_ >= period;
        last_ = now;
    }

    long count() const { return static_cast<long>(late_.size()); }

    // A timer that counts each period from the expiry before drifts by its lateness each time. Fast drift
    // spreads the calls over the whole period, slow drift has carried even the best of the last calls away.
    void check_phase() const {
        double const period_us = bench::seconds(period) * 1e6;
        bench::expect(bench::median(late_) < period_us / 3, "the calls are late or have drifted");
        std::vector<double> const last(late_.end() - count() / 5, late_.end());
        bench::expect(bench::quantile(last, 0) < period_us / 4, "the calls have drifted");
    }

    std::vector<double> const& late_us() const { return late_; }

private:
    Clock::time_point earliest_; // if nothing has been skipped
    Clock::time_point due_;
    Clock::time_point last_;
    bool stalled_ = false;
    std::vector<double> late_;
};

// The alarm is set after `start`, so that what is measured is never too little.
Calls zel_round() {
    Calls calls(Clock::now());
    orn::zel::Alarm const alarm(period_ms, period_ms, [&calls] { calls(Clock::now(), 1); });
    while (calls.count() < calls_a_round)
        orn::zel::RunOnce(-1);
    return calls;
}

Calls bare_round(int wake) {
    int const fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec when = {};
    when.it_value.tv_nsec = period_ms * 1000000;
    when.it_interval = when.it_value;
    Calls calls(Clock::now());
    bench::expect(fd != -1 && timerfd_settime(fd, 0, &when, nullptr) == 0, "timerfd");
    pollfd set[2] = {{wake, POLLIN, 0}, {fd, POLLIN, 0}};
    while (calls.count() < calls_a_round) {
        std::uint64_t expiries;
        if (poll(set, 2, -1) > 0 && read(fd, &expiries, sizeof expiries) == sizeof expiries)
            calls(Clock::now(), expiries);
    }
    close(fd);
    return calls;
}

void append(std::vector<double>& all, Calls const& calls) {
    calls.check_phase();
    all.insert(all.end(), calls.late_us().begin(), calls.late_us().end());
}

void count_quantiles(benchmark::State& state, std::string const& name, std::vector<double> const& late) {
    state.counters[name + "_p50_us"] = bench::quantile(late, 0.5);
    state.counters[name + "_p99_us"] = bench::quantile(late, 0.99);
    state.counters[name + "_max_us"] = bench::quantile(late, 1);
}

void RecurringAlarm(benchmark::State& state) {
    state.SetLabel("how late a call of a 2 ms alarm is");
    bench::Pipe const wake;
    std::vector<double> zel, bare, ratios;
    try {
        for (auto _ : state) {
            Clock::time_point const begin = Clock::now();
            Calls const ours = zel_round();
            state.SetIterationTime(bench::seconds(Clock::now() - begin));
            Calls const theirs = bare_round(wake.read_end());
            append(zel, ours);
            append(bare, theirs);
            ratios.push_back(bench::median(ours.late_us()) / bench::median(theirs.late_us()));
        }
    } catch (std::exception const& failure) {
        state.SkipWithError(failure.what());
        return;
    }
    count_quantiles(state, "zel", zel);
    count_quantiles(state, "bare", bare);
    state.counters["ratio"] = bench::median(ratios);
    state.counters["calls"] = static_cast<double>(zel.size());
}
BENCHMARK(RecurringAlarm)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
