// SPDX-License-Identifier: MIT
//
// Signals as events of the loop, also while they arrive faster than the loop turns and while what watches
// them changes.
#include <csetjmp>

#include <sys/syscall.h>

#include "../src/signalGate.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class Signals : public Loop {
protected:
    std::string seen;
};

TEST_F(Signals, each_arrival_is_one_call_of_each_handler_on_the_loop) {
    signal::AutoReceptor const one(SIGUSR1, [&](int signo) { seen += "a" + std::to_string(signo); });
    signal::AutoReceptor const two(SIGUSR1, [&](int) { seen += "b "; });
    {
        signal::AutoReceptor const gone(SIGUSR2, [&](int) { seen += "c "; });
        raise(SIGUSR2);
    }
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ("", seen);
    settle();
    std::string const both = "a" + std::to_string(SIGUSR1) + "b ";
    EXPECT_EQ(both + both, seen);
    EXPECT_EQ(Signal(SIGUSR1), Signal(SIGUSR1));
    EXPECT_EQ(2u, Signal(SIGUSR1)->count());
}

TEST_F(Signals, every_watching_group_gets_its_own_call) {
    std::atomic<int> theirs(0);
    Count ready;
    signal::AutoReceptor const mine(SIGUSR1, [&](int) { seen += "m"; });
    {
        Member const other([&] {
            NewThreadGroup();
            int const me = thread::self();
            signal::AutoReceptor const receptor(SIGUSR1, [&](int) {
                EXPECT_EQ(me, thread::self());
                ++theirs;
            });
            ready.up();
            EXPECT_TRUE(run_until([&] { return theirs == 3; }));
        });
        ASSERT_TRUE(ready.reaches(1));
        for (int i = 0; i < 3; ++i)
            raise(SIGUSR1);
    }
    settle();
    EXPECT_EQ("mmm", seen);
}

TEST_F(Signals, a_burst_before_the_loop_turns_loses_nothing) {
    int calls = 0;
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) { ++calls; });
    for (int i = 0; i < 100000; ++i)
        raise(SIGUSR1);
    settle_all();
    EXPECT_EQ(100000, calls);
    // Beyond what the system lets a pipe hold nobody blocks.
    for (int i = 0; i < 300000; ++i)
        raise(SIGUSR1);
    settle_all();
    EXPECT_LT(300000, calls);
    raise(SIGUSR1);
    calls = 0;
    settle_all();
    EXPECT_EQ(1, calls);
}

TEST_F(Signals, an_exception_leaves_what_is_unread_for_the_next_turn) {
    int calls = 0;
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) {
        if (++calls == 1)
            throw std::runtime_error("handler");
    });
    for (int i = 0; i < 3; ++i)
        raise(SIGUSR1);
    EXPECT_THROW(RunOnce(-1), std::runtime_error);
    settle();
    EXPECT_EQ(3, calls);
}

TEST_F(Signals, refuses_what_the_system_refuses_and_says_why) {
    std::string const text = "failed to install handler for signal ";
    EXPECT_EQ(text + "9: errno=22 (Invalid argument)", refusal([] { Signal(SIGKILL); }));
    EXPECT_EQ(text + "1000: errno=22 (Invalid argument)",
              refusal([] { signal::AutoReceptor const receptor(1000, [](int) {}); }));
    EXPECT_EQ(text + std::to_string(SIGSTOP), refusal([] { signal::ignore(SIGSTOP); }));
    EXPECT_THROW(signal::AutoReceptor(SIGUSR1, boost::function<void(int)>()), orn::Exception);
    EXPECT_EQ(std::vector<int>{SIGUSR1}, signal::manager()->signals()) << "no trace of those refused";
}

TEST_F(Signals, dispositions_come_back_at_unload_and_watching_starts_anew_after_it) {
    EXPECT_TRUE(signal::is_default(SIGUSR1));
    struct sigaction before = {};
    sigaction(SIGUSR2, nullptr, &before);
    EXPECT_EQ(0, signal::ignore(SIGUSR2));
    EXPECT_TRUE(signal::is_ignored(SIGUSR2));
    signal::AutoReceptor const one(SIGUSR1, [&](int) { seen += "1"; });
    signal::AutoReceptor const two(SIGUSR2, [&](int) { seen += "2"; });
    EXPECT_FALSE(signal::is_default(SIGUSR1));
    EXPECT_FALSE(signal::is_ignored(SIGUSR2));
    signal::zel_signal_unload();
    EXPECT_TRUE(signal::is_default(SIGUSR1));
    EXPECT_TRUE(signal::is_ignored(SIGUSR2));
    raise(SIGUSR2);
    signal::zel_signal_load();
    signal::AutoReceptor const again(SIGUSR1, [&](int) { seen += "a"; });
    raise(SIGUSR1);
    settle();
    EXPECT_EQ("1a", seen) << "the manager and its handlers have lived on";
    sigaction(SIGUSR2, &before, nullptr);
}

