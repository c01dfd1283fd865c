// SPDX-License-Identifier: MIT
//
// Measures descriptors: a byte through one pipe among idle ones, and through some of a hundred. The bare
// loops poll what the group polls: the same descriptors, and one more through which another thread could wake
// them.
#include <memory>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

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

// What is never ready; one descriptor each, so that the usual limits allow ten thousand.
class Idle {
public:
    explicit Idle(long count) {
        bench::raise_descriptor_limit();
        for (long i = 0; i < count; ++i) {
            fds.push_back(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            bench::expect(fds.back() != -1, "socket");
        }
    }
    ~Idle() {
        for (int const fd : fds)
            close(fd);
    }
    Idle(Idle const&) = delete;
    Idle& operator=(Idle const&) = delete;

    std::vector<int> fds;
};

// The loop by hand. The first entry of its poll set is the pipe to wake it.
class BareLoop {
public:
    BareLoop(std::vector<int> const& watched, bool wakeable) : served(0), wakeable_(wakeable) {
        if (wakeable)
            set_.push_back(pollfd{wake_.read_end(), POLLIN, 0});
        for (int const fd : watched)
            set_.push_back(pollfd{fd, POLLIN, 0});
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

// The same with epoll.
class EpollLoop {
public:
    explicit EpollLoop(std::vector<int> const& watched) : served(0), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        add(wake_.read_end());
        for (int const fd : watched)
            add(fd);
    }
    ~EpollLoop() { close(epoll_); }
    EpollLoop(EpollLoop const&) = delete;
    EpollLoop& operator=(EpollLoop const&) = delete;

    void turn() {
        epoll_event events[128];
        int const ready = epoll_wait(epoll_, events, 128, -1);
        for (int i = 0; i < ready; ++i) {
            if (events[i].data.fd == wake_.read_end()) {
                bench::drain(events[i].data.fd);
            } else {
                bench::take_byte(events[i].data.fd);
                ++served;
            }
        }
    }

    long served;

private:
    void add(int fd) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        bench::expect(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }

    bench::Pipe wake_;
    int const epoll_;
};

// Write ends of so many of the pipes. A poll() that may block registers with each descriptor until it meets
// one that is ready, so the last of each stretch is taken, which has the idle ones before it.
std::vector<int> spread(Pipes const& pipes, long active) {
    std::vector<int> ends;
    std::size_t const step = pipes.size() / static_cast<std::size_t>(active);
    for (std::size_t i = step - 1; i < pipes.size(); i += step)
        ends.push_back(pipes[i]->write_end());
    return ends;
}

// With `churn` each turn also watches one more idle descriptor, and watches it no more.
void pass(benchmark::State& state, std::vector<int> const& watched, std::vector<int> const& active,
          long batch, bool churn = false) {
    state.SetLabel("a byte written, waited for and read");
    bench::Versus versus(state, batch);
    long served = 0;
    std::vector<std::unique_ptr<orn::zel::fd::AutoReceptor>> receptors;
    auto const count_byte = [&served](orn::zel::fd::Event* event) {
        bench::take_byte(event->fd());
        ++served;
    };
    double const registering = bench::timed([&] {
        for (int const fd : watched)
            receptors.push_back(std::make_unique<orn::zel::fd::AutoReceptor>(fd, count_byte));
    });
    while (orn::zel::RunOnce(0) > 0) {
    }

    BareLoop bare(watched, true);
    BareLoop asking(watched, true);
    BareLoop unwakeable(watched, false);
    EpollLoop epoll(watched);
    Idle const more(1);
    versus.leg("zel", [&](long count) {
        return pass_bytes(active, count, served, [&] {
            std::unique_ptr<orn::zel::fd::AutoReceptor> one_more;
            if (churn)
                one_more = std::make_unique<orn::zel::fd::AutoReceptor>(more.fds[0], count_byte);
            orn::zel::RunOnce(-1);
        });
    });
    if (watched.size() < 5000) { // milliseconds a turn
        versus.leg("bare", [&](long count) {
            return pass_bytes(active, count, bare.served, [&] { bare.turn(false); });
        });
        versus.leg("unwakeable", [&](long count) {
            return pass_bytes(active, count, unwakeable.served, [&] { unwakeable.turn(false); });
        });
    }
    versus.leg("asking", [&](long count) {
        return pass_bytes(active, count, asking.served, [&] { asking.turn(true); });
    });
    versus.leg("epoll",
               [&](long count) { return pass_bytes(active, count, epoll.served, [&] { epoll.turn(); }); });
    versus.run();

    double const removing = bench::timed([&] { receptors.clear(); });
    if (!state.error_occurred() && watched.size() > 1) {
        double const each = 1e9 / static_cast<double>(watched.size());
        state.counters["register_ns"] = registering * each;
        state.counters["remove_ns"] = removing * each;
    }
}

// The idle descriptors come before the active one in the poll set, or with `behind` after it.
void one_active_among_idle(benchmark::State& state) {
    long const idle = static_cast<long>(state.range(0));
    bool const behind = state.range(1) != 0;
    std::unique_ptr<bench::Pipe> pipe = behind ? std::make_unique<bench::Pipe>() : nullptr;
    Idle const others(idle);
    if (!behind)
        pipe = std::make_unique<bench::Pipe>();
    std::vector<int> watched = others.fds;
    watched.insert(behind ? watched.begin() : watched.end(), pipe->read_end());
    pass(state, watched, {pipe->write_end()}, 50 + 4000 / (idle + 16), state.range(2) != 0);
}
BENCHMARK(one_active_among_idle)
    ->ArgNames({"idle", "behind", "churn"})
    ->Args({0, 0, 0})
    ->Args({16, 0, 0})
    ->Args({64, 0, 0})
    ->Args({256, 0, 0})
    ->Args({1024, 0, 0})
    ->Args({1024, 1, 0})
    ->Args({10000, 0, 0})
    ->Args({0, 0, 1})
    ->Args({10000, 0, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void active_among_hundred(benchmark::State& state) {
    Pipes const pipes = make_pipes(100);
    std::vector<int> watched;
    for (auto const& pipe : pipes)
        watched.push_back(pipe->read_end());
    pass(state, watched, spread(pipes, static_cast<long>(state.range(0))), 200);
}
BENCHMARK(active_among_hundred)
    ->ArgName("active")
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace
