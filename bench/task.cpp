// SPDX-License-Identifier: MIT
//
// Measures slices of tasks, a thousand a turn. The bare loop does for each what schedules it: it writes four
// bytes into a pipe and reads them again, alone or with others.
#include <cstdint>
#include <memory>
#include <vector>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

// The work of a slice, the same on both sides.
struct Job {
    explicit Job(long& counter) : slices(counter) {}
    void operator()() const { ++slices; }
    long& slices;
};

class BareLoop {
public:
    // at_once: how many of the four-byte words one read() and one write() may take.
    BareLoop(long tasks, std::size_t at_once) : slices(0), words_(at_once) {
        Job const job(slices);
        jobs_.assign(static_cast<std::size_t>(tasks), job);
        for (std::uint32_t id = 0; id < jobs_.size(); ++id)
            schedule(&id, 1);
    }

    // Runs once whatever has been scheduled.
    void turn() {
        pollfd set[2] = {{wake_.read_end(), POLLIN, 0}, {scheduled_.read_end(), POLLIN, 0}};
        if (poll(set, 2, -1) <= 0 || set[1].revents == 0)
            return;
        std::size_t const most = words_.size() * sizeof words_[0];
        for (ssize_t got; (got = read(set[1].fd, words_.data(), most)) > 0;) {
            auto const end = words_.begin() + got / static_cast<ssize_t>(sizeof words_[0]);
            queue_.insert(queue_.end(), words_.begin(), end);
        }
        std::size_t written = 0;
        for (std::size_t i = 0; i < queue_.size(); ++i) {
            jobs_[queue_[i]]();
            if (i + 1 - written == words_.size() || i + 1 == queue_.size()) {
                schedule(&queue_[written], i + 1 - written);
                written = i + 1;
            }
        }
        queue_.clear();
    }

    long slices;

private:
    void schedule(std::uint32_t const* ids, std::size_t count) {
        ssize_t const size = static_cast<ssize_t>(count * sizeof *ids);
        bench::expect(write(scheduled_.write_end(), ids, count * sizeof *ids) == size, "the pipe is full");
    }

    bench::Pipe wake_;
    bench::Pipe scheduled_;
    std::vector<boost::function<void()>> jobs_;
    std::vector<std::uint32_t> words_;
    std::vector<std::uint32_t> queue_;
};

template <class Turn>
double run_slices(long count, long const& slices, Turn turn) {
    long const before = slices;
    double const time = bench::timed([&] {
        while (slices < before + count)
            turn();
    });
    bench::expect(slices == before + count, "a turn gave other slices than were scheduled");
    return time;
}

void slices_of_ready_tasks(benchmark::State& state) {
    state.SetLabel("a slice of one of so many tasks that are always ready");
    long const count = static_cast<long>(state.range(0));
    bench::Versus versus(state, 10 * count);
    long slices = 0;
    Job const job(slices);
    std::vector<std::unique_ptr<orn::zel::Task>> tasks;
    auto const start = [&] {
        tasks.push_back(std::make_unique<orn::zel::Task>([job](orn::zel::task::Controller*) { job(); }));
        tasks.back()->Run();
    };
    versus.note_each("start", bench::timed_calls(count, start), count);
    BareLoop bare(count, 1);
    BareLoop bulk(count, 1024);
    versus.leg("zel", [&](long n) { return run_slices(n, slices, [] { orn::zel::RunOnce(-1); }); });
    versus.leg("bare", [&](long n) { return run_slices(n, bare.slices, [&] { bare.turn(); }); });
    versus.leg("bulk", [&](long n) { return run_slices(n, bulk.slices, [&] { bulk.turn(); }); });
    versus.run();
    tasks.clear(); // cancels them; what is left in the pipe names nobody
    while (orn::zel::RunOnce(0) > 0) {
    }
}
BENCHMARK(slices_of_ready_tasks)
    ->ArgName("tasks")
    ->Arg(1)
    ->Arg(1000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// A task of one slice, from its start to the call that tells of its end.
void short_tasks(benchmark::State& state) {
    state.SetLabel("a task started, run once and completed, so many a turn");
    bench::Versus versus(state, static_cast<long>(state.range(0)));
    versus.leg("zel", [](long count) {
        long slices = 0;
        long done = 0;
        double const time = bench::timed([&] {
            for (long i = 0; i < count; ++i) {
                orn::zel::RunTask(
                    [&slices](orn::zel::task::Controller* task) {
                        ++slices;
                        task->Complete();
                    },
                    [&done] { ++done; });
            }
            while (done < count)
                orn::zel::RunOnce(-1);
        });
        bench::expect(slices == count && done == count, "slices and ends do not match");
        return time;
    });
    versus.run();
}
BENCHMARK(short_tasks)->ArgName("tasks")->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
