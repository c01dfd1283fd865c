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
    auto pipe = std::make_unique<orn::os::Pipe>(false);
    std::string const ctrl = std::to_string(pipe->ReadFD());
    pipe.reset(); // the group's own pipe gets its numbers
    std::string const group = "group=" + std::to_string(GroupId());
    thread::MonitorPoll("x", observer.WriteFD());
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(0, RunOnce(0));
    std::string const in = "poll in  " + group + " timeout=0 fd/event={ " + ctrl + "/17 }\n";
    std::string const out = "poll out " + group + " status=";
    EXPECT_EQ(in + out + "1 fd/revent={ " + ctrl + "/1 }\ndispatching fd=" + ctrl + " revents=1\n" + in +
                  out + "0 fd/revent={ " + ctrl + "/0 }\n",
              without_tid(take(observer.ReadFD())));

    // A descriptor of a thread that has left: reported, not called, and rebuilt without.
    WatchedPipe const left;
    RunOnce(0);
    left.feed();
    thread::ThisGroup()->erase(thread::self());
    take(observer.ReadFD());
    EXPECT_LT(0, RunOnce(0));
    std::string lines = take(observer.ReadFD());
    EXPECT_NE(std::string::npos, lines.find("fd=" + std::to_string(left.ReadFD()) + " from tid=" +
                                            std::to_string(thread::self()) + ": fdMgr no longer in group\n"))
        << lines;
    EXPECT_EQ(1, RunOnce(0)) << "its own wake-up";
    EXPECT_EQ(0, RunOnce(0));
    EXPECT_EQ("", left.seen);

    // The timeout is told as it was passed, whatever it is, but for what an int cannot hold.
    for (long const timeout_ms : {-5L, 5L, LONG_MIN, LONG_MAX}) {
        Exit();
        take(observer.ReadFD());
        EXPECT_EQ(1, RunOnce(timeout_ms));
        long const told = std::min<long>(std::max<long>(timeout_ms, INT_MIN), INT_MAX);
        lines = take(observer.ReadFD());
        EXPECT_NE(std::string::npos, lines.find(" timeout=" + std::to_string(told) + " ")) << lines;
    }
}

// A pipe of an observer's. The number of its end to write to can be given to another file, as when an
// observer closes it and the application opens a file.
class Watching {
public:
    Watching() {
        EXPECT_EQ(0, pipe2(ends_, O_CLOEXEC | O_NONBLOCK));
        thread::MonitorPoll("", ends_[1]);
    }
    ~Watching() {
        thread::UnmonitorPoll("", 0);
        read_no_more();
        close(ends_[1]);
    }
    void read_no_more() { close(std::exchange(ends_[0], -1)); }
    std::string lines() const { return take(ends_[0]); }
    void number_goes_to(int file) { EXPECT_EQ(ends_[1], dup3(file, ends_[1], O_CLOEXEC)); }

private:
    int ends_[2];
};

TEST_F(ThreadMonitor, no_line_lands_in_another_file_that_gets_the_observers_number) {
    orn::os::Pipe const file(false);
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
    EXPECT_EQ("", take(file.ReadFD())) << "written by a wait or a report that was under way";
}

TEST_F(ThreadMonitor, an_observer_whose_reader_has_gone_is_dropped) {
    orn::os::Pipe const file(false);
    Watching observer;
    observer.read_no_more();
    struct sigaction before = {};
    sigaction(SIGPIPE, nullptr, &before);
    signal::ignore(SIGPIPE);
    errno = 7;
    pollfd entry = {-1, 0, 0};
    thread::display_dispatch(entry);
    EXPECT_EQ(7, errno);
    sigaction(SIGPIPE, &before, nullptr);
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
    {
        Member const unseen([] {});
    }
    std::string const it = "tid=" + std::to_string(tid) + " thread ";
    EXPECT_EQ("tid=" + std::to_string(thread::self()) + " thread create (this is the parent)\n" + it +
                  "start\n" + it + "cleanup\n",
              take(observer.ReadFD()));
}

TEST_F(ThreadMonitor, the_thread_listing_goes_to_the_poll_monitor_only) {
    orn::os::Pipe observer(false);
    orn::os::Pipe passed(false);
    thread::This();
    auto const list = [&] {
        thread::ListThreads("ignored", passed.WriteFD());
        return take(observer.ReadFD()) + take(passed.ReadFD());
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
