// SPDX-License-Identifier: MIT
//
// Measures the way there and back between two threads that each wait in a loop of their own: by a wake-up of
// the other's group, and by a byte through a watched pipe. The bare threads use pipes and poll().
#include <atomic>
#include <future>
#include <thread>

#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

// Counts the trips asked for and done. A wake-up does not say what it is for; these counts do.
struct Trips {
    Trips() : asked(0), done(0), stop(false) {}
    std::atomic<long> asked;
    std::atomic<long> done;
    std::atomic<bool> stop;
};

// The thread that answers, in a group of its own, and how to reach it.
class ZelPartner {
public:
    ZelPartner(Trips& trips, int processor)
        : trips_(trips), processor_(processor), home_(orn::zel::thread::ThisGroup()),
          thread_([this] { serve(); }) {
        away_ = ready_.get_future().get();
    }
    ~ZelPartner() {
        trips_.stop = true;
        wake();
    }
    ZelPartner(ZelPartner const&) = delete;
    ZelPartner& operator=(ZelPartner const&) = delete;

    void wake() { away_->WakeUp('x'); }

private:
    void serve() {
        bench::OnProcessor const place(processor_);
        orn::zel::NewThreadGroup();
        ready_.set_value(orn::zel::thread::ThisGroup());
        while (!trips_.stop) {
            orn::zel::RunOnce(-1);
            if (trips_.done != trips_.asked) {
                trips_.done = trips_.asked.load();
                home_->WakeUp('x');
            }
        }
    }

    Trips& trips_;
    int const processor_;
    boost::shared_ptr<orn::zel::thread::Group> home_;
    boost::shared_ptr<orn::zel::thread::Group> away_;
    std::promise<boost::shared_ptr<orn::zel::thread::Group>> ready_;
    orn::os::Thread thread_; // last: it uses the others
};

void wait_and_drain(int fd, void (*drain)(int)) {
    pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, -1) > 0)
        drain(fd);
}

class BarePartner {
public:
    BarePartner(Trips& trips, int processor, void (*drain)(int))
        : trips_(trips), processor_(processor), drain_(drain), thread_([this] { serve(); }) {}
    ~BarePartner() {
        trips_.stop = true;
        wake();
        thread_.join();
    }
    BarePartner(BarePartner const&) = delete;
    BarePartner& operator=(BarePartner const&) = delete;

    void wake() { bench::put_byte(away_.write_end()); }
    void wait() { wait_and_drain(home_.read_end(), drain_); }

private:
    void serve() {
        bench::OnProcessor const place(processor_);
        while (!trips_.stop) {
            wait_and_drain(away_.read_end(), drain_);
            if (trips_.done != trips_.asked) {
                trips_.done = trips_.asked.load();
                bench::put_byte(home_.write_end());
            }
        }
    }

    Trips& trips_;
    int const processor_;
    void (*const drain_)(int);
    bench::Pipe home_;
    bench::Pipe away_;
    std::thread thread_;
};

template <class Wake, class Wait>
double travel(Trips& trips, long count, Wake wake, Wait wait) {
    long const before = trips.done;
    double const time = bench::timed([&] {
        for (long i = 1; i <= count; ++i) {
            trips.asked = before + i;
            wake();
            while (trips.done != before + i)
                wait();
        }
    });
    bench::expect(trips.done == before + count, "trips are missing");
    return time;
}

void wake_and_back(benchmark::State& state) {
    state.SetLabel("another thread's loop woken, and this one by it");
    bench::OnProcessor const place(0);
    int const other = static_cast<int>(state.range(0)) - 1;
    Trips zel_trips;
    Trips bare_trips;
    Trips short_trips;
    ZelPartner zel(zel_trips, other);
    BarePartner bare(bare_trips, other, bench::drain);
    BarePartner short_read(short_trips, other, bench::drain_short);
    bench::Versus versus(state, 100);
    versus.leg("zel", [&](long count) {
        return travel(
            zel_trips, count, [&] { zel.wake(); }, [] { orn::zel::RunOnce(-1); });
    });
    versus.leg("bare", [&](long count) {
        return travel(
            bare_trips, count, [&] { bare.wake(); }, [&] { bare.wait(); });
    });
    versus.leg("short_read", [&](long count) {
        return travel(
            short_trips, count, [&] { short_read.wake(); }, [&] { short_read.wait(); });
    });
    versus.run();
}

