// SPDX-License-Identifier: MIT
//
// Monitors, managers, the scoped registration, and the texts about them.
#include <sstream>

#include "support/Faults.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class Fd : public Loop {
protected:
    boost::function<void(fd::Event*)> reader() {
        return [this](fd::Event* event) {
            seen += take(event->fd());
            last = event->revents();
            context = event->context();
        };
    }

    std::string seen;
    short last = 0;
    fd::Monitor* context = nullptr;
    orn::os::Pipe pipe{false};
};

TEST_F(Fd, a_monitor_refuses_what_it_cannot_watch) {
    fd::MonitorImpl none;
    EXPECT_EQ("invalid FD (-1)", refusal([&] { none.insert(reader()); }));
    EXPECT_EQ(0u, none.count());
    EXPECT_NE(0u, fd::MonitorImpl(-2, POLLIN).insert(reader()));
    EXPECT_EQ("Empty handler function", refusal([&] { fd::AutoReceptor(0, {}); }));
    EXPECT_EQ(0u, thread::FdMgr()->size());
}

TEST_F(Fd, a_monitor_is_entered_while_it_has_a_handler_and_a_manager) {
    boost::shared_ptr<fd::Manager> const one(new fd::Manager);
    boost::shared_ptr<fd::Manager> const two(new fd::Manager);
    std::string entered;
    auto const look = [&] { entered += std::to_string(one->size()) + std::to_string(two->size()) + ' '; };
    {
        fd::MonitorImpl monitor(pipe.ReadFD(), POLLIN);
        monitor.Associate(one);
        unsigned long const id = monitor.insert(reader());
        look();
        monitor.Associate(two);
        look();
        monitor.remove(id + 1); // a wrong id stops the watching, and keeps the handler
        EXPECT_EQ(0u, monitor.insert(reader())) << "there is room for one";
        look();
        monitor.remove(id);
        monitor.insert(reader());
        look();
    }
    look();
    EXPECT_EQ(1, two.use_count());

    // Of two on one descriptor the later one counts, and either takes the entry with it.
    fd::MonitorImpl first(pipe.ReadFD(), POLLIN);
    fd::MonitorImpl second(pipe.ReadFD(), POLLIN);
    first.Associate(one);
    second.Associate(one);
    unsigned long const id = first.insert(reader());
    second.insert(reader());
    one->dispatch(pollfd{pipe.ReadFD(), POLLIN, POLLHUP});
    EXPECT_EQ(&second, context);
    EXPECT_EQ(0, second.expired()) << "no error";
    look();
    first.remove(id);
    look();
    EXPECT_EQ("10 01 00 01 00 10 00 ", entered);
}

TEST_F(Fd, events_are_asked_for_from_the_next_rebuild_on) {
    boost::shared_ptr<fd::Monitor> const monitor = orn::zel::Fd(pipe.WriteFD());
    EXPECT_EQ(POLLIN, monitor->events());
    monitor->insert(reader());
    settle();
    monitor->events(POLLOUT);
    EXPECT_EQ(0, RunOnce(0));
    thread::FdMgr()->bump();
    settle();
    EXPECT_EQ(POLLOUT, last);
}

TEST_F(Fd, a_descriptor_in_error_is_told_once_and_a_hang_up_until_it_is_removed) {
    auto broken = std::make_unique<orn::os::Pipe>(false);
    fd::AutoReceptor const invalid(broken->ReadFD(), reader());
    settle();
    broken.reset(); // closed under its registration
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(POLLNVAL, last);
    last = 0;
    settle();
    EXPECT_EQ(0, RunOnce(0)) << "a set that keeps it would spin";
    EXPECT_EQ(0, last);

    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK | O_CLOEXEC));
    {
        fd::AutoReceptor const hung(ends[0], reader());
        close(ends[1]);
        settle();
        last = 0;
        EXPECT_EQ(1, RunOnce(0));
        EXPECT_EQ(POLLHUP, last);
    }
    close(ends[0]);
    settle();
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(Fd, many_idle_descriptors_change_no_result) {
    // From some number of descriptors on the loop asks before it waits. Neither is to be seen from outside.
    WatchedPipe pipes[40];
    settle();
    orn::os::Pipe observer(false);
    thread::MonitorPoll("", observer.WriteFD());
    for (std::size_t round = 0; round < 20; ++round) {
        pipes[round * 7 % 40].feed();
        pipes[(round * 7 + 3) % 40].feed();
        EXPECT_EQ(2, RunOnce(round % 2 ? -1 : 1000));
        std::string const lines = take(observer.ReadFD());
        EXPECT_EQ(lines.find("poll in"), lines.rfind("poll in"));
        EXPECT_EQ(lines.find("poll out"), lines.rfind("poll out"));
    }
    for (WatchedPipe const& each : pipes)
        seen += each.seen;
    EXPECT_EQ(40u, seen.size());
    // A wait that finds nothing lasts its whole time.
    long const begin = milliseconds();
    EXPECT_EQ(0, RunOnce(30));
    EXPECT_GE(milliseconds() - begin, 29);
}

