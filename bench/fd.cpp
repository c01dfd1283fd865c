// SPDX-License-Identifier: MIT
//
// Measures descriptors: a byte through one pipe among idle ones, and through some of a hundred. The bare
// loops poll what the group polls: the same pipes, and one more through which another thread could wake them.
#include <memory>
#include <vector>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

using Pipes = std::vector<std::unique_ptr<bench::Pipe>>;

Pipes make_pipes(long count) {
    bench::raise_descriptor_limit();
    Pipes pipes;
    for (long i = 0; i < count; ++i)
        pipes.push_back(std::make_unique<bench::Pipe>());
    return pipes;
}

// Writes a byte into each of the active pipes and has them read, again and again, until count have passed.
template <class Turn>
double pass_bytes(std::vector<int> const& active, long count, long const& served, Turn turn) {
    long const before = served;
    double const time = bench::timed([&] {
        long wanted = before;
        while (wanted < before + count) {
            for (int const write_end : active)
                bench::put_byte(write_end);
            wanted += static_cast<long>(active.size());
            while (served < wanted)
                turn();
        }
    });
    bench::expect(served == before + count, "bytes and events do not match");
    return time;
}

// The loop by hand. The first entry of its poll set is the pipe to wake it.
class BareLoop {
public:
    BareLoop(Pipes const& pipes, bool wakeable) : served(0), wakeable_(wakeable) {
        if (wakeable)
            set_.push_back(pollfd{wake_.read_end(), POLLIN, 0});
        for (auto const& pipe : pipes)
            set_.push_back(pollfd{pipe->read_end(), POLLIN, 0});
    }

    // With ask_first it polls without waiting, and waits only when that has found nothing.
    void turn(bool ask_first) {
        int ready = ask_first ? poll(set_.data(), set_.size(), 0) : 0;
        if (ready == 0)
            ready = poll(set_.data(), set_.size(), -1);
        for (std::size_t i = 0; ready > 0; ++i) {
            if (set_[i].revents == 0)
                continue;
            --ready;
            if (i == 0 && wakeable_) {
                bench::drain(set_[i].fd);
            } else {
                bench::take_byte(set_[i].fd);
                ++served;
            }
        }
    }

    long served;

private:
    bool const wakeable_;
    bench::Pipe wake_;
    std::vector<pollfd> set_;
};

// Returns the write ends of the pipes that get a byte each turn. A poll() that may block registers with each
// descriptor until it meets one that is ready, so the place of an active one counts: the last one has all
// idle ones before it.
std::vector<int> spread(Pipes const& pipes, long active, bool first) {
    std::vector<int> ends;
    std::size_t const step = pipes.size() / static_cast<std::size_t>(active);
    for (std::size_t i = first ? 0 : step - 1; i < pipes.size(); i += step)
        ends.push_back(pipes[i]->write_end());
    return ends;
}

void pass(benchmark::State& state, Pipes const& pipes, std::vector<int> const& active, long batch) {
    state.SetLabel("a byte written, waited for and read");
    bench::Versus versus(state, batch);
    long served = 0;
    std::vector<std::unique_ptr<orn::zel::fd::AutoReceptor>> receptors;
    auto const count_byte = [&served](orn::zel::fd::Event* event) {
        bench::take_byte(event->fd());
        ++served;
    };
    double const registering = bench::timed([&] {
        for (auto const& pipe : pipes)
            receptors.push_back(std::make_unique<orn::zel::fd::AutoReceptor>(pipe->read_end(), count_byte));
    });
    while (orn::zel::RunOnce(0) > 0) {
    }

    BareLoop bare(pipes, true);
    BareLoop asking(pipes, true);
    BareLoop unwakeable(pipes, false);
    versus.leg("zel",
               [&](long count) { return pass_bytes(active, count, served, [] { orn::zel::RunOnce(-1); }); });
    versus.leg("bare",
               [&](long count) { return pass_bytes(active, count, bare.served, [&] { bare.turn(false); }); });
    versus.leg("asking", [&](long count) {
        return pass_bytes(active, count, asking.served, [&] { asking.turn(true); });
    });
    versus.leg("unwakeable", [&](long count) {
        return pass_bytes(active, count, unwakeable.served, [&] { unwakeable.turn(false); });
    });
    versus.run();

    double const removing = bench::timed([&] { receptors.clear(); });
    if (!state.error_occurred() && pipes.size() > 1) {
        double const each = 1e9 / static_cast<double>(pipes.size());
        state.counters["register_ns"] = registering * each;
        state.counters["remove_ns"] = removing * each;
    }
}

// The idle descriptors come before the active one in the poll set, or with `behind` after it.
void one_active_among_idle(benchmark::State& state) {
    long const idle = static_cast<long>(state.range(0));
    Pipes const pipes = make_pipes(idle + 1);
    pass(state, pipes, spread(pipes, 1, state.range(1) != 0), 20 + 4000 / (idle + 16));
}
BENCHMARK(one_active_among_idle)
    ->ArgNames({"idle", "behind"})
    ->Args({0, 0})
    ->Args({16, 0})
    ->Args({64, 0})
    ->Args({256, 0})
    ->Args({1024, 0})
    ->Args({1024, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void active_among_hundred(benchmark::State& state) {
    Pipes const pipes = make_pipes(100);
    pass(state, pipes, spread(pipes, static_cast<long>(state.range(0)), false), 200);
}
BENCHMARK(active_among_hundred)
    ->ArgName("active")
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace
