// SPDX-License-Identifier: MIT
//
// The thread object: its two phases, its ends, and what a cancelled thread leaves behind.
#include <atomic>
#include <chrono>
#include <dirent.h>
#include <fcntl.h>
#include <future>
#include <sched.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <orn/zel.hpp>

namespace zel = orn::zel;

namespace {

std::size_t open_descriptors() {
    std::size_t count = 0;
    DIR* const dir = opendir("/proc/self/fd");
    while (readdir(dir))
        ++count;
    closedir(dir);
    return count;
}

// Something that another thread brings about, waited for with a deadline.
class Latch {
public:
    void open() { promise_.set_value(); }
    bool wait() { return future_.wait_for(std::chrono::seconds(30)) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    std::future<void> future_ = promise_.get_future();
};

bool alive(int tid) {
    return syscall(SYS_tgkill, getpid(), tid, 0) == 0;
}

class ThreadObject : public testing::Test {
protected:
    ThreadObject()
        : descriptors_((zel::RunOnce(0), zel::task::manager(), zel::alarm::manager(), open_descriptors())) {}

    void TearDown() override {
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_EQ(zel::thread::ThisGroup()->Threads(), std::set<int>{zel::thread::self()});
    }

private:
    std::size_t const descriptors_;
};

typedef ThreadObject ThreadObjectStart;
typedef ThreadObject ThreadObjectEnd;
typedef ThreadObject ThreadObjectCancellation;
typedef ThreadObject ThreadObjectHooks;

} // namespace

TEST_F(ThreadObjectStart, InitialisesInTheConstructorAndRunsAfterStartOnly) {
    std::atomic<int> inits(0);
    std::atomic<int> runs(0);
    std::atomic<int> tid(0);
    zel::Runnable work;
    work.init = [&] {
        tid = zel::thread::self();
        return ++inits;
    };
    work.run = [&] {
        ++runs;
        return zel::thread::self() == tid ? -7 : 0;
    };
    zel::Thread thread(work);
    EXPECT_EQ(inits, 1);
    EXPECT_EQ(thread.Id(), tid);
    EXPECT_EQ(zel::thread::ThisGroup()->Threads().count(tid), 1u);
    EXPECT_TRUE(thread.Status().undefined());
    EXPECT_EQ(runs, 0);
    thread.Start();
    thread.Start();
    thread.Join();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(thread.Status().value(), -7);
    EXPECT_TRUE(thread.isStopped());
    thread.Join(); // there is nothing left to join
    thread.Detach();
    EXPECT_FALSE(thread.isDetached());
}

TEST_F(ThreadObjectStart, TakesDerivedWorkAndFunctions) {
    struct Work : zel::Runnable {
        int Run() override { return 3; }
    };
    zel::Thread shared(boost::make_shared<Work>());
    Work work;
    zel::Thread referenced(work);
    zel::Thread function([] { return 5; });
    for (zel::Thread* const thread : {&shared, &referenced, &function}) {
        thread->Start();
        thread->Join();
    }
    EXPECT_EQ(shared.Status().value() + referenced.Status().value() + function.Status().value(), 11);
}

TEST_F(ThreadObjectStart, WithoutWorkIsInert) {
    zel::Thread idle;
    EXPECT_EQ(idle.Id(), 0);
    idle.Join();
    idle.Detach();
    EXPECT_FALSE(idle.isDetached());
    EXPECT_FALSE(idle.isStopped());
    idle.Stop();
    EXPECT_TRUE(idle.isStopped());
    EXPECT_TRUE(idle.Status().undefined());
}

TEST_F(ThreadObjectStart, ReturnsWhenTheThreadEndsInItsInitialisation) {
    zel::Runnable work;
    work.init = +[]() -> int { o_pthread_exit(reinterpret_cast<void*>(9)); };
    zel::Thread thread(work);
    thread.Start();
    thread.Join();
    EXPECT_EQ(thread.Status().value(), 9);
}

TEST(ThreadObjectDeathTest, ThreadProcInsistsOnItsArgument) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(threadProc(nullptr), "src/Thread:50: Assertion `ptr' failed");
}

