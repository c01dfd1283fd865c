// SPDX-License-Identifier: MIT
//
// Measures a raised signal, until the loop has called its handler. The bare loop does what any loop has to:
// it writes four bytes into a pipe in signal context, polls, and reads until the pipe is empty.
#include <cstdint>

#include <signal.h>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

int bare_write_end = -1;

void bare_handler(int signo) {
    int const error = errno;
    std::uint32_t const word = static_cast<std::uint32_t>(signo);
    ssize_t const written = write(bare_write_end, &word, sizeof word);
    static_cast<void>(written); // a lost one shows in the count
    errno = error;
}

// Watches SIGUSR2 for as long as it lives.
class BareLoop {
public:
    BareLoop()
        : served(0), set_{pollfd{wake_.read_end(), POLLIN, 0}, pollfd{signals_.read_end(), POLLIN, 0}} {
        bare_write_end = signals_.write_end();
        struct sigaction action = {};
        action.sa_handler = bare_handler;
        sigemptyset(&action.sa_mask);
        bench::expect(sigaction(SIGUSR2, &action, &before_) == 0, "sigaction");
    }
    ~BareLoop() { sigaction(SIGUSR2, &before_, nullptr); }
    BareLoop(BareLoop const&) = delete;
    BareLoop& operator=(BareLoop const&) = delete;

    void turn() {
        if (poll(set_, 2, -1) <= 0)
            return;
        if (set_[0].revents != 0)
            bench::drain(set_[0].fd);
        if (set_[1].revents == 0)
            return;
        std::uint32_t word;
        while (read(set_[1].fd, &word, sizeof word) == static_cast<ssize_t>(sizeof word))
            served += word == SIGUSR2;
    }

    long served;

private:
    bench::Pipe wake_;
    bench::Pipe signals_;
    pollfd set_[2];
    struct sigaction before_;
};

template <class Turn>
double raise_many(int signo, long burst, long count, long const& served, Turn turn) {
    long const before = served;
    double const time = bench::timed([&] {
        long wanted = before;
        while (wanted < before + count) {
            for (long i = 0; i < burst; ++i)
                raise(signo);
            wanted += burst;
            while (served < wanted)
                turn();
        }
    });
    bench::expect(served == before + count, "signals and calls do not match");
    return time;
}

// Raises `burst` signals before each turn. Each gives a call, since raise() returns after the delivery.
void raised_signal(benchmark::State& state) {
    state.SetLabel("a signal raised, waited for and handled");
    long const burst = static_cast<long>(state.range(0));
    long served = 0;
    orn::zel::signal::AutoReceptor const receptor(SIGUSR1,
                                                  [&served](int signo) { served += signo == SIGUSR1; });
    while (orn::zel::RunOnce(0) > 0) {
    }
    BareLoop bare;
    bench::Versus versus(state, 200);
    versus.leg("zel", [&](long count) {
        return raise_many(SIGUSR1, burst, count, served, [] { orn::zel::RunOnce(-1); });
    });
    versus.leg("bare", [&](long count) {
        return raise_many(SIGUSR2, burst, count, bare.served, [&] { bare.turn(); });
    });
    versus.run();
}
BENCHMARK(raised_signal)->ArgName("burst")->Arg(1)->Arg(100)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