// Runs on one processor, and on two where there are two.
void processors(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("processors")->Arg(1);
    if (CPU_COUNT(&bench::usable_processors()) > 1)
        benchmark->Arg(2);
}

BENCHMARK(wake_and_back)->Apply(processors)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Sends each byte back, until its pipe is hung up: the loop of a thread with one connection.
void zel_echo(int processor, int from, int to) {
    bench::OnProcessor const place(processor);
    orn::zel::NewThreadGroup();
    bool ended = false;
    orn::zel::fd::AutoReceptor const receptor(from, [&](orn::zel::fd::Event* event) {
        char byte;
        if (read(event->fd(), &byte, 1) == 1 && byte == 'b')
            bench::put_byte(to);
        else
            ended = true;
    });
    while (!ended)
        orn::zel::RunOnce(-1);
}

// Waits for the pipe that wakes the loop or for the pipe with the bytes. True when a byte is there.
bool bare_wait(int wake, int fd) {
    pollfd set[2] = {{wake, POLLIN, 0}, {fd, POLLIN, 0}};
    if (poll(set, 2, -1) <= 0)
        return false;
    if (set[0].revents != 0)
        bench::drain(wake);
    return set[1].revents != 0;
}

void bare_echo(int processor, int wake, int from, int to) {
    bench::OnProcessor const place(processor);
    char byte = 'b';
    while (byte == 'b') {
        if (bare_wait(wake, from) && read(from, &byte, 1) == 1 && byte == 'b')
            bench::put_byte(to);
    }
}

void end_echo(int fd) {
    char const byte = 'e';
    if (write(fd, &byte, 1) != 1)
        std::terminate(); // the thread would never end
}

template <class Turn>
double send_bytes(int to, long count, long const& served, Turn turn) {
    long const before = served;
    double const time = bench::timed([&] {
        for (long i = 1; i <= count; ++i) {
            bench::put_byte(to);
            while (served < before + i)
                turn();
        }
    });
    bench::expect(served == before + count, "bytes and events do not match");
    return time;
}

void byte_and_back(benchmark::State& state) {
    state.SetLabel("a byte to another thread's loop, and one back");
    bench::OnProcessor const place(0);
    int const other = static_cast<int>(state.range(0)) - 1;
    bench::Pipe zel_there, zel_back, bare_there, bare_back, wake_here, wake_there;
    long zel_served = 0;
    orn::zel::fd::AutoReceptor const receptor(zel_back.read_end(), [&](orn::zel::fd::Event* event) {
        bench::take_byte(event->fd());
        ++zel_served;
    });
    orn::os::Thread const zel_thread([&] { zel_echo(other, zel_there.read_end(), zel_back.write_end()); });
    std::thread bare_thread(bare_echo, other, wake_there.read_end(), bare_there.read_end(),
                            bare_back.write_end());

    long bare_served = 0;
    bench::Versus versus(state, 100);
    versus.leg("zel", [&](long count) {
        return send_bytes(zel_there.write_end(), count, zel_served, [] { orn::zel::RunOnce(-1); });
    });
    versus.leg("bare", [&](long count) {
        return send_bytes(bare_there.write_end(), count, bare_served, [&] {
            if (bare_wait(wake_here.read_end(), bare_back.read_end())) {
                bench::take_byte(bare_back.read_end());
                ++bare_served;
            }
        });
    });
    versus.run();
    end_echo(zel_there.write_end());
    end_echo(bare_there.write_end());
    bare_thread.join();
}
BENCHMARK(byte_and_back)->Apply(processors)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