TEST_F(ThreadObjectEnd, StoppedBeforeStartNeverRuns) {
    bool ran = false;
    zel::Thread thread([&] {
        ran = true;
        return 1;
    });
    thread.Stop();
    EXPECT_TRUE(thread.isStopped());
    thread.Join();
    EXPECT_FALSE(ran);
    EXPECT_EQ(thread.Status().value(), 0);
}

TEST_F(ThreadObjectEnd, StopAsksTheWorkFirstAndOnce) {
    Latch asked;
    int requests = 0;
    zel::Runnable work;
    work.run = [&] { return asked.wait() ? 4 : 5; };
    work.cancel = [&] {
        ++requests;
        asked.open();
        return 0;
    };
    zel::Thread thread(work);
    thread.Start();
    thread.Stop();
    thread.Stop();
    thread.Join();
    EXPECT_EQ(requests, 1);
    EXPECT_EQ(thread.Status().value(), 4);
}

TEST_F(ThreadObjectEnd, DestructorStopsAndJoins) {
    int tid = 0;
    {
        zel::Thread thread([] {
            for (;;)
                pause();
            return 0;
        });
        thread.Start();
        tid = thread.Id();
    }
    // The kernel may have one that has been joined for a moment longer; one that goes on would be there for
    // good.
    while (alive(tid))
        std::this_thread::yield();
}

TEST_F(ThreadObjectEnd, DetachedThreadOutlivesItsObjectAndCannotBeJoined) {
    Latch gone;
    Latch done;
    int tid = 0;
    {
        zel::Thread thread([&] {
            bool const ok = gone.wait();
            done.open();
            return ok ? 0 : 1;
        });
        thread.Start();
        thread.Detach();
        thread.Detach();
        EXPECT_TRUE(thread.isDetached());
        tid = thread.Id();
        try {
            thread.Join();
            FAIL() << "joined";
        } catch (zel::Thread::JoinDetached const& refused) {
            EXPECT_STREQ(refused.what(), "attempt to join a detached thread");
            EXPECT_STREQ(refused.details(), "");
        }
    }
    EXPECT_TRUE(alive(tid));
    gone.open();
    EXPECT_TRUE(done.wait());
    while (alive(tid))
        sched_yield();
}

TEST_F(ThreadObjectEnd, DetachedThreadThatNobodyCanStartEndsWithItsObject) {
    bool run = false;
    int tid = 0;
    {
        zel::Thread thread([&] {
            run = true;
            return 0;
        });
        thread.Detach();
        tid = thread.Id();
        EXPECT_TRUE(alive(tid));
    }
    while (alive(tid))
        sched_yield();
    EXPECT_FALSE(run);
}

TEST_F(ThreadObjectEnd, StoppingADetachedThreadThatHasEndedTouchesNothing) {
    static int cancels;
    cancels = 0;
    orn_zel_pthread_cancel = [](o_pthread_t thread) {
        ++cancels;
        return o_pthread_cancel(thread);
    };
    zel::Thread thread([] { return 0; });
    thread.Detach();
    thread.Start();
    while (alive(thread.Id()))
        sched_yield();
    thread.Stop();
    EXPECT_EQ(cancels, 0);
    orn_zel_pthread_cancel = o_pthread_cancel;
}

// ---- A cancelled thread leaves no lock, role, membership or descriptor behind; the fixture looks at the
// last two

namespace {

void expect_cancelled(zel::Thread& thread) {
    thread.Stop();
    thread.Join();
    EXPECT_EQ(thread.Status().value(), -1);
}

// Goes through every lock, as runner of the group.
void expect_working_loop() {
    int turns = 0;
    zel::SetAlarm(0, [&turns] { ++turns; });
    zel::RunTask([&turns](zel::task::Controller* task) {
        ++turns;
        task->Complete();
    });
    while (turns < 2)
        ASSERT_GE(zel::RunOnce(10000), 1);
    int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    zel::fd::ListFds("", null);
    zel::task::ListTasks("", null);
    close(null);
}

} // namespace

TEST_F(ThreadObjectCancellation, InTheMiddleOfNothing) {
    Latch there;
    zel::Thread thread([&] {
        there.open();
        for (;;)
            pause();
        return 0;
    });
    thread.Start();
    ASSERT_TRUE(there.wait());
    expect_cancelled(thread);
}

