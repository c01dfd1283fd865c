// SPDX-License-Identifier: MIT
//
// Threads and their groups, and the results of the run calls. What handlers do to the turn that calls them is
// in turn_test.cpp, what can be observed in threadMonitor_test.cpp.
#include <sys/time.h>

#include "support/Faults.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class ThreadGroup : public Loop {
protected:
    // The main thread, which the tests' other threads look at.
    static bool waits_as_runner(thread::Group const& group) {
        return wait_until([&] { return group.IsRunner(getpid()); }) && waits(getpid());
    }
};

// ---- Membership -----------------------------------------------------------------------------------------

TEST_F(ThreadGroup, a_new_thread_is_a_member_until_it_ends) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    boost::shared_ptr<thread::Group> second;
    {
        Member const member([&] {
            EXPECT_EQ((std::set<int>{thread::self(), getpid()}), group->Threads());
            NewThreadGroup();
            second = thread::ThisGroup();
            EXPECT_EQ(std::set<int>{getpid()}, group->Threads());
            Member const grandchild([&] { EXPECT_EQ(second, thread::ThisGroup()); });
        });
    }
    EXPECT_EQ(0u, second->size());
    thread::This().Associate(second);
    EXPECT_EQ(second->id().value(), GroupId());
    EXPECT_EQ(0u, group->size());
    EXPECT_EQ(std::set<int>{thread::self()}, second->Threads());
}

std::string control_bytes;

TEST_F(ThreadGroup, a_thread_that_joins_brings_what_it_watches_already) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    Member const member([&] {
        NewThreadGroup();
        WatchedPipe pipe;
        EXPECT_TRUE(waits_as_runner(*group));
        pipe.feed();
        {
            Replaced const recorded(orn_zel_thread_group_write, [](int fd, void const* data, size_t length) {
                control_bytes.append(static_cast<char const*>(data), length);
                return write(fd, data, length);
            });
            thread::This().Associate(group);
        }
        EXPECT_EQ("ei", control_bytes) << "nothing but what each move writes";
        EXPECT_TRUE(wait_until([&] { return pipe.calls > 0; }));
    });
    RunOnce(0);
    EXPECT_TRUE(woken_until([&] { return member.ended(); }));
}

// Threads that the thread layer has not made, and so without its hooks.
TEST_F(ThreadGroup, a_thread_of_the_applications_own_leaves_nothing_when_it_ends) {
    thread::ThisGroup();
    thread::FdMgr();
    std::set<int> const before = descriptors();
    for (int i = 0; i < 3; ++i) {
        std::thread([&] {
            thread::FdMgr();
            boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
            EXPECT_EQ(2, known_threads());
        }).join();
    }
    // One whose end uses the library again, in an order that nobody knows; and one that the thread layer
    // made.
    pthread_key_t later;
    pthread_key_create(&later, [](void*) { thread::ThisGroup(); });
    auto const body = [later] {
        thread::ThisGroup();
        pthread_setspecific(later, &later);
    };
    std::thread(body).join();
    Member(body).join();
    pthread_key_delete(later);
    EXPECT_EQ(before, descriptors());
    EXPECT_EQ(1, known_threads());
}

TEST_F(ThreadGroup, a_thread_takes_over_no_group_that_is_filed_under_its_id) {
    std::atomic<int> tid(0);
    std::atomic<bool> ready(false);
    boost::shared_ptr<thread::Group> filed;
    std::thread late([&] {
        tid = thread::self();
        wait_until([&] { return ready.load(); });
        EXPECT_NE(filed, thread::ThisGroup());
        EXPECT_EQ(0u, filed->Threads().count(tid));
    });
    wait_until([&] { return tid != 0; });
    filed = (*TheThreadMap())[tid].GetGroup();
    filed->insert(tid);
    ready = true;
    late.join();
}

TEST_F(ThreadGroup, after_fork_the_child_has_an_id_and_a_group_of_its_own) {
    EXPECT_EQ(getpid(), thread::self());
    EXPECT_EQ("exit 1", in_child([] { return thread::self() == getpid() ? RunOnce(0) : 2; }));
}

// ---- Turns ----------------------------------------------------------------------------------------------

TEST_F(ThreadGroup, a_full_control_pipe_blocks_nobody_and_wakes_the_loop_once) {
    EXPECT_EQ(1, RunOnce(-1)) << "the new group's own wake-up";
    EXPECT_EQ(0, RunOnce(0));
    for (int i = 0; i < 200000; ++i)
        Exit();
    WatchedPipe pipe;
    pipe.feed();
    EXPECT_EQ(2, RunOnce(-1)) << "the change is seen although its byte was lost";
    EXPECT_EQ(1, pipe.calls);
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(ThreadGroup, members_that_wake_it_all_the_time_do_not_hold_the_runner) {
    // A control pipe that is filled as fast as it is read never runs dry; no more does this.
    int const endless = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    thread::ThisGroup()->ctrl_eater(pollfd{endless, POLLIN, POLLIN});
    close(endless);
}

TEST_F(ThreadGroup, a_member_that_is_not_the_runner_only_sleeps) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    std::atomic<bool> stop(false);
    {
        WatchedPipe const pipe([&] { EXPECT_TRUE(group->IsRunner(thread::self())); });
        Member const runner([&] {
            while (!stop)
                RunOnce(-1);
        });
        ASSERT_TRUE(wait_until([&] { return group->IsRunner(runner.tid()); }));
        EXPECT_EQ(0, RunOnce(1));
        pipe.feed();
        ASSERT_TRUE(wait_until([&] { return pipe.calls == 1; }));
        // It waits for its own descriptors all the same, without serving the group's.
        orn::os::Pipe own(false);
        EXPECT_EQ(0, RunUntilEventOnFd(own.ReadFD(), POLLIN, 1));
        put(own.WriteFD(), "y");
        EXPECT_EQ(POLLIN, RunUntilEventOnFd(own.ReadFD(), POLLIN, -1));
        stop = true;
        Exit();
    }
    EXPECT_LT(0, RunOnce(-1)) << "the role is free again";
}

