// SPDX-License-Identifier: MIT
//
// The thread object: its two phases, its ends, and what a cancelled thread leaves behind.
#include <system_error>

#include <sys/syscall.h>

#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

// The kernel may have a thread that has been joined for a moment longer; one that goes on is there for good.
bool ends(int tid) {
    return wait_until([tid] { return syscall(SYS_tgkill, getpid(), tid, 0) != 0; });
}

int pause_for_ever() {
    for (;;)
        pause();
}

int turn_for_ever() {
    for (;;)
        RunOnce(-1);
}

class Threads : public Loop {
protected:
    ~Threads() override { EXPECT_EQ(std::set<int>{thread::self()}, thread::ThisGroup()->Threads()); }
};

// ---- Begin ----------------------------------------------------------------------------------------------

TEST_F(Threads, are_initialised_in_the_constructor_and_run_after_start_only) {
    std::atomic<int> tid(0);
    std::atomic<int> runs(0);
    Runnable work;
    work.init = [&] { return tid = thread::self(); };
    work.run = [&] { return thread::self() == tid ? --runs : 1; };
    Thread thread(work);
    EXPECT_EQ(tid, thread.Id());
    EXPECT_EQ(1u, thread::ThisGroup()->Threads().count(tid));
    EXPECT_TRUE(thread.Status().undefined());
    thread.Start();
    thread.Start();
    thread.Join();
    EXPECT_EQ(-1, thread.Status().value());
    EXPECT_TRUE(thread.isStopped());
    thread.Join(); // there is nothing left to join
    thread.Detach();
    EXPECT_FALSE(thread.isDetached());
}

TEST_F(Threads, take_derived_work_and_functions_and_may_end_in_their_initialisation) {
    struct Work : Runnable {
        int Run() override { return 3; }
    } work;
    Runnable short_lived;
    short_lived.init = +[]() -> int { o_pthread_exit(reinterpret_cast<void*>(9)); };
    Thread shared(boost::make_shared<Work>()), referenced(work), ended(short_lived);
    int sum = 0;
    for (Thread* const thread : {&shared, &referenced, &ended}) {
        thread->Start();
        thread->Join();
        sum = 10 * sum + thread->Status().value();
    }
    EXPECT_EQ(339, sum);
}

TEST_F(Threads, without_work_are_inert) {
    Thread idle;
    EXPECT_EQ(0, idle.Id());
    idle.Join();
    idle.Detach();
    idle.Stop();
    EXPECT_TRUE(idle.isStopped() && !idle.isDetached() && idle.Status().undefined());
}

TEST(ThreadDeathTest, the_procedure_insists_on_its_argument) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(threadProc(nullptr), "src/Thread:50: Assertion `ptr' failed");
}

// ---- End ------------------------------------------------------------------------------------------------

TEST_F(Threads, have_their_work_asked_first_and_once_when_they_are_stopped) {
    Count asked;
    Runnable work;
    work.run = [&] { return asked.reaches(1) ? 4 : 5; };
    work.cancel = [&] {
        asked.up();
        return 0;
    };
    Thread thread(work);
    thread.Start();
    thread.Stop();
    thread.Stop();
    thread.Join();
    EXPECT_EQ(1u, asked.value());
    EXPECT_EQ(4, thread.Status().value());
}

TEST_F(Threads, detached_outlive_their_objects_unless_nobody_can_start_them_and_cannot_be_joined) {
    Count gone;
    Count done;
    auto const work = [&] {
        if (gone.reaches(1))
            done.up();
        return 0;
    };
    std::vector<int> tids;
    {
        Thread never_started(work), started(work);
        for (Thread* const thread : {&never_started, &started}) {
            tids.push_back(thread->Id());
            thread->Detach();
            thread->Detach();
            EXPECT_TRUE(thread->isDetached());
        }
        started.Start();
        EXPECT_EQ("attempt to join a detached thread",
                  refusal<Thread::JoinDetached>([&] { started.Join(); }));
    }
    EXPECT_TRUE(ends(tids[0]));
    gone.up();
    EXPECT_TRUE(ends(tids[1]));
    EXPECT_EQ(1u, done.value());
}

