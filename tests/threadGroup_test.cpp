// SPDX-License-Identifier: MIT
//
// Threads and their groups, the results of the run calls, and what can be observed of both. What handlers do
// to the turn that calls them is in turn_test.cpp.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/weak_ptr.hpp>
#include <orn/log.h>
#include <orn/zel.hpp>

#include "support/Support.hpp"

using namespace orn::zel;
using support::put;
using support::take;

namespace {

class ThreadGroup : public support::Loop {};

// ---- Membership

TEST_F(ThreadGroup, a_new_thread_is_a_member_until_it_ends) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    EXPECT_EQ(group->id().value(), GroupId());
    EXPECT_EQ(std::set<int>{thread::self()}, group->Threads());
    EXPECT_EQ(thread::FdMgr(), thread::FdMgr(thread::self()));
    EXPECT_EQ(thread::FdMgr(1), thread::FdMgr(1)) << "of a thread never seen";
    boost::shared_ptr<fd::Manager> const mine = thread::FdMgr();
    boost::shared_ptr<thread::Group> second;
    {
        support::Thread const member([&] {
            EXPECT_EQ(group, thread::ThisGroup());
            EXPECT_NE(mine, thread::FdMgr());
            EXPECT_EQ((std::set<int>{thread::self(), getpid()}), group->Threads());
            NewThreadGroup();
            second = thread::ThisGroup();
            EXPECT_NE(group->id().value(), GroupId());
            EXPECT_EQ(std::set<int>{getpid()}, group->Threads());
            support::Thread const grandchild([&] { EXPECT_EQ(second, thread::ThisGroup()); });
        });
    }
    EXPECT_EQ(0u, second->size());
    EXPECT_EQ(1u, group->tsize());
    thread::This().Associate(second);
    EXPECT_EQ(second, thread::ThisGroup());
    EXPECT_EQ(0u, group->size());
    EXPECT_EQ(std::set<int>{thread::self()}, second->Threads());
}

namespace control {

std::string bytes;

ssize_t recorded(int fd, void const* data, size_t length) {
    bytes.append(static_cast<char const*>(data), length);
    return write(fd, data, length);
}

} // namespace control

TEST_F(ThreadGroup, a_thread_that_joins_brings_what_it_watches_already) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    orn::os::Pipe pipe(false);
    orn::os::Pipe late(false);
    std::atomic<bool> joined(false);
    std::atomic<bool> served(false);
    support::Thread const member([&] {
        NewThreadGroup();
        fd::AutoReceptor const receptor(pipe.ReadFD(), [&](fd::Event* event) {
            take(event->fd());
            served = true;
        });
        EXPECT_TRUE(support::wait_until([&] { return group->IsRunner(getpid()); }) &&
                    support::waits(getpid()));
        put(pipe.WriteFD(), "x");
        control::bytes.clear();
        orn_zel_thread_group_write = control::recorded;
        thread::This().Associate(group);
        orn_zel_thread_group_write = write;
        EXPECT_EQ("ei", control::bytes) << "nothing but what each move writes";
        joined = true;
        EXPECT_TRUE(support::wait_until([&] { return served.load(); }));
    });
    RunOnce(0);
    while (!joined)
        RunOnce(-1);
    EXPECT_TRUE(support::run_until([&] { return served.load(); }));
}

// Threads that the thread layer has not made, and so without its hooks.
TEST_F(ThreadGroup, a_thread_of_the_applications_own_leaves_nothing_when_it_ends) {
    orn::os::Pipe listing(false);
    thread::MonitorPoll("x", listing.WriteFD());
    auto const known = [&] {
        thread::ListThreads("", -1);
        std::string const text = take(listing.ReadFD());
        return std::count(text.begin(), text.end(), '\n') - 1;
    };
    thread::ThisGroup();
    thread::FdMgr();
    std::set<int> const before = support::descriptors();
    for (int i = 0; i < 3; ++i) {
        std::thread([&] {
            thread::FdMgr();
            boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
            EXPECT_EQ(2, known());
        }).join();
        EXPECT_EQ(before, support::descriptors());
    }
    EXPECT_EQ(1, known());
    // One whose end uses the library again, in an order that nobody knows; and one that the thread layer
    // made.
    pthread_key_t later;
    pthread_key_create(&later, [](void*) { thread::ThisGroup(); });
    std::function<void()> const body = [later] {
        thread::ThisGroup();
        pthread_setspecific(later, &later);
    };
    std::thread(body).join();
    support::Thread(body).join();
    pthread_key_delete(later);
    EXPECT_EQ(before, support::descriptors());
    EXPECT_EQ(1, known());
    thread::UnmonitorPoll("", -1);
}