TEST_F(Fd, every_descriptor_of_the_library_is_close_on_exec) {
    std::set<int> const before = descriptors();
    SetAlarm(1000000, [] {});
    signal::AutoReceptor const signals(SIGUSR1, [](int) {});
    RunOnce(0);
    int found = 0;
    for (int const fd : descriptors()) {
        if (before.count(fd))
            continue;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
        bool const is_pipe = lseek(fd, 0, SEEK_CUR) == -1; // and not an epoll set or the timers' clock
        found += is_pipe;
        EXPECT_EQ(is_pipe, (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0) << fd;
    }
    EXPECT_EQ(6, found) << "three pipes: the group's, the alarms', the signals'";
}

TEST_F(Fd, lack_of_descriptors_is_thrown_and_the_loop_goes_on) {
    fd::AutoReceptor const receptor(pipe.ReadFD(), reader());
    settle();
    {
        Fault const none_left(Call::pipe2, EMFILE);
        EXPECT_THROW(SetAlarm(1, [] {}), std::system_error);
        EXPECT_THROW(Signal(SIGUSR1), std::system_error);
        EXPECT_THROW(RunTask(complete), std::system_error);
        unsigned long const group = GroupId();
        EXPECT_THROW(NewThreadGroup(), std::system_error);
        EXPECT_EQ(group, GroupId());
        EXPECT_TRUE(signal::is_default(SIGUSR1));
    }
    put(pipe.WriteFD(), "on");
    settle();
    EXPECT_EQ("on", seen);
    SetAlarm(0, [] {});
    EXPECT_TRUE(run_until([] { return OutstandingAlarmCount() == 0; }));
}

TEST_F(Fd, prints_events_and_lists_descriptors) {
    std::ostringstream text;
    text << std::hex << std::showbase << fd::Events(63) << fd::Events(0x40) << fd::Events(-32768);
    EXPECT_EQ("{63:IN,PRI,OUT,ERR,HUP,NVAL}{64:}{-32768:}", text.str());

    orn::os::Pipe answer(false);
    fd::AutoReceptor const one(pipe.ReadFD(), reader());
    fd::AutoReceptor const two(answer.ReadFD(), reader());
    thread::FdMgr(1);                 // a record with no group: not listed
    std::map<int, std::string> lists; // by thread
    auto const list = [&](std::string const& descriptors) {
        lists[thread::self()] = "[" + std::to_string(thread::FdMgr()->id().value()) +
                                "] thread=" + std::to_string(thread::self()) +
                                " group=" + std::to_string(GroupId()) + " fds={ " + descriptors + "}\n";
    };
    list(std::to_string(pipe.ReadFD()) + " " + std::to_string(answer.ReadFD()) + " ");
    Member const member([&] {
        fd::AutoReceptor const mine(0, [](fd::Event*) {});
        list("0 ");
        fd::ListFds("ignored", answer.WriteFD());
    });
    ASSERT_TRUE(wait_until([&] { return member.ended(); }));
    std::string expected = "FdMgrs:\n";
    for (auto const& item : lists)
        expected += item.second;
    EXPECT_EQ(expected, take(answer.ReadFD()));
}

} // namespace
