// SPDX-License-Identifier: MIT
//
// Measures the same work on zel and on other event loops, in turn: one active descriptor among idle ones,
// timers made and cancelled, a raised signal. The others wait with epoll, whose cost does not grow with idle
// descriptors.
#include <cstdint>
#include <vector>

#include <signal.h>

#include "loop.hpp"
#include "versus.hpp"

namespace {

struct Contender {
    std::string name;
    std::unique_ptr<bench::Loop> loop;
    int signo; // of its own, since a signal has one handler in a process
};

std::vector<Contender> make_contenders() {
    std::vector<Contender> all;
    all.push_back(Contender{"zel", bench::make_zel_loop(), SIGUSR1});
#if HAVE_LIBEVENT
    all.push_back(Contender{"libevent", bench::make_libevent_loop(), SIGUSR2});
#endif
#if HAVE_LIBUV
    all.push_back(Contender{"libuv", bench::make_libuv_loop(), SIGWINCH});
#endif
    return all;
}

// Causes something count times, and has the loop serve it each time.
template <class Cause>
double serve(bench::Loop& loop, long count, Cause cause) {
    long const before = loop.served;
    double const time = bench::timed([&] {
        for (long i = 1; i <= count; ++i) {
            cause();
            while (loop.served < before + i)
                loop.turn();
        }
    });
    bench::expect(loop.served == before + count, "causes and events do not match");
    return time;
}

// Sets each contender up and measures all of them in one run.
template <class SetUp, class Work>
void compare(benchmark::State& state, long batch, SetUp set_up, Work work) {
    try {
        std::vector<Contender> contenders = make_contenders();
        bench::Versus versus(state, batch);
        for (Contender& contender : contenders) {
            set_up(contender);
            versus.leg(contender.name, [&](long count) { return work(contender, count); });
        }
        versus.run();
        for (Contender const& contender : contenders)
            bench::expect(contender.loop->fired == 0, "a timer was early");
    } catch (std::exception const& failure) {
        state.SkipWithError(failure.what());
    }
}

void active_descriptor(benchmark::State& state) {
    state.SetLabel("a byte written, waited for and read");
    bench::raise_descriptor_limit();
    std::vector<std::unique_ptr<bench::Pipe>> pipes;
    for (long i = 0; i <= state.range(0); ++i)
        pipes.push_back(std::make_unique<bench::Pipe>());
    compare(
        state, 20 + 4000 / (static_cast<long>(state.range(0)) + 16),
        [&](Contender& contender) {
            for (auto const& pipe : pipes)
                contender.loop->watch(pipe->read_end());
        },
        [&](Contender& contender, long count) {
            return serve(*contender.loop, count, [&] { bench::put_byte(pipes.back()->write_end()); });
        });
}
BENCHMARK(active_descriptor)
    ->ArgName("idle")
    ->Arg(0)
    ->Arg(16)
    ->Arg(64)
    ->Arg(256)
    ->Arg(1024)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void made_and_cancelled_timer(benchmark::State& state) {
    state.SetLabel("a timer made and cancelled, with so many outstanding");
    std::uint32_t random = 1;
    auto const delay = [&random] {
        random = random * 1664525 + 1013904223;
        return 3600000ul + (random >> 8) % 3600000ul;
    };
    compare(
        state, 1000,
        [&](Contender& contender) {
            for (long i = 0; i < state.range(0); ++i)
                contender.loop->hold_timer(delay());
        },
        [&](Contender& contender, long count) {
            return bench::timed([&] {
                for (long i = 0; i < count; ++i)
                    contender.loop->make_and_cancel_timer(delay());
            });
        });
}
BENCHMARK(made_and_cancelled_timer)
    ->ArgName("outstanding")
    ->Arg(0)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void raised_signal(benchmark::State& state) {
    state.SetLabel("a signal raised, waited for and handled");
    compare(
        state, 200, [](Contender& contender) { contender.loop->watch_signal(contender.signo); },
        [](Contender& contender, long count) {
            return serve(*contender.loop, count, [&] { raise(contender.signo); });
        });
}
BENCHMARK(raised_signal)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Each result carries which loops it was measured with.
bool const versions_told = [] {
#if HAVE_LIBEVENT
    benchmark::AddCustomContext("libevent", bench::libevent_version());
#endif
#if HAVE_LIBUV
    benchmark::AddCustomContext("libuv", bench::libuv_version());
#endif
    return true;
}();

} // namespace