TEST_F(ThreadGroup, a_thread_takes_over_no_group_that_is_filed_under_its_id) {
    std::atomic<int> tid(0);
    std::atomic<bool> ready(false);
    boost::shared_ptr<thread::Group> filed;
    std::thread late([&] {
        tid = thread::self();
        support::wait_until([&] { return ready.load(); });
        EXPECT_NE(filed, thread::ThisGroup());
        EXPECT_EQ(0u, filed->Threads().count(tid));
    });
    support::wait_until([&] { return tid != 0; });
    filed = (*TheThreadMap())[tid].GetGroup();
    filed->insert(tid);
    ready = true;
    late.join();
}

TEST_F(ThreadGroup, nothing_survives_an_unload) {
    unsigned long const before = GroupId();
    boost::weak_ptr<thread::Group> const group = thread::ThisGroup();
    boost::weak_ptr<fd::Manager> const manager = thread::FdMgr();
    thread::zel_thread_unload();
    EXPECT_TRUE(group.expired());
    EXPECT_TRUE(manager.expired());
    EXPECT_NE(before, GroupId()) << "made again on demand";
    thread::zel_thread_load();
    support::Thread const member([] { EXPECT_EQ(2u, thread::ThisGroup()->size()); });
}

TEST_F(ThreadGroup, after_fork_the_child_has_an_id_of_its_own) {
    int const parent = thread::self();
    EXPECT_EQ(getpid(), parent);
    std::string const status = support::in_child([parent] {
        bool const own = thread::self() != parent && thread::self() == getpid();
        // It may bring up a group of its own before it replaces itself.
        return own && RunOnce(0) == 1 ? 0 : 1;
    });
    EXPECT_EQ("exit 0", status);
    EXPECT_EQ(parent, thread::self());
}

TEST(AssociationsDeathTest, an_empty_group_is_a_broken_contract) {
    EXPECT_DEATH(thread::This().Associate(boost::shared_ptr<thread::Group>()), "Assertion `group' failed");
}

// ---- Turns

TEST_F(ThreadGroup, wake_ups_end_one_wait_and_are_drained) {
    EXPECT_EQ(1, RunOnce(-1)) << "the new group's own";
    EXPECT_EQ(0, RunOnce(0));
    Exit();
    Exit();
    EXPECT_EQ(1, RunOnce(-1));
    EXPECT_EQ(0, RunOnce(0));
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    std::atomic<bool> woken(false);
    support::Thread const waker([&] {
        NewThreadGroup(); // nothing that it does later wakes this group
        EXPECT_TRUE(support::wait_until([&] { return group->IsRunner(getpid()); }) &&
                    support::waits(getpid()));
        woken = true;
        group->WakeUp('x');
    });
    while (!woken)
        RunOnce(-1);
}

TEST_F(ThreadGroup, a_full_control_pipe_blocks_nobody_and_wakes_the_loop) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    for (int i = 0; i < 200000; ++i)
        group->WakeUp('x');
    orn::os::Pipe pipe(false);
    int calls = 0;
    fd::AutoReceptor const receptor(pipe.ReadFD(), [&](fd::Event* event) {
        take(event->fd());
        ++calls;
    });
    put(pipe.WriteFD(), "x");
    EXPECT_EQ(2, RunOnce(-1)) << "the change is seen although its byte was lost";
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(ThreadGroup, members_that_wake_it_all_the_time_do_not_hold_the_runner) {
    // A control pipe that is filled as fast as it is read never runs dry; no more does this.
    int const endless = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, endless);
    thread::ThisGroup()->ctrl_eater(pollfd{endless, POLLIN, POLLIN});
    ::close(endless);
}

