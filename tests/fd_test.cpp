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
        };
    }

    std::string seen;
    short last = 0;
    orn::os::Pipe pipe{false};
};

TEST_F(Fd, a_monitor_takes_one_handler_and_refuses_the_rest) {
    fd::MonitorImpl lone(5, POLLIN);
    unsigned long const id = lone.insert([](fd::Event*) {});
    EXPECT_NE(0u, id);
    EXPECT_EQ(0u, lone.insert([](fd::Event*) {}));
    EXPECT_EQ(1u, lone.count());
    EXPECT_EQ(1u, lone.capacity());
    fd::MonitorImpl none;
    EXPECT_EQ("invalid FD (-1)", refusal([&] { none.insert([](fd::Event*) {}); }));
    EXPECT_EQ(0u, none.count());
    EXPECT_NE(0u, fd::MonitorImpl(-2, POLLIN).insert([](fd::Event*) {}));
    EXPECT_THROW(fd::AutoReceptor(-1, reader()), orn::zel::Exception);
    EXPECT_EQ(0u, thread::FdMgr()->size());
}

TEST_F(Fd, a_monitor_is_entered_while_it_has_a_handler_and_a_manager) {
    boost::shared_ptr<fd::Manager> const one(new fd::Manager);
    boost::shared_ptr<fd::Manager> const two(new fd::Manager);
    {
        fd::MonitorImpl monitor(pipe.ReadFD(), POLLIN);
        monitor.Associate(one);
        EXPECT_EQ(0u, one->size());
        unsigned long id = monitor.insert(reader());
        EXPECT_EQ(1u, one->size());
        monitor.Associate(two);
        EXPECT_EQ(0u, one->size());
        EXPECT_EQ(1u, two->size());
        monitor.remove(id);
        EXPECT_EQ(0u, monitor.count());
        EXPECT_EQ(0u, two->size());
        id = monitor.insert(reader());
        monitor.remove(id + 1); // a wrong id stops the watching, and keeps the handler
        EXPECT_EQ(1u, monitor.count());
        EXPECT_EQ(0u, two->size());
        EXPECT_EQ(0u, monitor.insert(reader()));
        EXPECT_EQ(0u, two->size());
        monitor.remove(id);
        monitor.insert(reader());
        EXPECT_EQ(1u, two->size());
    }
    EXPECT_EQ(0u, two->size());
    EXPECT_EQ(1, two.use_count());

    // Of two on one descriptor the later one counts, and either takes the entry with it.
    fd::MonitorImpl first(pipe.ReadFD(), POLLIN);
    fd::MonitorImpl second(pipe.ReadFD(), POLLIN);
    first.Associate(one);
    second.Associate(one);
    unsigned long const id = first.insert(reader());
    second.insert(reader());
    EXPECT_EQ(1u, one->size());
    first.remove(id);
    EXPECT_EQ(0u, one->size());
}

TEST_F(Fd, a_manager_delivers_and_expires_on_errors_only) {
    boost::shared_ptr<fd::Manager> const manager(new fd::Manager);
    fd::MonitorImpl monitor(pipe.ReadFD(), POLLIN);
    monitor.Associate(manager);
    fd::Monitor* context = nullptr;
    monitor.insert([&](fd::Event* event) {
        context = event->context();
        last = event->revents();
    });
    manager->dispatch(pollfd{pipe.WriteFD(), POLLIN, POLLIN});
    EXPECT_EQ(nullptr, context) << "not its descriptor";
    manager->dispatch(pollfd{pipe.ReadFD(), POLLIN, POLLHUP});
    EXPECT_EQ(&monitor, context);
    EXPECT_EQ(0, monitor.expired());
    manager->dispatch(pollfd{pipe.ReadFD(), POLLIN, POLLNVAL | POLLIN});
    EXPECT_EQ(POLLNVAL | POLLIN, last);
    EXPECT_EQ(POLLNVAL, monitor.expired());
}

