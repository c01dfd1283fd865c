// SPDX-License-Identifier: MIT
//
// What can be observed of threads and their loops: the monitors, the listing, and the extended log.
#include <climits>

#include <orn/log.h>

#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class ThreadMonitor : public Loop {};

TEST_F(ThreadMonitor, the_poll_monitor_tells_every_wait_and_dispatch) {
    orn::os::Pipe observer(false);
    int ctrl = -1; // the first of the two descriptors that the group opens
    std::set<int> const before = descriptors();
    thread::ThisGroup();
    for (int const fd : descriptors()) {
        if (ctrl == -1 && !before.count(fd))
            ctrl = fd;
    }
    thread::MonitorPoll("x", observer.WriteFD());
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(0, RunOnce(0));
    std::string const group = "group=" + std::to_string(GroupId());
    std::string const in = "poll in  " + group + " timeout=0 fd/event={ " + std::to_string(ctrl) + "/17 }\n";
    EXPECT_EQ(in + "poll out " + group + " status=1 fd/revent={ " + std::to_string(ctrl) + "/1 }\n" +
                  "dispatching fd=" + std::to_string(ctrl) + " revents=1\n" + in + "poll out " + group +
                  " status=0 fd/revent={ " + std::to_string(ctrl) + "/0 }\n",
              without_tid(take(observer.ReadFD())));

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
    for (long const timeout_ms : {-5L, 5L, LONG_MIN, LONG_MAX}) {
        Exit();
        take(observer.ReadFD());
        EXPECT_EQ(1, RunOnce(timeout_ms));
        long const told = std::min<long>(std::max<long>(timeout_ms, INT_MIN), INT_MAX);
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
        EXPECT_EQ(0, pipe2(ends_, O_CLOEXEC | O_NONBLOCK));
        thread::MonitorPoll("", ends_[1]);
    }
    ~Watching() {
        thread::UnmonitorPoll("", 0);
        read_no_more();
        close(ends_[1]);
        sigaction(SIGPIPE, &before_, nullptr);
    }
    void read_no_more() { close(std::exchange(ends_[0], -1)); }
    std::string lines() const { return take(ends_[0]); }
    // As when the observer's descriptor is closed and the application opens a file.
    void number_goes_to(int file) { EXPECT_EQ(ends_[1], dup3(file, ends_[1], O_CLOEXEC)); }

private:
    int ends_[2];
    struct sigaction before_;
};

TEST_F(ThreadMonitor, no_line_lands_in_another_file_that_gets_the_observers_number) {
    orn::os::Pipe const file(false);
    {
        Watching observer;
        boost::shared_ptr<thread::Group> group;
        Member const looping([&] {
            NewThreadGroup();
            group = thread::ThisGroup();
            RunOnce(0); // its own wake-up
            RunOnce(-1);
        });
        std::string lines;
        EXPECT_TRUE(wait_until([&] {
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
    Member const looping([&] {
        NewThreadGroup();
        while (turn)
            RunOnce(0);
    });
    for (int i = 0; i < 2000; ++i) {
        Watching observer;
        EXPECT_TRUE(i % 10 != 0 || wait_until([&] { return !observer.lines().empty(); }));
        thread::UnmonitorPoll("", 0);
        observer.number_goes_to(file.WriteFD());
    }
    turn = false;
    EXPECT_EQ("", take(file.ReadFD())) << "written by a report that was under way";
}

TEST_F(ThreadMonitor, an_observer_whose_reader_has_gone_is_dropped) {
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

TEST_F(ThreadMonitor, a_child_of_fork_may_report_whatever_line_was_being_written) {
    Watching observer;
    std::atomic<bool> go_on(true);
    pollfd entry = {-1, 0, 0};
    Member const reporting([&] {
        while (go_on)
            thread::display_dispatch(entry);
    });
    std::string end = "exit 0";
    for (int i = 0; i < 50 && end == "exit 0"; ++i) {
        end = in_child([&] {
            thread::display_dispatch(entry);
            return 0;
        });
    }
    EXPECT_EQ("exit 0", end);
    go_on = false;
}

TEST_F(ThreadMonitor, the_thread_monitor_tells_birth_and_death) {
    orn::os::Pipe observer(false);
    thread::MonitorThread("x", observer.WriteFD());
    int tid = 0;
    {
        Member const member([] {});
        tid = member.tid();
    }
    thread::UnmonitorThread("whatever", 77);
    std::string const lines = take(observer.ReadFD());
    std::string const me = "tid=" + std::to_string(thread::self()) + " ";
    std::string const it = "tid=" + std::to_string(tid) + " ";
    EXPECT_EQ(me + "thread create (this is the parent)\n" + it + "thread start\n" + it + "thread cleanup\n",
              lines);
    {
        Member const unseen([] {});
    }
    EXPECT_EQ("", take(observer.ReadFD()));
}

TEST_F(ThreadMonitor, the_thread_listing_goes_to_the_poll_monitor_only) {
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
    Member const member([&] {
        std::string const mine = "thread: " + std::to_string(thread::self()) +
                                 " group=" + std::to_string(GroupId()) + " fdMgr=none\n";
        // In ascending id, and the ids wrap.
        EXPECT_EQ("Threads:\n" + (thread::self() > getpid() ? first + mine : mine + first), list());
    });
    thread::ThisGroup()->display(); // shows nothing, but must not deadlock
}

TEST_F(ThreadMonitor, the_extended_log_has_every_set) {
    TempFile const file;
    setenv("LOG_SINK", file.path().c_str(), 1);
    EXPECT_EQ("exit 0", in_child([] {
                  Log_Reopen(); // what was set when the first record came is what counts
                  RunOnce(0);
                  thread::enableExtendedLogging();
                  RunOnce(0);
                  RunUntilEventOnFd(-1, POLLIN, 0);
                  return 0;
              }));
    unsetenv("LOG_SINK");
    std::string const text = file.text();
    for (char const* const part :
         {"orn::zel::thread::Group::Group(): group ", "zel_poll IN (group=", "zel_poll OUT (group=",
          "RunFdSet in set (group=", ") fd/events/revents={ -1/1/0 }"})
        EXPECT_NE(std::string::npos, text.find(part)) << part << "\n" << text;
}

} // namespace