TEST_F(ThreadGroup, a_member_that_is_not_the_runner_only_sleeps) {
    orn::os::Pipe pipe(false);
    std::atomic<int> by(0);
    std::atomic<bool> stop(false);
    {
        fd::AutoReceptor const receptor(pipe.ReadFD(), [&](fd::Event* event) {
            take(event->fd());
            by = thread::self();
        });
        support::Thread runner([&] {
            while (!stop)
                RunOnce(-1);
        });
        boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
        ASSERT_TRUE(support::wait_until([&] { return group->IsRunner(runner.tid()); }));
        EXPECT_EQ(0, RunOnce(1));
        put(pipe.WriteFD(), "x");
        ASSERT_TRUE(support::wait_until([&] { return by != 0; }));
        EXPECT_EQ(runner.tid(), by);
        // It waits for its own descriptors all the same, without serving the group's.
        orn::os::Pipe own(false);
        EXPECT_EQ(0, RunUntilEventOnFd(own.ReadFD(), POLLIN, 1));
        put(own.WriteFD(), "y");
        EXPECT_EQ(POLLIN, RunUntilEventOnFd(own.ReadFD(), POLLIN, -1));
        stop = true;
        Exit();
        runner.join();
    }
    EXPECT_FALSE(thread::ThisGroup()->IsRunner(thread::self()));
    EXPECT_LT(0, RunOnce(-1)) << "the role is free again";
}

TEST_F(ThreadGroup, waiting_for_descriptors_serves_the_group_meanwhile) {
    orn::os::Pipe mine(false);
    orn::os::Pipe other(false);
    orn::os::Pipe served(false);
    std::atomic<int> calls(0);
    std::unique_ptr<fd::AutoReceptor> late;
    fd::AutoReceptor const receptor(served.ReadFD(), [&](fd::Event* event) {
        take(event->fd());
        if (++calls == 1) // watched while the wait is on, and so part of its next pass
            late.reset(new fd::AutoReceptor(other.ReadFD(), [&](fd::Event* added) {
                take(added->fd());
                put(mine.WriteFD(), "end");
            }));
        else
            put(other.WriteFD(), "x");
    });
    EXPECT_EQ(0, RunUntilEventOnFd(mine.ReadFD(), POLLIN, 0));
    support::Thread feeder([&] {
        put(served.WriteFD(), "1");
        support::wait_until([&] { return calls == 1; });
        EXPECT_TRUE(support::waits(getpid()));
        put(served.WriteFD(), "2");
    });
    pollfd fds[3] = {{mine.WriteFD(), POLLIN, 9}, {mine.ReadFD(), POLLIN, 0}, {-1, POLLIN, 0}};
    EXPECT_EQ(1, RunUntilEventOnFdSet(fds, 3, -1));
    EXPECT_EQ(0, fds[0].revents);
    EXPECT_EQ(POLLIN, fds[1].revents);
    EXPECT_EQ(2, calls);
    feeder.join();

    // A descriptor that the group watches too is the caller's for this wait.
    put(served.WriteFD(), "3");
    EXPECT_EQ(POLLIN, RunUntilEventOnFd(served.ReadFD(), POLLIN, -1));
    EXPECT_EQ(2, calls);
    EXPECT_EQ(0, RunUntilEventOnFdSet(nullptr, 0, 0));
    EXPECT_EQ(3, calls) << "of nothing at all, it is not";
    pollfd entry = {7, POLLIN, 0};
    pollfd same = {7, POLLOUT, 0};
    EXPECT_TRUE(thread::isInPollset(entry, &same, 1));
    EXPECT_FALSE(thread::isInPollset(entry, nullptr, 0));
}

TEST_F(ThreadGroup, a_group_event_starts_the_whole_timeout_anew) {
    orn::os::Pipe mine(false);
    orn::os::Pipe served(false);
    fd::AutoReceptor const receptor(served.ReadFD(), [](fd::Event* event) { take(event->fd()); });
    while (RunOnce(0) > 0) {
    }
    orn::os::Pipe observer(false);
    thread::MonitorPoll("", observer.WriteFD());
    put(served.WriteFD(), "x");
    EXPECT_EQ(0, RunUntilEventOnFd(mine.ReadFD(), POLLIN, 25));
    thread::UnmonitorPoll("", 0);
    std::string const lines = take(observer.ReadFD());
    std::string::size_type const first = lines.find(" timeout=25 ");
    ASSERT_NE(std::string::npos, first) << lines;
    EXPECT_NE(std::string::npos, lines.find(" timeout=25 ", first + 1)) << lines;
}

