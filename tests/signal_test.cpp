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

TEST_F(Signals, each_arrival_is_one_call_of_each_handler_of_each_group_on_its_own_loop) {
    signal::AutoReceptor const one(SIGUSR1, [&](int signo) { seen += signo == SIGUSR1 ? "a" : "?"; });
    signal::AutoReceptor const two(SIGUSR1, [&](int) { seen += "b "; });
    {
        signal::AutoReceptor const gone(SIGUSR2, [&](int) { seen += "c "; });
        raise(SIGUSR2);
    }
    std::atomic<int> theirs(0);
    Count ready;
    {
        Member const other([&] {
            NewThreadGroup();
            int const me = thread::self();
            signal::AutoReceptor const receptor(SIGUSR1, [&](int) { theirs += me == thread::self(); });
            ready.up();
            EXPECT_TRUE(run_until([&] { return theirs == 2; }));
        });
        ASSERT_TRUE(ready.reaches(1));
        raise(SIGUSR1);
        raise(SIGUSR1);
    }
    EXPECT_EQ("", seen);
    settle();
    EXPECT_EQ("ab ab ", seen);
}

TEST_F(Signals, a_burst_before_the_loop_turns_loses_nothing_and_blocks_nobody_beyond_the_limit) {
    int calls = 0;
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) { ++calls; });
    auto const served = [&](int arrivals) {
        calls = 0;
        for (int i = 0; i < arrivals; ++i)
            raise(SIGUSR1);
        settle_all();
        return calls;
    };
    EXPECT_EQ(100000, served(100000));
    EXPECT_LT(200000, served(300000));
    EXPECT_EQ(1, served(1));
    calls = 0;
    for (int i = 0; i < 3; ++i)
        raise(SIGUSR1);
    EXPECT_EQ(1, RunOnce(-1));
    EXPECT_EQ(3, calls) << "in one turn";
}

TEST_F(Signals, refuses_what_the_system_refuses_and_says_why) {
    std::string const text = "failed to install handler for signal ";
    EXPECT_EQ(text + "1000: errno=22 (Invalid argument)",
              refusal([] { signal::AutoReceptor const receptor(1000, [](int) {}); }));
    EXPECT_EQ(text + std::to_string(SIGSTOP), refusal([] { signal::ignore(SIGSTOP); }));
    EXPECT_THROW(signal::AutoReceptor(SIGUSR1, boost::function<void(int)>()), orn::Exception);
    EXPECT_EQ(std::vector<int>{SIGUSR1}, signal::manager()->signals()) << "no trace of those refused";
}

TEST_F(Signals, dispositions_come_back_at_unload_and_watching_starts_anew_after_it) {
    struct sigaction before = {};
    sigaction(SIGUSR2, nullptr, &before);
    signal::ignore(SIGUSR2);
    auto const as_before = [] { return signal::is_default(SIGUSR1) && signal::is_ignored(SIGUSR2); };
    EXPECT_TRUE(as_before());
    signal::AutoReceptor const one(SIGUSR1, [&](int) { seen += "1"; });
    signal::AutoReceptor const two(SIGUSR2, [&](int) { seen += "2"; });
    EXPECT_FALSE(signal::is_default(SIGUSR1) || signal::is_ignored(SIGUSR2));
    signal::zel_signal_unload();
    EXPECT_TRUE(as_before());
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
    sigset_t set, now;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    signal::block(&set, &now);
    EXPECT_EQ(0, sigismember(&now, SIGUSR1));
    signal::blocked(&now);
    EXPECT_EQ(1, sigismember(&now, SIGUSR1));
    EXPECT_FALSE(signal::is_pending(SIGUSR1));
    raise(SIGUSR1);
    EXPECT_TRUE(signal::is_pending(SIGUSR1));
    signal::unblock(&set, &now);
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
    std::string const me = "tid=" + std::to_string(thread::self()) + " SignalMgrs:\n";
    EXPECT_EQ(me + " signals={ }", take(answer.ReadFD()));
    std::string const mine = entry(*signal::manager(), *thread::FdMgr());
    std::string theirs;
    Member([&] {
        Signal(SIGHUP);
        theirs = entry(*signal::manager(), *thread::FdMgr());
    });
    Signal(SIGUSR2);
    Signal(SIGUSR1);
    signal::ListSignals("x", answer.WriteFD());
    EXPECT_EQ(me + mine + theirs + " signals={ " + std::to_string(SIGUSR1) + ' ' + std::to_string(SIGUSR2) +
                  " }",
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

std::atomic<int> living(0);

// A function for signal context. It notices when what it uses is destroyed while it runs, and living tells
// how much of that there is.
boost::function<void(int)> user_of_something() {
    ++living;
    std::shared_ptr<std::atomic<bool>> const held(new std::atomic<bool>(true), [](std::atomic<bool>* used) {
        *used = false;
        delete used;
        --living;
    });
    return [held](int) {
        for (int look = 0; look < 2; ++look) {
            if (!*held)
                std::abort();
            syscall(SYS_sched_yield);
        }
    };
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
    EXPECT_EQ(0, living) << "while nobody is inside, a change frees all that is retired";
}

TEST(SignalGate, frees_no_function_that_runs_and_makes_up_for_arrivals_that_came_too_early) {
    using orn::zel::detail::SignalGate;
    int const signo = SIGUSR1;
    std::atomic<bool> stop(false);
    std::atomic<long> arrivals(0), calls(0);
    auto const publish_another = [&] {
        boost::function<void(int)> const function = [&calls, use = user_of_something()](int value) {
            use(value);
            ++calls;
        };
        SignalGate::publish(signo, {boost::make_shared<boost::function<void(int)>>(function)});
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
    for (int i = 0; i < 3000 || arrivals < 1000; ++i) {
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
    EXPECT_EQ(0, living);
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
    if (living != 1)
        return 1; // freed, although its caller has not come back
    signal::zel_signal_unload();
    return living == 1 && signal::is_default(SIGUSR1) ? 0 : 2;
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
    _exit(living == 0 ? 0 : 1);
}

TEST_F(Signals,
       functions_that_are_jumped_out_of_or_fork_are_neither_freed_too_early_nor_waited_for_without_end) {
    EXPECT_EQ("exit 0", in_child(unload_after_a_jump));
    EXPECT_EQ("exit 0", in_child(change_after_a_fork_in_signal_context));
}

} // namespace