TEST_F(ThreadObjectCancellation, AsRunnerInTheWait) {
    Latch there;
    zel::Thread thread([&] {
        there.open();
        for (;;)
            zel::RunOnce(-1);
        return 0;
    });
    thread.Start();
    ASSERT_TRUE(there.wait());
    expect_cancelled(thread);
    expect_working_loop();
}

TEST_F(ThreadObjectCancellation, AsRunnerInASliceOfATask) {
    Latch there;
    int slices = 0;
    zel::RunTask([&](zel::task::Controller* task) {
        if (++slices > 1) {
            task->Complete();
            return;
        }
        there.open();
        for (;;)
            pause();
    });
    bool behind = false;
    zel::RunTask([&](zel::task::Controller* task) {
        behind = true;
        task->Complete();
    });
    zel::Thread thread([] {
        for (;;)
            zel::RunOnce(-1);
        return 0;
    });
    thread.Start();
    ASSERT_TRUE(there.wait());
    expect_cancelled(thread);
    EXPECT_FALSE(behind);
    zel::RunTask([](zel::task::Controller* task) { task->Complete(); });
    while (!behind)
        ASSERT_GE(zel::RunOnce(10000), 1);
    EXPECT_EQ(slices, 1);
}

TEST_F(ThreadObjectCancellation, OfACreatorWaitsForTheConstructor) {
    Latch there;
    Latch cancelled;
    zel::Thread creator([&] {
        zel::Runnable work;
        work.init = [&] {
            there.open();
            return cancelled.wait() ? 0 : 1;
        };
        work.run = +[] { return 0; };
        zel::Thread inner(work);
        pause();
        return 0;
    });
    creator.Start();
    ASSERT_TRUE(there.wait());
    creator.Stop();
    cancelled.open();
    creator.Join();
    EXPECT_EQ(creator.Status().value(), -1);
}

// ---- The hooks

TEST_F(ThreadObjectHooks, CarryEveryThreadOperation) {
    static std::atomic<int> creates, detaches, exits, joins, cancels;
    creates = detaches = exits = joins = cancels = 0;
    orn_zel_pthread_create = [](o_pthread_t* thread, o_pthread_attr_t const* attributes,
                                void* (*start)(void*), void* argument) {
        EXPECT_EQ(attributes, nullptr);
        EXPECT_EQ(start, threadProc);
        ++creates;
        return o_pthread_create(thread, attributes, start, argument);
    };
    orn_zel_pthread_detach = [](o_pthread_t thread) {
        ++detaches;
        return o_pthread_detach(thread);
    };
    orn_zel_pthread_exit = [](void* result) {
        ++exits;
        o_pthread_exit(result);
    };
    orn_zel_pthread_join = [](o_pthread_t thread, void** result) {
        ++joins;
        return o_pthread_join(thread, result);
    };
    orn_zel_pthread_cancel = [](o_pthread_t thread) {
        ++cancels;
        return o_pthread_cancel(thread);
    };
    {
        zel::Thread joined([] { return 6; });
        joined.Start();
        joined.Join();
        EXPECT_EQ(joined.Status().value(), 6);
        zel::Thread stopped([] {
            for (;;)
                pause();
            return 0;
        });
        stopped.Start();
        stopped.Stop();
        stopped.Join();
        zel::Thread detached([] { return 0; });
        detached.Detach();
        detached.Start();
        while (alive(detached.Id()))
            sched_yield();
    }
    EXPECT_EQ(creates, 3);
    EXPECT_EQ(detaches, 1);
    EXPECT_EQ(exits, 2);
    EXPECT_EQ(joins, 2);
    EXPECT_EQ(cancels, 1);
    orn_zel_pthread_create = o_pthread_create;
    orn_zel_pthread_detach = o_pthread_detach;
    orn_zel_pthread_exit = o_pthread_exit;
    orn_zel_pthread_join = o_pthread_join;
    orn_zel_pthread_cancel = o_pthread_cancel;
}

TEST_F(ThreadObjectHooks, RefusedThreadIsReported) {
    orn_zel_pthread_create = [](o_pthread_t*, o_pthread_attr_t const*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    try {
        zel::Thread thread([] { return 0; });
        FAIL() << "made";
    } catch (std::system_error const& refused) {
        EXPECT_EQ(refused.code().value(), EAGAIN);
    }
    orn_zel_pthread_create = o_pthread_create;
}