TEST_F(ThreadGroup, an_interrupted_wait_returns_minus_one) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { msec_alarm(10); }; // one that comes before the wait interrupts nothing
    sigaction(SIGALRM, &action, &before);
    RunOnce(0);
    EXPECT_EQ(0u, msec_alarm(10));
    EXPECT_EQ(-1, RunOnce(-1));
    EXPECT_EQ(EINTR, errno);
    pollfd entry = {-1, POLLIN, 3};
    EXPECT_EQ(-1, RunUntilEventOnFdSet(&entry, 1, -1));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, RunUntilEventOnFd(-1, POLLIN, -1));
    msec_alarm(0);

    EXPECT_EQ(0u, msec_alarm(90000));
    unsigned const left = msec_alarm(3600001);
    EXPECT_TRUE(left > 89000 && left <= 90000) << left;
    EXPECT_LT(3500000u, msec_alarm(0));
    EXPECT_EQ(0u, msec_alarm(0));
    itimerval short_one = {};
    short_one.it_value.tv_usec = 900; // any fraction of a millisecond is something
    sigset_t set, old;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    signal::block(&set, &old);
    for (unsigned seen = 0; seen != 1;) {
        setitimer(ITIMER_REAL, &short_one, nullptr);
        seen = msec_alarm(0);
        ASSERT_LE(seen, 1u);
    }
    signal::unblock(&set, &old); // with the handler still there, for one that is pending
    msec_alarm(0);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(ThreadGroup, nests_to_99_levels) {
    orn::os::Pipe pipe(false);
    int depth = 0;
    fd::AutoReceptor const receptor(pipe.ReadFD(), [&](fd::Event*) {
        if (++depth < 99)
            RunOnce(-1);
        else
            take(pipe.ReadFD());
    });
    put(pipe.WriteFD(), "x");
    while (depth == 0)
        RunOnce(-1);
    EXPECT_EQ(99, depth);
    EXPECT_FALSE(thread::ThisGroup()->IsRunner(thread::self()));
}

TEST(RunnerDeathTest, the_hundredth_level_ends_the_process) {
    auto const nest = [] {
        orn::os::Pipe pipe(false);
        fd::AutoReceptor const receptor(pipe.ReadFD(), [](fd::Event*) { RunOnce(-1); });
        put(pipe.WriteFD(), "x");
        for (;;)
            RunOnce(-1);
    };
    EXPECT_EXIT(nest(), ::testing::KilledBySignal(SIGABRT), "Assertion `runnerDepth < 100' failed");
}

TEST(RunnerDeathTest, a_descriptor_that_was_never_registered_ends_the_process) {
    auto const stray = [] {
        pollfd entry = {1000, POLLIN, POLLIN};
        thread::ThisGroup()->dispatch(entry);
    };
    EXPECT_EXIT(stray(), ::testing::KilledBySignal(SIGABRT), "dispatchset.find.pfd.fd. != dispatchset.end");
}

// ---- Observation