TEST_F(ThreadGroup, waiting_for_descriptors_serves_the_group_meanwhile) {
    orn::os::Pipe mine(false);
    std::unique_ptr<WatchedPipe> late;
    WatchedPipe served([&] {
        if (!late) // watched while the wait is on, and so part of its next pass
            late.reset(new WatchedPipe([&] { put(mine.WriteFD(), "end"); }));
        else
            late->feed();
    });
    EXPECT_EQ(0, RunUntilEventOnFd(mine.ReadFD(), POLLIN, 0));
    Member feeder([&] {
        served.feed();
        EXPECT_TRUE(wait_until([&] { return served.calls == 1; }) && waits(getpid()));
        served.feed();
    });
    pollfd fds[3] = {{mine.WriteFD(), POLLIN, 9}, {mine.ReadFD(), POLLIN, 0}, {-1, POLLIN, 0}};
    EXPECT_EQ(1, RunUntilEventOnFdSet(fds, 3, -1));
    EXPECT_EQ(0, fds[0].revents);
    EXPECT_EQ(POLLIN, fds[1].revents);
    EXPECT_EQ(2, served.calls);
    feeder.join();

    // A descriptor that the group watches too is the caller's for this wait.
    served.feed();
    EXPECT_EQ(POLLIN, RunUntilEventOnFd(served.ReadFD(), POLLIN, -1));
    EXPECT_EQ(2, served.calls);
    EXPECT_EQ(0, RunUntilEventOnFdSet(nullptr, 0, 0));
    EXPECT_EQ(3, served.calls) << "of nothing at all, it is not";
}

TEST_F(ThreadGroup, a_group_event_starts_the_whole_timeout_anew) {
    WatchedPipe const served;
    settle();
    orn::os::Pipe observer(false);
    thread::MonitorPoll("", observer.WriteFD());
    served.feed();
    EXPECT_EQ(0, RunUntilEventOnFd(-1, POLLIN, 25));
    std::string const lines = take(observer.ReadFD());
    EXPECT_NE(lines.find(" timeout=25 "), lines.rfind(" timeout=25 ")) << lines;
}

TEST_F(ThreadGroup, an_interrupted_wait_returns_minus_one_and_no_results) {
    WatchedPipe const busy;
    for (int turn = 0; turn < 10; ++turn) { // a large group then asks about it first
        busy.feed();
        RunOnce(-1);
    }
    Fault const interrupted(Call::poll, EINTR, 3);
    pollfd entry = {-1, POLLIN, 3};
    EXPECT_EQ(-1, RunUntilEventOnFdSet(&entry, 1, -1));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, entry.revents);
    EXPECT_EQ(-1, RunOnce(-1));
    EXPECT_EQ(0, RunUntilEventOnFd(-1, POLLIN, -1));
}

TEST_F(ThreadGroup, a_millisecond_alarm_raises_sigalrm_and_tells_what_was_left_of_the_last_one) {
    bool raised = false;
    signal::AutoReceptor const receptor(SIGALRM, [&](int) { raised = true; });
    EXPECT_EQ(0u, msec_alarm(1));
    EXPECT_TRUE(run_until([&] { return raised; }));
    EXPECT_EQ(0u, msec_alarm(90001));
    unsigned const left = msec_alarm(0);
    EXPECT_TRUE(left > 60000 && left <= 90001) << left;
    EXPECT_EQ(0u, msec_alarm(0));
    itimerval long_one = {};
    long_one.it_value.tv_sec = 5000000; // more milliseconds than there are numbers
    setitimer(ITIMER_REAL, &long_one, nullptr);
    EXPECT_EQ(UINT_MAX, msec_alarm(0));
    itimerval short_one = {};
    short_one.it_value.tv_usec = 900; // any fraction of a millisecond is something
    for (unsigned seen = 0; seen != 1;) {
        setitimer(ITIMER_REAL, &short_one, nullptr);
        seen = msec_alarm(0);
        ASSERT_LE(seen, 1u);
    }
}

using ThreadGroupDeathTest = ThreadGroup;

TEST_F(ThreadGroupDeathTest, a_broken_contract_ends_the_process) {
    EXPECT_DEATH(thread::This().Associate(boost::shared_ptr<thread::Group>()), "Assertion `group' failed");
    pollfd never_registered = {1000, POLLIN, POLLIN};
    EXPECT_DEATH(thread::ThisGroup()->dispatch(never_registered),
                 "dispatchset.find.pfd.fd. != dispatchset.end");
    auto const nest = [](int levels) {
        WatchedPipe pipe([&] {
            if (pipe.calls < levels) {
                pipe.feed();
                RunOnce(-1);
            }
        });
        pipe.feed();
        while (pipe.calls == 0)
            RunOnce(-1);
        return pipe.calls.load();
    };
    EXPECT_EQ(99, nest(99));
    EXPECT_FALSE(thread::ThisGroup()->IsRunner(thread::self()));
    EXPECT_DEATH(nest(100), "Assertion `runnerDepth < 100' failed");
}

} // namespace