// ---- Cancellation ---------------------------------------------------------------------------------------

// A cancelled thread leaves no lock, role, membership or descriptor behind. The fixture looks at the last
// two.

void expect_cancelled(Thread& thread) {
    thread.Stop();
    thread.Join();
    EXPECT_EQ(-1, thread.Status().value());
}

TEST_F(Threads, are_cancelled_as_runner_in_a_slice_which_leaves_the_others_of_the_turn) {
    Count there;
    int behind = 0;
    RunTask([&](task::Controller*) {
        there.up();
        pause_for_ever();
    });
    RunTask(once(behind));
    Thread thread(turn_for_ever);
    thread.Start();
    ASSERT_TRUE(there.reaches(1));
    expect_cancelled(thread);
    EXPECT_EQ(0, behind);
    RunTask(complete);
    EXPECT_TRUE(woken_until([&] { return behind == 1; }));
    EXPECT_EQ(1u, there.value());
}

TEST_F(Threads, that_are_cancelled_as_creators_wait_for_the_constructor) {
    Count there;
    Count cancelled;
    Thread creator([&] {
        Runnable work;
        work.init = [&] {
            there.up();
            return cancelled.reaches(1) ? 0 : 1;
        };
        work.run = +[] { return 0; };
        Thread inner(work);
        return pause_for_ever();
    });
    creator.Start();
    ASSERT_TRUE(there.reaches(1));
    creator.Stop();
    cancelled.up();
    creator.Join();
    EXPECT_EQ(-1, creator.Status().value());
}

// ---- The functions that a host may replace --------------------------------------------------------------

enum { creates, detaches, exits, joins, cancels, operations };
std::atomic<int> calls[operations];

// Counts the call and hands it on to the host's own function.
template <int Operation, auto Own, class... Args>
auto counted(Args... args) {
    ++calls[Operation];
    return Own(args...);
}

TEST_F(Threads, use_the_hosts_functions_for_every_operation) {
    Replaced<decltype(orn_zel_pthread_create)> const create(orn_zel_pthread_create,
                                                            counted<creates, o_pthread_create>);
    Replaced<decltype(orn_zel_pthread_detach)> const detach(orn_zel_pthread_detach,
                                                            counted<detaches, o_pthread_detach>);
    Replaced<decltype(orn_zel_pthread_exit)> const exit(orn_zel_pthread_exit, counted<exits, o_pthread_exit>);
    Replaced<decltype(orn_zel_pthread_join)> const join(orn_zel_pthread_join, counted<joins, o_pthread_join>);
    Replaced<decltype(orn_zel_pthread_cancel)> const cancel(orn_zel_pthread_cancel,
                                                            counted<cancels, o_pthread_cancel>);
    Thread joined([] { return 6; });
    joined.Start();
    joined.Join();
    Thread stopped(pause_for_ever);
    stopped.Start();
    stopped.Stop();
    stopped.Join();
    int tid = 0;
    {
        Thread destroyed(turn_for_ever);
        destroyed.Start();
        tid = destroyed.Id();
    }
    EXPECT_TRUE(ends(tid));
    Thread detached([] { return 0; });
    detached.Detach();
    detached.Start();
    EXPECT_TRUE(ends(detached.Id()));
    detached.Stop();
    // Two cancellations: nothing is left of one that is detached and has ended.
    EXPECT_EQ((std::vector<int>{4, 1, 2, 3, 2}), std::vector<int>(calls, calls + operations));
}

TEST_F(Threads, that_the_system_refuses_are_reported) {
    Replaced const create(orn_zel_pthread_create, [](o_pthread_t*, o_pthread_attr_t const*, void* (*)(void*),
                                                     void*) { return EAGAIN; });
    try {
        Thread const thread([] { return 0; });
        FAIL() << "made";
    } catch (std::system_error const& refused) {
        EXPECT_EQ(EAGAIN, refused.code().value());
    }
}

} // namespace