TEST_F(ThreadGroup, the_poll_monitor_tells_every_wait_and_dispatch) {
    orn::os::Pipe observer(false);
    int ctrl = -1; // the first of the two descriptors that the group opens
    std::set<int> const before = support::descriptors();
    thread::ThisGroup();
    for (int const fd : support::descriptors())
        if (ctrl == -1 && !before.count(fd))
            ctrl = fd;
    thread::MonitorPoll("x", observer.WriteFD());
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(0, RunOnce(0));
    std::string const group = "group=" + std::to_string(GroupId());
    std::string const in = "poll in  " + group + " timeout=0 fd/event={ " + std::to_string(ctrl) + "/17 }\n";
    EXPECT_EQ(in + "poll out " + group + " status=1 fd/revent={ " + std::to_string(ctrl) + "/1 }\n" +
                  "dispatching fd=" + std::to_string(ctrl) + " revents=1\n" + in + "poll out " + group +
                  " status=0 fd/revent={ " + std::to_string(ctrl) + "/0 }\n",
              support::without_tid(take(observer.ReadFD())));

    // A descriptor of a thread that has left: reported, not called, and rebuilt without.
    orn::os::Pipe pipe(false);
    int calls = 0;
    fd::AutoReceptor const receptor(pipe.ReadFD(), [&](fd::Event*) { ++calls; });
    RunOnce(0);
    put(pipe.WriteFD(), "x");
    boost::shared_ptr<thread::Group> const old = thread::ThisGroup();
    old->erase(thread::self());
    take(observer.ReadFD());
    EXPECT_LT(0, RunOnce(0));
    EXPECT_NE(std::string::npos, take(observer.ReadFD())
                                     .find("fd=" + std::to_string(pipe.ReadFD()) + " from tid=" +
                                           std::to_string(thread::self()) + ": fdMgr no longer in group\n"));
    EXPECT_EQ(1, RunOnce(0)) << "its own wake-up";
    EXPECT_EQ(0, RunOnce(0));
    EXPECT_EQ(0, calls);

    // The timeout is told as it was passed, whatever it is, but for what an int cannot hold.
    for (long const timeoutMs : {-5L, 5L, LONG_MIN, LONG_MAX}) {
        Exit();
        take(observer.ReadFD());
        EXPECT_EQ(1, RunOnce(timeoutMs));
        long const told = std::min<long>(std::max<long>(timeoutMs, INT_MIN), INT_MAX);
        std::string const lines = take(observer.ReadFD());
        EXPECT_NE(std::string::npos, lines.find(" timeout=" + std::to_string(told) + " ")) << lines;
    }

    thread::UnmonitorPoll("x", observer.WriteFD());
    take(observer.ReadFD());
    RunOnce(0);
    EXPECT_EQ("", take(observer.ReadFD()));
}

// A descriptor of an observer's, whose number another pipe can be given.
class Watching {
public:
    Watching() {
        struct sigaction ignored = {};
        ignored.sa_handler = SIG_IGN;
        EXPECT_EQ(0, sigaction(SIGPIPE, &ignored, &before_));
        EXPECT_EQ(0, ::pipe2(ends_, O_CLOEXEC | O_NONBLOCK));
        thread::MonitorPoll("", ends_[1]);
    }
    ~Watching() {
        thread::UnmonitorPoll("", 0);
        read_no_more();
        ::close(ends_[1]);
        sigaction(SIGPIPE, &before_, nullptr);
    }
    void read_no_more() { ::close(std::exchange(ends_[0], -1)); }
    std::string lines() const { return take(ends_[0]); }
    // As when the observer's descriptor is closed and the application opens a file.
    void number_goes_to(int file) { EXPECT_EQ(ends_[1], ::dup3(file, ends_[1], O_CLOEXEC)); }

private:
    int ends_[2];
    struct sigaction before_;
};

TEST_F(ThreadGroup, no_line_lands_in_another_file_that_gets_the_observers_number) {
    orn::os::Pipe const file(false);
    {
        Watching observer;
        boost::shared_ptr<thread::Group> group;
        support::Thread const looping([&] {
            NewThreadGroup();
            group = thread::ThisGroup();
            RunOnce(0); // its own wake-up
            RunOnce(-1);
        });
        std::string lines;
        EXPECT_TRUE(support::wait_until([&] {
            lines += observer.lines();
            return lines.find(" timeout=-1 ") != std::string::npos;
        }));
        EXPECT_TRUE(looping.waits());
        thread::UnmonitorPoll("", 0);
        observer.number_goes_to(file.WriteFD());
        group->WakeUp('x');
    }
    EXPECT_EQ("", take(file.ReadFD())) << "written by a wait that had begun before";

    std::atomic<bool> turn(true);
    support::Thread const looping([&] {
        NewThreadGroup();
        while (turn)
            RunOnce(0);
    });
    for (int i = 0; i < 2000; ++i) {
        Watching observer;
        EXPECT_TRUE(i % 10 != 0 || support::wait_until([&] { return !observer.lines().empty(); }));
        thread::UnmonitorPoll("", 0);
        observer.number_goes_to(file.WriteFD());
    }
    turn = false;
    EXPECT_EQ("", take(file.ReadFD())) << "written by a report that was under way";
}

