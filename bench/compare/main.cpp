// SPDX-License-Identifier: MIT
//
// Measures the same work on zel, on other event loops and on bare system calls, in turn. Checks that all of
// it was done, and that no timer was early. ZEL_BENCH_LOOPS=zel,bare in the environment leaves out the
// others.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <thread>

#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "loop.hpp"

namespace bench {

std::vector<Entry>& loops() {
    static std::vector<Entry> all;
    return all;
}

Entered::Entered(std::string const& name, std::string const& version, std::unique_ptr<Loop> (*make)()) {
    loops().push_back(Entry{name, make});
    if (!version.empty())
        benchmark::AddCustomContext(name, version);
}

} // namespace bench

namespace {

using bench::Clock;
using bench::Loop;

struct Contender {
    std::string name;
    std::unique_ptr<Loop> loop;
};

bool wanted(std::string const& name) {
    char const* const names = std::getenv("ZEL_BENCH_LOOPS");
    std::istringstream list(names == nullptr ? "" : names);
    for (std::string one; std::getline(list, one, ',');) {
        if (one == name)
            return true;
    }
    return names == nullptr;
}

// The first is the one that the others are compared with.
std::vector<Contender> make_contenders() {
    std::vector<bench::Entry> entries = bench::loops();
    auto const key = [](bench::Entry const& entry) {
        std::string name = entry.name;
        for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return std::make_pair(name == "zel" ? 0 : name == "bare" ? 1 : 2, name);
    };
    std::sort(entries.begin(), entries.end(),
              [&key](bench::Entry const& a, bench::Entry const& b) { return key(a) < key(b); });
    std::vector<Contender> all;
    for (bench::Entry const& entry : entries) {
        if (wanted(entry.name))
            all.push_back(Contender{entry.name, entry.make()});
    }
    return all;
}

// Sets each contender up and measures all of them in one run.
class Comparison {
public:
    Comparison(benchmark::State& state, long batch, std::string const& unit = "ns")
        : contenders_(make_contenders()), versus_(state, batch, unit) {}

    template <class SetUp, class Work>
    void run(SetUp set_up, Work work) {
        for (Contender& contender : contenders_) {
            Loop& loop = *contender.loop;
            set_up(loop);
            auto const leg = [this, &contender, &loop, work](long count) {
                name_ = contender.name;
                try {
                    return work(loop, count);
                } catch (std::exception const& failure) {
                    throw std::runtime_error(name_ + ": " + failure.what());
                }
            };
            if (contender.name == "zel" || contender.name == "bare")
                versus_.leg(contender.name, leg);
            else
                versus_.peer(contender.name, leg);
        }
        versus_.run();
    }

    // Notes a value of the contender whose work is under way.
    void note(std::string const& what, double value) { versus_.note(name_ + '_' + what, value); }
    std::string const& name() const { return name_; }

private:
    std::vector<Contender> contenders_;
    bench::Versus versus_;
    std::string name_;
};

// A benchmark ends with a message when the work was not done.
template <class Work>
void guarded(benchmark::State& state, Work work) {
    try {
        work();
    } catch (std::exception const& failure) {
        state.SkipWithError(failure.what());
    }
}

// The turns that a leg begins with and that are not timed. The leg before it, of a loop that polls thousands
// of descriptors or keeps a hundred thousand timers, has taken everything out of the caches, and so would
// decide what the next one costs. A loop is to be measured as it runs on its own.
long const warm_up_turns = 20;

// Causes count events, so many before each time that the loop may serve them.
template <class Cause>
double serve(Loop& loop, long count, long at_once, Cause cause) {
    auto const serve_some = [&](long some) {
        long const before = loop.served;
        for (long done = 0; done < some;) {
            for (long i = 0; i < at_once; ++i)
                cause(static_cast<std::size_t>(i));
            done += at_once;
            while (loop.served < before + done)
                loop.turn();
        }
        bench::expect(loop.served == before + some, "causes and events do not match");
    };
    serve_some(warm_up_turns * at_once);
    return bench::timed([&] { serve_some(count); });
}

// ---- Descriptors ----------------------------------------------------------------------------------------

// Connections over which nobody says anything. All loops watch the same ones.
class IdleDescriptors {
public:
    explicit IdleDescriptors(long count) {
        for (; count > 0; count -= 2) {
            int pair[2];
            bench::expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0,
                          "socketpair");
            ends_.insert(ends_.end(), pair, pair + 2);
        }
    }
    ~IdleDescriptors() {
        for (int const end : ends_)
            close(end);
    }
    IdleDescriptors(IdleDescriptors const&) = delete;
    IdleDescriptors& operator=(IdleDescriptors const&) = delete;

    std::vector<int> const& ends() const { return ends_; }

private:
    std::vector<int> ends_;
};

using Pipes = std::vector<std::unique_ptr<bench::Pipe>>;