TEST_F(Signals, unloading_loses_no_exit_status_of_a_child) {
    for (int i = 0; i < 100; ++i) {
        pid_t const child = fork();
        if (child == 0)
            _exit(i);
        int status = -1;
        pid_t got = 0;
        for (; got == 0; got = waitpid(child, &status, WNOHANG)) {
            Signal(SIGCHLD);
            signal::zel_signal_unload();
            signal::zel_signal_load();
        }
        ASSERT_EQ(child, got) << i;
        ASSERT_EQ(i, WEXITSTATUS(status));
    }
}

TEST_F(Signals, the_mask_and_what_is_pending_can_be_asked_for) {
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) { seen += "x"; });
    sigset_t set, old, now;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    EXPECT_EQ(0, signal::block(&set, &old));
    EXPECT_EQ(0, sigismember(&old, SIGUSR1));
    EXPECT_EQ(0, signal::blocked(&now));
    EXPECT_EQ(1, sigismember(&now, SIGUSR1));
    EXPECT_FALSE(signal::is_pending(SIGUSR1));
    raise(SIGUSR1);
    EXPECT_TRUE(signal::is_pending(SIGUSR1));
    settle();
    EXPECT_EQ("", seen);
    EXPECT_EQ(0, signal::unblock(&set, &old));
    EXPECT_EQ(1, sigismember(&old, SIGUSR1));
    settle();
    EXPECT_EQ("x", seen);
}

TEST_F(Signals, the_listing_names_all_managers_and_the_callers_signals) {
    orn::os::Pipe answer(false);
    auto const entry = [](signal::Manager const& manager, fd::Manager const& of) {
        return "[" + std::to_string(manager.id().value()) + "] fdMgr=" + std::to_string(of.id().value()) +
               " signal_fd=" + std::to_string(manager.signal_fd());
    };
    signal::ListSignals("x", answer.WriteFD());
    EXPECT_EQ("SignalMgrs:\n signals={ }",
              take(answer.ReadFD()).substr(std::to_string(thread::self()).size() + 5));
    std::string const mine = entry(*signal::manager(), *thread::FdMgr());
    std::string theirs;
    Member([&] {
        Signal(SIGHUP);
        theirs = entry(*signal::manager(), *thread::FdMgr());
    });
    Signal(SIGUSR2);
    Signal(SIGUSR1);
    signal::ListSignals("x", answer.WriteFD());
    EXPECT_EQ("tid=" + std::to_string(thread::self()) + " SignalMgrs:\n" + mine + theirs + " signals={ " +
                  std::to_string(SIGUSR1) + ' ' + std::to_string(SIGUSR2) + " }",
              take(answer.ReadFD()));
}

// ---- Signal context -------------------------------------------------------------------------------------

TEST_F(Signals, errno_is_as_before_for_the_code_that_was_interrupted) {
    boost::shared_ptr<signal::SignalHandler> const source = signal::sigHandler(SIGUSR1);
    unsigned long const id = source->handlers().insert([](int) { errno = 77; });
    errno = 5;
    raise(SIGUSR1);
    EXPECT_EQ(5, errno);
    source->handlers().remove(id);
}

// What a function in signal context uses. It notices when that is destroyed too early, and how often it is.
class Held {
public:
    Held() { ++living; }
    ~Held() {
        alive_ = false;
        --living;
    }
    void use() {
        if (!alive_)
            std::abort();
        syscall(SYS_sched_yield);
        if (!alive_)
            std::abort();
    }
    static std::atomic<int> living;

private:
    std::atomic<bool> alive_{true};
};

std::atomic<int> Held::living(0);

boost::function<void(int)> user_of_something() {
    return [held = std::make_shared<Held>()](int) { held->use(); };
}