TEST_F(ThreadGroup, an_observer_whose_reader_has_gone_is_dropped) {
    orn::os::Pipe const file(false);
    Watching observer;
    RunOnce(0);
    EXPECT_NE("", observer.lines());
    observer.read_no_more();
    errno = 7;
    pollfd entry = {-1, 0, 0};
    thread::display_dispatch(entry);
    EXPECT_EQ(7, errno);
    observer.number_goes_to(file.WriteFD());
    RunOnce(0);
    EXPECT_EQ("", take(file.ReadFD()));
    thread::MonitorPoll("", file.WriteFD());
    RunOnce(0);
    EXPECT_NE("", take(file.ReadFD())) << "the next one is served";
}

TEST_F(ThreadGroup, a_child_of_fork_may_report_whatever_line_was_being_written) {
    Watching observer;
    std::atomic<bool> go_on(true);
    pollfd entry = {-1, 0, 0};
    support::Thread const reporting([&] {
        while (go_on)
            thread::display_dispatch(entry);
    });
    std::string end = "exit 0";
    for (int i = 0; i < 50 && end == "exit 0"; ++i)
        end = support::in_child([&] {
            thread::display_dispatch(entry);
            return 0;
        });
    EXPECT_EQ("exit 0", end);
    go_on = false;
}

TEST_F(ThreadGroup, the_thread_monitor_tells_birth_and_death) {
    orn::os::Pipe observer(false);
    thread::MonitorThread("x", observer.WriteFD());
    int tid = 0;
    {
        support::Thread const member([] {});
        tid = member.tid();
    }
    thread::UnmonitorThread("whatever", 77);
    std::string const lines = take(observer.ReadFD());
    std::string const me = "tid=" + std::to_string(thread::self()) + " ";
    std::string const it = "tid=" + std::to_string(tid) + " ";
    EXPECT_EQ(me + "thread create (this is the parent)\n" + it + "thread start\n" + it + "thread cleanup\n",
              lines);
    {
        support::Thread const unseen([] {});
    }
    EXPECT_EQ("", take(observer.ReadFD()));
}

TEST_F(ThreadGroup, the_thread_listing_goes_to_the_poll_monitor_only) {
    orn::os::Pipe observer(false);
    orn::os::Pipe passed(false);
    thread::This();
    auto const list = [&] {
        thread::ListThreads("ignored", passed.WriteFD());
        EXPECT_EQ("", take(passed.ReadFD()));
        return take(observer.ReadFD());
    };
    EXPECT_EQ("", list());
    thread::MonitorPoll("x", observer.WriteFD());
    std::string const me = "thread: " + std::to_string(thread::self());
    EXPECT_EQ("Threads:\n" + me + " group=none fdMgr=none\n", list());
    std::string const first = me + " group=" + std::to_string(GroupId()) +
                              " fdMgr=" + std::to_string(thread::FdMgr()->id().value()) + "\n";
    EXPECT_EQ("Threads:\n" + first, list());
    support::Thread const member([&] {
        std::string const mine = "thread: " + std::to_string(thread::self()) +
                                 " group=" + std::to_string(GroupId()) + " fdMgr=none\n";
        // In ascending id, and the ids wrap.
        EXPECT_EQ("Threads:\n" + (thread::self() > getpid() ? first + mine : mine + first), list());
    });
    thread::ThisGroup()->display(); // shows nothing, but must not deadlock
}

TEST_F(ThreadGroup, the_extended_log_has_every_set) {
    char file[] = "/tmp/zel_log_XXXXXX";
    ::close(::mkstemp(file));
    ::setenv("LOG_SINK", file, 1);
    std::string const status = support::in_child([] {
        Log_Reopen(); // what was set when the first record came is what counts
        RunOnce(0);
        thread::enableExtendedLogging();
        RunOnce(0);
        RunUntilEventOnFd(-1, POLLIN, 0);
        return 0;
    });
    ::unsetenv("LOG_SINK");
    EXPECT_EQ("exit 0", status);
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    ::unlink(file);
    EXPECT_NE(std::string::npos, text.str().find("orn::zel::thread::Group::Group(): group "));
    for (char const* const label : {"zel_poll IN (group=", "zel_poll OUT (group=", "RunFdSet in set (group="})
        EXPECT_NE(std::string::npos, text.str().find(label)) << label << "\n" << text.str();
    EXPECT_NE(std::string::npos, text.str().find(") fd/events/revents={ -1/1/0 }"));
}

} // namespace
