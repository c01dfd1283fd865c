// SPDX-License-Identifier: MIT
//
// How the benchmarks measure. Internal to bench/. The same work is done in several ways, a batch of each in
// turn, round after round in one run, so that whatever else the machine does meets all of them alike. The
// programs say what the work is, and check that it was done.
//
//     bench::Versus versus(state, 100);                        // 100 operations a batch
//     versus.leg("zel", [&](long count) { return bench::timed([&] { ... }); });
//     versus.leg("bare", ...);
//     versus.run();                                            // counters zel_ns, bare_ns, ratio
#ifndef ORN_ZEL_BENCH_VERSUS_HPP
#define ORN_ZEL_BENCH_VERSUS_HPP

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace bench {

using Clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

inline double seconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

template <class Work>
double timed(Work work) {
    Clock::time_point const begin = Clock::now();
    work();
    return seconds(Clock::now() - begin);
}

// Ends the benchmark with this text when a result is not what it must be.
inline void expect(bool holds, char const* otherwise) {
    if (!holds)
        throw std::runtime_error(otherwise);
}

// The quantile q of the values; 0 without any.
inline double quantile(std::vector<double> values, double q) {
    if (values.empty())
        return 0;
    auto const at = values.begin() + std::lround(q * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

inline double median(std::vector<double> const& values) {
    return quantile(values, 0.5);
}

// The first leg is the one that the others are compared with. Its counter is <leg>_<unit>, the median over
// all rounds of the time of one operation; `ratio` is the median of its time over that of the leg "bare" in
// the same round, ratio_<leg> over that of any other.
class Versus {
public:
    Versus(benchmark::State& state, long batch, std::string const& unit = "ns")
        : state_(state), batch_(batch), unit_(unit), scale_(unit == "us" ? 1e6 : 1e9) {}

    // The work of count operations; returns the seconds that it took, set-up and clean-up left out, and
    // throws when something of it was not done.
    void leg(std::string const& name, std::function<double(long count)> work) {
        legs_.push_back(Leg{name, work, {}});
    }

    // Notes a value of each round besides. The median becomes a counter.
    void note(std::string const& counter, double value) { notes_[counter].push_back(value); }
    // The same for the time of one operation out of count, in the unit of this.
    void note_each(std::string const& counter, double time, long count) {
        note(counter + '_' + unit_, time * scale_ / static_cast<double>(count));
    }

    void run() {
        try {
            std::size_t first = 0;
            while (state_.KeepRunning()) {
                double round = 0; // of all legs: one of them may take a thousand times as long as another
                for (std::size_t i = 0; i < legs_.size(); ++i) {
                    Leg& leg = legs_[(first + i) % legs_.size()];
                    double const time = leg.work(batch_);
                    leg.times.push_back(time / static_cast<double>(batch_));
                    round += time;
                }
                ++first;
                state_.SetIterationTime(round);
            }
        } catch (std::exception const& failure) {
            state_.SkipWithError(failure.what());
            return;
        }
        report();
    }

private:
    struct Leg {
        std::string name;
        std::function<double(long)> work;
        std::vector<double> times;
    };

    void report() {
        for (Leg const& leg : legs_) {
            state_.counters[leg.name + '_' + unit_] = median(leg.times) * scale_;
            if (&leg == &legs_[0])
                continue;
            std::vector<double> ratios;
            for (std::size_t i = 0; i < leg.times.size(); ++i)
                ratios.push_back(legs_[0].times[i] / leg.times[i]);
            state_.counters[leg.name == "bare" ? "ratio" : "ratio_" + leg.name] = median(ratios);
        }
        for (auto const& note : notes_)
            state_.counters[note.first] = median(note.second);
    }

    benchmark::State& state_;
    long const batch_;
    std::string const unit_;
    double const scale_;
    std::vector<Leg> legs_;
    std::map<std::string, std::vector<double>> notes_;
};

// A pipe with both ends non-blocking, as a loop needs it.
class Pipe {
public:
    Pipe() {
        if (pipe2(ends_, O_NONBLOCK | O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    int read_end() const { return ends_[0]; }
    int write_end() const { return ends_[1]; }

private:
    int ends_[2];
};

inline void put_byte(int fd) {
    char const byte = 'b';
    expect(write(fd, &byte, 1) == 1, "a byte was not written");
}

inline void take_byte(int fd) {
    char byte;
    expect(read(fd, &byte, 1) == 1, "a byte was not there");
}

// Reads what other threads have written to wake a loop, until there is no more.
inline void drain(int fd) {
    char bytes[64];
    while (read(fd, bytes, sizeof bytes) > 0) {
    }
}

// The same with one call less: a short read has emptied the pipe.
inline void drain_short(int fd) {
    char bytes[64];
    while (read(fd, bytes, sizeof bytes) == static_cast<ssize_t>(sizeof bytes)) {
    }
}

// The processors that this program was started on.
inline cpu_set_t const& usable_processors() {
    static cpu_set_t const usable = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    return usable;
}

// Keeps the calling thread on the nth of usable_processors(): where the scheduler puts two threads that wake
// each other matters more than what they do. Call usable_processors() before the first of these.
class OnProcessor {
public:
    explicit OnProcessor(int nth) {
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int cpu = 0, seen = 0; cpu < CPU_SETSIZE && seen <= nth; ++cpu) {
            if (CPU_ISSET(cpu, &usable_processors()) && seen++ == nth)
                CPU_SET(cpu, &one);
        }
        expect(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
    }
    ~OnProcessor() { sched_setaffinity(0, sizeof(cpu_set_t), &usable_processors()); }
    OnProcessor(OnProcessor const&) = delete;
    OnProcessor& operator=(OnProcessor const&) = delete;
};

// Allows this process as many descriptors as the system lets it have.
inline void raise_descriptor_limit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace bench

#endif