TEST_F(Fd, events_are_asked_for_from_the_next_rebuild_on) {
    boost::shared_ptr<fd::Monitor> const monitor = orn::zel::Fd(pipe.WriteFD());
    EXPECT_EQ(POLLIN, monitor->events());
    EXPECT_EQ(0u, monitor->count());
    EXPECT_EQ(0u, thread::FdMgr()->size());
    int calls = 0;
    monitor->insert([&](fd::Event* event) {
        ++calls;
        EXPECT_EQ(POLLOUT, event->revents());
    });
    settle();
    monitor->events(POLLOUT);
    EXPECT_EQ(0, RunOnce(0));
    thread::FdMgr()->bump();
    settle();
    EXPECT_LT(0, calls);
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
        for (int turn = 0; turn < 3; ++turn) {
            last = 0;
            EXPECT_EQ(1, RunOnce(0));
            EXPECT_EQ(POLLHUP, last);
        }
    }
    close(ends[0]);
    settle();
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(Fd, a_foreign_thread_may_withdraw_and_the_loop_neither_calls_nor_spins) {
    auto receptor = std::make_unique<fd::AutoReceptor>(pipe.ReadFD(), reader());
    settle();
    {
        Member const foreign([&] {
            NewThreadGroup(); // so that its group, and not this one, is told
            receptor.reset();
        });
    }
    put(pipe.WriteFD(), "x");
    settle();
    EXPECT_EQ(0, RunOnce(0));
    EXPECT_EQ("", seen);
}

TEST_F(Fd, many_idle_descriptors_change_no_result) {
    // From some number of descriptors on the loop asks before it waits. Neither is to be seen from outside.
    std::vector<std::unique_ptr<WatchedPipe>> pipes(40);
    for (auto& idle : pipes)
        idle.reset(new WatchedPipe);
    settle();
    orn::os::Pipe observer(false);
    for (std::size_t round = 0; round < 20; ++round) {
        pipes[round * 7 % 40]->feed();
        pipes[(round * 7 + 3) % 40]->feed();
        thread::MonitorPoll("", observer.WriteFD());
        EXPECT_EQ(2, RunOnce(round % 2 ? -1 : 1000));
        thread::UnmonitorPoll("", -1);
        std::string const lines = take(observer.ReadFD());
        EXPECT_EQ(lines.find("poll in"), lines.rfind("poll in"));
        EXPECT_EQ(lines.find("poll out"), lines.rfind("poll out"));
        EXPECT_EQ(0, RunOnce(static_cast<long>(round) % 3));
    }
    int total = 0;
    for (auto const& busy : pipes)
        total += busy->calls;
    EXPECT_EQ(40, total);
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
        bool const is_pipe = lseek(fd, 0, SEEK_CUR) == -1; // and not an epoll set
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
    bool fired = false;
    SetAlarm(0, [&] { fired = true; });
    EXPECT_TRUE(run_until([&] { return fired; }));
    EXPECT_EQ(0u, OutstandingAlarmCount());
}

TEST_F(Fd, prints_events_and_lists_descriptors) {
    std::ostringstream text;
    text << std::hex << std::showbase << fd::Events(25) << fd::Events(0) << fd::Events(0x21) << fd::Events(4)
         << fd::Events(0x40) << fd::Events(2) << fd::Events(-32768);
    EXPECT_EQ("{25:IN,ERR,HUP}{0:}{33:IN,NVAL}{4:OUT}{64:}{2:PRI}{-32768:}", text.str());

    orn::os::Pipe answer(false);
    fd::AutoReceptor const one(pipe.ReadFD(), reader());
    fd::AutoReceptor const two(answer.ReadFD(), reader());
    std::string expected = "FdMgrs:\n";
    Count listed;
    Member const member([&] {
        fd::AutoReceptor const mine(0, [](fd::Event*) {});
        EXPECT_TRUE(listed.reaches(1));
    });
    thread::FdMgr(1); // a record with no group: not listed
    ASSERT_TRUE(wait_until([&] { return thread::FdMgr(member.tid())->size() == 1; }));
    std::map<int, std::string> const lists = {
        {thread::self(), std::to_string(pipe.ReadFD()) + " " + std::to_string(answer.ReadFD()) + " "},
        {member.tid(), "0 "}};
    for (auto const& item : lists) {
        expected += "[" + std::to_string(thread::FdMgr(item.first)->id().value()) +
                    "] thread=" + std::to_string(item.first) + " group=" + std::to_string(GroupId()) +
                    " fds={ " + item.second + "}\n";
    }
    fd::ListFds("ignored", answer.WriteFD());
    EXPECT_EQ(expected, take(answer.ReadFD()));
    listed.up();
}

} // namespace