// Each loop has pipes of its own, because a byte costs something for every epoll set that its pipe is in.
// The loops have to go before the descriptors that they watch.
void pass_bytes(benchmark::State& state, std::size_t pipes, std::size_t active, long idle) {
    state.SetLabel("a byte written, waited for and read");
    guarded(state, [&] {
        IdleDescriptors const silent(idle);
        std::map<Loop*, Pipes> own;
        // Fifty turns, which a loop that polls ten thousand descriptors takes half a second for.
        Comparison comparison(state, 50 * static_cast<long>(active));
        comparison.run(
            [&](Loop& loop) {
                for (int const fd : silent.ends())
                    loop.watch(fd);
                for (std::size_t i = 0; i < pipes; ++i) {
                    own[&loop].push_back(std::make_unique<bench::Pipe>());
                    loop.watch(own[&loop].back()->read_end());
                }
            },
            [&](Loop& loop, long count) {
                Pipes const& mine = own[&loop];
                std::size_t const step = mine.size() / active;
                return serve(loop, count, static_cast<long>(active),
                             [&](std::size_t i) { bench::put_byte(mine[(i + 1) * step - 1]->write_end()); });
            });
    });
}

void active_descriptor(benchmark::State& state) {
    pass_bytes(state, 1, 1, static_cast<long>(state.range(0)));
}

// As many as the system allows, with some left for the loops themselves.
void idle_descriptors(benchmark::internal::Benchmark* benchmark) {
    bench::raise_descriptor_limit();
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (long const idle : {0, 16, 64, 256, 1024, 10000}) {
        if (static_cast<rlim_t>(idle) + 500 <= limit.rlim_cur)
            benchmark->Arg(idle);
    }
}
BENCHMARK(active_descriptor)
    ->ArgName("idle")
    ->Apply(idle_descriptors)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void active_among_hundred(benchmark::State& state) {
    pass_bytes(state, 100, static_cast<std::size_t>(state.range(0)), 0);
}
BENCHMARK(active_among_hundred)
    ->ArgName("active")
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// ---- Wakes and signals ----------------------------------------------------------------------------------