TEST_F(Signals, changes_in_several_threads_lose_no_arrival_to_those_who_stay) {
    int const signo = SIGRTMIN + 1;
    long const total = 20000;
    long calls = 0;
    signal::AutoReceptor const stays(signo, [&](int) { ++calls; });
    long sent = 0;
    Member const storm([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        siginfo_t info = {};
        info.si_code = SI_QUEUE; // so that none is merged with another; a full queue is tried again
        while (sent < total)
            syscall(SYS_rt_sigqueueinfo, getpid(), signo, &info) == 0 ? ++sent : sched_yield();
    });
    {
        // Watch as new threads do, and change the list that signal context reads.
        auto const churn = [&](int own) {
            for (int i = 0; i < 12; ++i) {
                Member([&] {
                    NewThreadGroup();
                    signal::AutoReceptor const old(signo, [](int) {});
                    signal::AutoReceptor const added(own, [](int) {});
                    RunOnce(0);
                });
                HandlerList<int>& list = signal::sigHandler(signo)->handlers();
                for (int change = 0; change < 20; ++change) {
                    unsigned long const id = list.insert(user_of_something());
                    sched_yield();
                    list.remove(id); // a signal handler may be in it now
                }
            }
        };
        Member const first([&] { churn(SIGRTMIN + 2); });
        Member const second([&] { churn(SIGRTMIN + 3); });
        ASSERT_TRUE(run_until([&] { return storm.ended() && first.ended() && second.ended(); }, 40000));
    }
    settle();
    // ThreadSanitizer itself merges signals that arrive outside of system calls.
    long const least = has_thread_sanitizer ? 1 : total;
    EXPECT_TRUE(run_until([&] { return calls >= least; })) << calls;
    HandlerList<int>& list = signal::sigHandler(signo)->handlers();
    list.remove(list.insert([](int) {}));
    EXPECT_EQ(0, Held::living) << "while nobody is inside, a change frees all that is retired";
}

TEST(SignalGate, frees_no_function_that_runs_and_makes_up_for_arrivals_that_came_too_early) {
    using orn::zel::detail::SignalGate;
    int const signo = SIGUSR1;
    std::atomic<bool> stop(false);
    std::atomic<long> arrivals(0), calls(0);
    auto const publish_another = [&] {
        boost::shared_ptr<boost::function<void(int)>> const function(new boost::function<void(int)>);
        *function = [&calls, use = user_of_something()](int value) {
            use(value);
            ++calls;
        };
        SignalGate::publish(signo, {function});
        SignalGate::reclaim();
    };
    SignalGate::await(signo);
    auto const arrive = [&] {
        while (!stop) {
            if (arrivals - calls > 1000) { // or a busy machine could never catch up with those that wait
                sched_yield();
                continue;
            }
            ++arrivals;
            SignalGate::deliver(signo);
        }
    };
    std::thread first(arrive), second(arrive);
    for (int i = 0; i < 3000; ++i) {
        publish_another();
        if (i % 2 == 0)
            SignalGate::await(signo);
    }
    stop = true;
    first.join();
    second.join();
    publish_another();
    EXPECT_EQ(arrivals, calls);
    SignalGate::publish(signo, {});
    SignalGate::drain();
    EXPECT_EQ(0, Held::living);
}

sigjmp_buf way_out;

int unload_after_a_jump() {
    unsigned long id = 0;
    {
        HandlerList<int>& list = signal::sigHandler(SIGUSR1)->handlers();
        id = list.insert([used = user_of_something()](int signo) {
            used(signo);
            siglongjmp(way_out, 1);
        });
        if (sigsetjmp(way_out, 1) == 0)
            raise(SIGUSR1);
        list.remove(id);
        list.remove(list.insert([](int) {}));
    }
    if (Held::living != 1)
        return 1; // freed, although its caller has not come back
    signal::zel_signal_unload();
    return Held::living == 1 && signal::is_default(SIGUSR1) ? 0 : 2;
}

volatile pid_t forked = -1;

int change_after_a_fork_in_signal_context() {
    HandlerList<int>& list = signal::sigHandler(SIGUSR1)->handlers();
    unsigned long const id = list.insert([](int) { forked = fork(); });
    raise(SIGUSR1);
    int status = 0;
    if (forked != 0)
        return waitpid(forked, &status, 0) == forked && status == 0 ? 0 : 2;
    list.remove(id);
    list.remove(list.insert(user_of_something()));
    list.remove(list.insert([](int) {}));
    _exit(Held::living == 0 ? 0 : 1);
}

TEST_F(Signals,
       functions_that_are_jumped_out_of_or_fork_are_neither_freed_too_early_nor_waited_for_without_end) {
    EXPECT_EQ("exit 0", in_child(unload_after_a_jump));
    EXPECT_EQ("exit 0", in_child(change_after_a_fork_in_signal_context));
}

} // namespace
