// SPDX-License-Identifier: MIT
//
// Children of fork() that execute nothing: their signals, their end, and the daemons among them.
#include <future>

#include <sys/prctl.h>

#include <orn/zel.hpp>

#include "support/Programs.hpp"

namespace {

using orn::zel::RunOnce;
using support::Client;
using support::in_child;

std::atomic<int> handled(0);

void watch(int signo, std::atomic<int>& seen) {
    static_cast<void>(orn::zel::Signal(signo)->insert([&seen](int) { ++seen; }));
}

void settle() {
    while (RunOnce(0) > 0) {
    }
}

TEST(Fork, a_child_gets_back_what_was_there_before_its_parent_watched_a_signal) {
    signal(SIGUSR1, SIG_IGN);
    signal(SIGUSR2, [](int) { ++handled; });
    std::atomic<int> seen(0);
    for (int const signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD})
        watch(signo, seen);
    EXPECT_EQ("signal 15", in_child([] { return raise(SIGTERM); }));
    EXPECT_EQ("exit 2", in_child([] {
                  for (int const signo : {SIGUSR1, SIGUSR2, SIGUSR2, SIGCHLD, orn::zel::cmd::channel_signal})
                      raise(signo);
                  return handled.load();
              }));
    EXPECT_EQ("exit 3", in_child([] { // watches anew, and gives up again
                  settle();
                  watch(SIGTERM, handled);
                  watch(SIGUSR1, handled);
                  for (int const signo : {SIGTERM, SIGUSR1, SIGTERM})
                      raise(signo);
                  settle();
                  signal(SIGUSR2, SIG_IGN);
                  orn::zel::signal::zel_signal_unload();
                  for (int const signo : {SIGUSR1, SIGUSR2}) // the latter as the child has set it meanwhile
                      raise(signo);
                  return handled.load();
              }));
    settle();
    seen = 0; // of the children that ended
    raise(SIGTERM);
    settle();
    EXPECT_EQ(1, seen);
}

TEST(Fork, no_signal_to_a_child_is_told_to_its_parent_at_whatever_moment_it_comes) {
    int const signo = SIGRTMIN + 1;
    int const total = 2000;
    setpgid(0, 0);
    signal(signo, SIG_IGN);
    std::atomic<int> seen(0);
    watch(signo, seen);
    pid_t const sender = fork();
    if (sender == 0) {
        for (int i = 0; i < total; ++i) {
            kill(0, signo);
            poll(nullptr, 0, i % 8 == 0);
        }
        _exit(0);
    }
    while (waitpid(sender, nullptr, WNOHANG) == 0) {
        pid_t const child = fork();
        if (child == 0)
            _exit(0);
        waitpid(child, nullptr, 0);
        RunOnce(0);
    }
    settle();
    if (support::has_thread_sanitizer) // which itself merges signals that arrive outside of system calls
        EXPECT_GE(total, seen);
    else
        EXPECT_EQ(total, seen);
}

bool any_is_caught() {
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction now = {};
        if (signo != orn::zel::cmd::channel_signal && sigaction(signo, nullptr, &now) == 0 &&
            now.sa_handler == sig_handler)
            return true;
    }
    return false;
}

char const* const sanitizers_do_not =
    "a sanitizer's own locks and threads do not survive fork() beside other threads";

TEST(Fork, a_child_finds_no_signal_caught_while_another_thread_begins_and_ends_to_watch) {
    if (support::is_sanitized)
        GTEST_SKIP() << sanitizers_do_not;
    std::atomic<int> forks(0);
    std::thread forker([&] {
        for (; forks < 100; ++forks)
            EXPECT_EQ("exit 0", in_child([] { return any_is_caught(); }));
    });
    while (forks < 100) {
        orn::zel::signal::zel_signal_load();
        for (int signo = SIGRTMIN; signo < SIGRTMAX; ++signo)
            orn::zel::signal::sigHandler(signo);
        orn::zel::signal::zel_signal_unload();
    }
    forker.join();
}

TEST(Fork, a_child_that_exits_does_not_wait_for_threads_that_it_has_not_got) {
    orn::zel::SetAlarm(100000, [] {});
    boost::shared_ptr<orn::zel::fd::Manager> const manager = orn::zel::thread::FdMgr();
    std::promise<void> locked;
    std::promise<void> forked;
    std::thread inspector([&] {
        orn::zel::AutoLock const guard(manager->monitors());
        locked.set_value();
        forked.get_future().wait();
    });
    locked.get_future().wait();
    EXPECT_EQ("exit 7", in_child([]() -> int { exit(7); }));
    forked.set_value();
    inspector.join();
}

// A child that turns its loop, and ends when it is told to or when its parent ends.
pid_t daemon_that(std::function<void()> const& begins) {
    orn::os::Pipe const ready(true);
    pid_t const child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        begins();
        orn::zel::RegisterCommandModule("seen", [](std::string const&, int fd) {
            orn::zel::cmd::Write(fd, std::to_string(handled) + '\n');
        });
        orn::zel::RegisterCommandModule("exit",
                                        [](std::string const& n, int) { exit(std::atoi(n.c_str())); });
        support::put(ready.WriteFD(), "x");
        for (;;)
            RunOnce(-1);
    }
    EXPECT_TRUE(support::is_ready(ready.ReadFD(), POLLIN, 10000));
    return child;
}

// Its own id and words, one event that it has set up itself, and its exit.
void expect_daemon(pid_t child, int signo) {
    Client client(child);
    EXPECT_EQ("0", client.ask_one("seen"));
    for (std::string const& group : client.ask("inspect groups"))
        EXPECT_EQ(std::string::npos, group.find(":[" + std::to_string(getpid()) + ']')) << group;
    kill(child, signo);
    EXPECT_TRUE(support::wait_until([&] { return client.ask_one("seen") == "1"; }));
    client.send("exit 3");
    EXPECT_EQ("exit 3", support::end_of(child));
}

TEST(Fork, a_daemon_whose_first_act_is_to_watch_a_signal_is_steered_and_served) {
    expect_daemon(daemon_that([] {
                      watch(SIGTERM, handled);
                      poll(nullptr, 0, 0); // as in channel_target
                  }),
                  SIGTERM);
}

TEST(Fork, a_daemon_whose_first_act_is_to_open_its_channel_is_steered_and_served) {
    expect_daemon(daemon_that([] {
                      orn::zel::cmd::InstallCommandChannel();
                      watch(SIGTERM, handled);
                  }),
                  SIGTERM);
}

// The parent has a command thread, a client and everything else that a child does not get.
TEST(Fork, a_daemon_that_brings_the_library_up_anew_is_steered_under_its_own_id) {
    if (support::is_sanitized)
        GTEST_SKIP() << sanitizers_do_not;
    orn::zel::cmd::InstallCommandChannel();
    Client self(getpid());
    self.ask("zel monitor poll thread task alarm");
    orn::zel::Alarm const ticks(0, 1, [] {});
    RunOnce(-1);
    expect_daemon(daemon_that([] {
                      orn::zel::ZEL_unload__();
                      orn::zel::ZEL_load__();
                      static_cast<void>(orn::zel::Signal(SIGUSR1)->insert(
                          [](int) { orn::zel::SetAlarm(1, [] { ++handled; }); }));
                  }),
                  SIGUSR1);
    EXPECT_EQ("1/1 seen", Client(getpid()).ask_one("seen"));
}

} // namespace