// A thread that wakes the loop whenever it is asked to.
class Partner {
public:
    Partner() : loop_(nullptr), done_(0) {
        sem_init(&asked_, 0, 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~Partner() {
        loop_ = nullptr;
        sem_post(&asked_);
        thread_.join();
        sem_destroy(&asked_);
    }
    Partner(Partner const&) = delete;
    Partner& operator=(Partner const&) = delete;

    double wake(Loop& loop, long count) {
        loop_ = &loop;
        wake_often(loop, warm_up_turns);
        return bench::timed([&] { wake_often(loop, count); });
    }

private:
    void wake_often(Loop& loop, long count) {
        for (long const end = done_ + count; done_ < end;) {
            long const before = done_;
            sem_post(&asked_);
            while (done_ == before)
                loop.turn();
        }
    }
    void serve() {
        bench::OnProcessor const place(0);
        for (;;) {
            while (sem_wait(&asked_) != 0) {
            }
            Loop* const loop = loop_;
            if (loop == nullptr)
                return;
            ++done_;
            loop->wake();
        }
    }

    sem_t asked_;
    std::atomic<Loop*> loop_;
    std::atomic<long> done_;
    std::thread thread_;
};

void woken_by_thread(benchmark::State& state) {
    state.SetLabel("another thread asked on the same processor to wake the loop, which waits for it");
    guarded(state, [&] {
        bench::OnProcessor const place(0);
        Comparison comparison(state, 200);
        Partner partner;
        comparison.run([](Loop& loop) { loop.allow_wakes(); },
                       [&](Loop& loop, long count) { return partner.wake(loop, count); });
    });
}
BENCHMARK(woken_by_thread)->UseManualTime()->Unit(benchmark::kMicrosecond);

void raised_signal(benchmark::State& state) {
    state.SetLabel("a signal raised, waited for and handled");
    // A signal has one handler in a process, so each loop gets another one. GLib takes the first four.
    std::vector<int> const signals = {SIGUSR1, SIGUSR2, SIGWINCH, SIGHUP, SIGURG, SIGIO, SIGPWR, SIGCONT};
    guarded(state, [&] {
        std::map<Loop*, int> own;
        Comparison comparison(state, 200);
        comparison.run(
            [&](Loop& loop) {
                std::size_t const next = own.size();
                own[&loop] = signals.at(next);
                loop.watch_signal(own[&loop]);
            },
            [&](Loop& loop, long count) {
                return serve(loop, count, 1, [&](std::size_t) { raise(own[&loop]); });
            });
    });
}
BENCHMARK(raised_signal)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---- Tasks ----------------------------------------------------------------------------------------------

void slices_of_tasks(benchmark::State& state) {
    state.SetLabel("a call of one of so many functions that have something to do on every turn");
    long const tasks = static_cast<long>(state.range(0));
    guarded(state, [&] {
        Comparison comparison(state, 10 * tasks);
        comparison.run(
            [&](Loop& loop) {
                for (long i = 0; i < tasks; ++i)
                    loop.add_task();
            },
            [&](Loop& loop, long count) { return serve(loop, count, tasks, [](std::size_t) {}); });
    });
}
BENCHMARK(slices_of_tasks)->ArgName("tasks")->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---- Timers ---------------------------------------------------------------------------------------------

// Draws numbers in no order.
class Random {
public:
    unsigned long below(unsigned long end) {
        state_ = state_ * 1664525 + 1013904223;
        return (state_ >> 8) % end;
    }
    // Between one and two.
    std::chrono::milliseconds hours() {
        unsigned long const hour_ms = 3600 * 1000;
        return std::chrono::milliseconds(hour_ms + below(hour_ms));
    }

private:
    std::uint32_t state_ = 1;
};

void made_and_cancelled_timer(benchmark::State& state) {
    state.SetLabel("a timer made and cancelled, with so many outstanding");
    Random random;
    guarded(state, [&] {
        Comparison comparison(state, 1000);
        comparison.run(
            [&](Loop& loop) {
                for (long i = 0; i < state.range(0); ++i)
                    loop.hold_timer(Clock::now() + random.hours());
                loop.expect_expiries(0);
            },
            [&](Loop& loop, long count) {
                double const time = bench::timed([&] {
                    for (long i = 0; i < count; ++i)
                        loop.make_and_cancel_timer(static_cast<unsigned long>(random.hours().count()));
                    loop.settle();
                });
                bench::expect(loop.expiries() == 0, "a timer was early");
                return time;
            });
    });
}
BENCHMARK(made_and_cancelled_timer)
    ->ArgName("outstanding")
    ->Arg(0)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void made_then_cancelled_timers(benchmark::State& state) {
    state.SetLabel("a timer of so many: all made, then all cancelled in the same order");
    Random random;
    guarded(state, [&] {
        Comparison comparison(state, static_cast<long>(state.range(0)));
        comparison.run([](Loop&) {},
                       [&](Loop& loop, long count) {
                           Clock::time_point const start = Clock::now();
                           loop.expect_expiries(0);
                           double const time = bench::timed([&] {
                               for (long i = 0; i < count; ++i)
                                   loop.hold_timer(start + random.hours());
                               loop.drop_timers();
                           });
                           bench::expect(loop.expiries() == 0, "a timer was early");
                           return time;
                       });
    });
}
BENCHMARK(made_then_cancelled_timers)
    ->ArgName("timers")
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// How far ahead the moment is. It grows when a slow machine needs longer to set everything up.
std::chrono::milliseconds lead(20);

double expire_together(Loop& loop, long count) {
    Clock::time_point moment;
    for (;;) {
        moment = Clock::now() + lead;
        loop.expect_expiries(count);
        for (long i = 0; i < count; ++i)
            loop.hold_timer(moment);
        if (Clock::now() < moment)
            break;
        bench::expect(lead < std::chrono::seconds(5), "the set-up takes too long");
        lead *= 2;
        loop.drop_timers();
    }
    while (loop.expiries() < count)
        loop.turn();
    bench::expect(loop.expiries() == count, "timers and calls do not match");
    bench::expect(loop.first_expiry() >= moment, "a timer was early");
    loop.drop_timers();
    return bench::seconds(loop.last_expiry() - loop.first_expiry());
}

void timers_due_at_once(benchmark::State& state) {
    state.SetLabel("a timer of so many that are due at one moment, from the first call to the last");
    guarded(state, [&] {
        Comparison comparison(state, static_cast<long>(state.range(0)));
        comparison.run([](Loop&) {}, expire_together);
    });
}
BENCHMARK(timers_due_at_once)->ArgName("timers")->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

// How often threads of this process have gone to sleep.
double sleeps() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_nvcsw);
}

// A loop that counts in whole milliseconds would be equally late each time if nothing came in between.
double wait_for_timer(Loop& loop, Random& random) {
    Clock::time_point const start = Clock::now() + std::chrono::microseconds(random.below(1000));
    while (Clock::now() < start) {
    }
    loop.expect_expiries(1);
    Clock::time_point const due = Clock::now() + std::chrono::milliseconds(2);
    loop.hold_timer(due);
    while (loop.expiries() == 0)
        loop.turn();
    bench::expect(loop.first_expiry() >= due, "a timer was early");
    loop.drop_timers();
    return bench::seconds(loop.first_expiry() - due);
}

void lateness(benchmark::State& state) {
    state.SetLabel("how late the call of a 2 ms timer is, and how often threads go to sleep for it");
    Random random;
    std::map<std::string, std::vector<double>> late_us;
    guarded(state, [&] {
        Comparison comparison(state, 1, "us");
        comparison.run([](Loop&) {},
                       [&](Loop& loop, long) {
                           double const before = sleeps();
                           double const late = wait_for_timer(loop, random);
                           comparison.note("sleeps", sleeps() - before);
                           late_us[comparison.name()].push_back(late * 1e6);
                           return late;
                       });
    });
    for (auto const& [name, values] : late_us)
        state.counters[name + "_p99_us"] = bench::quantile(values, 0.99);
}
BENCHMARK(lateness)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
