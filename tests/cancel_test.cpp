// SPDX-License-Identifier: MIT
//
// Threads that are cancelled inside the library: locks, roles and hooks are released on the way, and nothing
// is cancelled where it could not be unwound.
#include <sys/syscall.h>

#include <orn/clock.hpp>

#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

#define SKIP_WITHOUT_CANCELLATION()                                                                          \
    if (has_thread_sanitizer)                                                                                \
    GTEST_SKIP() << "ThreadSanitizer no longer sees the locks of a thread that was cancelled in a system "   \
                    "call"

class Cancel : public Loop {
protected:
    // What must hold once a thread that had the runner role has been cancelled: this one can take it, is
    // served, and is alone.
    void expect_loop_goes_on() {
        EXPECT_FALSE(group->IsRunner(thread::self()));
        EXPECT_EQ(std::set<int>{thread::self()}, group->Threads());
        WatchedPipe const pipe([&] { EXPECT_TRUE(group->IsRunner(thread::self())); });
        pipe.feed();
        EXPECT_TRUE(run_until([&] { return pipe.calls == 1; }));
        EXPECT_FALSE(group->IsRunner(thread::self()));
    }

    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
};

TEST_F(Cancel, a_runner_deep_in_nested_runs_and_in_a_handler_gives_up_all_levels) {
    SKIP_WITHOUT_CANCELLATION();
    orn::os::Pipe const blocking(true);
    WatchedPipe const left;
    RunOnce(0);
    Member runner([&] {
        WatchedPipe const inner([&] {
            left.feed(); // nobody's turn until the cancelled one is out of the way
            char byte;
            static_cast<void>(read(blocking.ReadFD(), &byte, 1));
            FAIL();
        });
        WatchedPipe const outer([&] {
            inner.feed();
            for (;;)
                RunUntilEventOnFd(-1, POLLIN, -1);
        });
        outer.feed();
        for (;;)
            RunOnce(-1);
    });
    ASSERT_TRUE(is_ready(left.ReadFD(), POLLIN, 10000));
    ASSERT_TRUE(runner.waits());
    EXPECT_TRUE(group->IsRunner(runner.tid()));
    runner.cancel();
    EXPECT_TRUE(runner.join());
    expect_loop_goes_on();
    EXPECT_EQ(1, left.calls);
}

TEST_F(Cancel, a_waiting_request_does_not_act_inside_destructors) {
    orn::os::Pipe observer(false);
    thread::MonitorThread("", observer.WriteFD());
    alarm::Monitor("", observer.WriteFD());
    std::atomic<bool> through(false);
    Member doomed([&] {
        orn::os::Pipe pipe(false);
        auto receptor = std::make_unique<fd::AutoReceptor>(pipe.ReadFD(), [](fd::Event*) {});
        auto signals = std::make_unique<signal::AutoReceptor>(SIGUSR1, [](int) {});
        auto alarm = std::make_unique<Alarm>(100000, [] {});
        o_pthread_cancel(pthread_self());
        receptor.reset();
        signals.reset();
        alarm.reset();
        { orn::os::Pipe const another(false); }
        group->WakeUp('x');
        through = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(doomed.join());
    EXPECT_TRUE(through);
    thread::UnmonitorThread("", 0);
    alarm::Unmonitor("", 0);
    expect_loop_goes_on();
}

// ---- Signals --------------------------------------------------------------------------------------------

std::atomic<int> stage(0);

TEST_F(Cancel, watching_a_signal_neither_waits_for_its_handlers_nor_is_cancelled) {
    boost::shared_ptr<signal::SignalHandler> const source = signal::sigHandler(SIGUSR1);
    // In signal context: stays inside until it is let go.
    unsigned long const id = source->handlers().insert([](int) {
        stage = 1;
        while (stage != 2)
            syscall(SYS_sched_yield);
    });
    Member inside([] { raise(SIGUSR1); });
    ASSERT_TRUE(wait_until([] { return stage == 1; }));
    std::atomic<bool> watched(false);
    Member doomed([&] {
        o_pthread_cancel(pthread_self());
        signal::AutoReceptor const receptor(SIGUSR1, [](int) {});
        watched = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(wait_until([&] { return doomed.ended(); }));
    source->handlers().remove(id);
    EXPECT_EQ(1, stage) << "still inside";
    stage = 2;
    EXPECT_TRUE(doomed.join());
    EXPECT_TRUE(watched);
    inside.join();
}

TEST_F(Cancel, a_thread_that_receives_signals_is_not_unwound_out_of_their_handler) {
    SKIP_WITHOUT_CANCELLATION();
    signal::AutoReceptor const receptor(SIGUSR1, [](int) {});
    boost::shared_ptr<signal::SignalHandler> const source = signal::sigHandler(SIGUSR1);
    // Long enough for the request to come while the handler is inside, also on one processor, and not much
    // longer where busy processes take each turn that it gives up. Where the C library unwinds by tables
    // that do not cover every instruction, only a request that cannot arrive there is harmless.
    std::atomic<bool> exposed(false);
    source->handlers().insert([&exposed](int) {
        unsigned long mask[NSIG / 8 / sizeof(unsigned long)] = {};
        syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, mask, NSIG / 8);
        unsigned const bits = 8 * sizeof mask[0];
        if (!(mask[31 / bits] >> (31 % bits) & 1)) // signal 32, by which the C library cancels
            exposed = true;
        std::uint64_t const begin = orn::internal::now_ns();
        for (int i = 0; i < 200 && orn::internal::now_ns() < begin + 5000000; ++i)
            syscall(SYS_sched_yield);
    });
    for (int round = 0; round < 50; ++round) {
        Member target([] {
            for (;;)
                RunOnce(-1);
        });
        ASSERT_TRUE(target.waits());
        std::atomic<bool> stop(false);
        Member sender([&] {
            sigset_t set, old;
            sigemptyset(&set);
            sigaddset(&set, SIGUSR1);
            signal::block(&set, &old);
            while (!stop && !target.ended()) {
                syscall(SYS_tgkill, getpid(), target.tid(), SIGUSR1);
                sched_yield();
            }
        });
        target.cancel();
        EXPECT_TRUE(target.join());
        stop = true;
    }
    EXPECT_FALSE(exposed);
    // A handler that never came out would be waited for here, for a whole second.
    long const begin = milliseconds();
    signal::zel_signal_unload();
    EXPECT_LT(milliseconds() - begin, 900);
    expect_loop_goes_on();
}

} // namespace
