// SPDX-License-Identifier: MIT
//
// A process that forks and does not execute anything.
//
//     signal   children send themselves signals that the parent watches; prints what became of each child,
//              and how often the parent saw a signal
//     group    signals reach the whole process group while the parent forks; prints how many the parent saw
//              too many or too few
//     threads  one thread forks while another begins and ends to watch signals; prints how many children
//              found one that is still caught
//     fresh    a child of a process with a single thread leaves the session, watches a signal before it does
//              anything else, and prints its process id
//     daemon   a child leaves the session, brings the library up anew and prints its process id
//     exit     a child calls exit(), made when another thread was in the middle of the library; prints what
//              became of it
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

int handled = 0;

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

void in_child(std::function<void()> const& body) {
    pid_t const child = fork();
    if (child == 0) {
        body();
        _exit(handled);
    }
    int const status = wait_for(child);
    std::printf(WIFSIGNALED(status) ? "signal %d\n" : "exit %d\n",
                WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    std::fflush(stdout);
}

void watch(int signo, int& seen) {
    static_cast<void>(Signal(signo)->insert([&seen](int) { ++seen; }));
}

int signal_in_child() {
    ::signal(SIGUSR1, SIG_IGN);
    ::signal(SIGUSR2, [](int) { ++handled; });
    int seen = 0;
    for (int const signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD})
        watch(signo, seen);
    in_child([] { raise(SIGTERM); }); // its default
    in_child([] {                     // what was there before they were watched
        for (int const signo : {SIGUSR1, SIGUSR2, SIGUSR2, SIGCHLD, 55})
            raise(signo);
    });
    in_child([] { // watches anew, and gives up again
        while (RunOnce(0) > 0) {
        }
        watch(SIGTERM, handled);
        watch(SIGUSR1, handled);
        for (int const signo : {SIGTERM, SIGUSR1, SIGTERM})
            raise(signo);
        while (RunOnce(0) > 0) {
        }
        ::signal(SIGUSR2, SIG_IGN);
        signal::zel_signal_unload();
        for (int const signo : {SIGUSR1, SIGUSR2}) // the latter as the child itself has set it meanwhile
            raise(signo);
    });
    while (RunOnce(0) > 0) {
    }
    seen = 0; // of the children that ended
    raise(SIGTERM);
    while (RunOnce(0) > 0) {
    }
    std::printf("%d\n", seen);
    return 0;
}

int signals_to_the_group() {
    int const signo = SIGRTMIN + 1;
    int const total = 2000;
    setpgid(0, 0);
    ::signal(signo, SIG_IGN);
    int seen = 0;
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
        wait_for(child);
        RunOnce(0);
    }
    while (RunOnce(0) > 0) {
    }
    std::printf("%d\n", seen - total);
    return 0;
}

bool any_is_caught() {
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction now = {};
        if (signo != 55 && sigaction(signo, nullptr, &now) == 0 && now.sa_handler == sig_handler)
            return true;
    }
    return false;
}

int children_of_another_thread() {
    std::atomic<int> forks(0);
    int caught = 0;
    std::thread forker([&] {
        for (; forks < 100; ++forks) {
            pid_t const child = fork();
            if (child == 0)
                _exit(any_is_caught());
            caught += wait_for(child) != 0;
        }
    });
    while (forks < 100) {
        signal::zel_signal_load();
        for (int signo = SIGRTMIN; signo < SIGRTMAX; ++signo)
            signal::sigHandler(signo);
        signal::zel_signal_unload();
    }
    forker.join();
    std::printf("%d\n", caught);
    std::fflush(stdout);
    _exit(0); // what the library had made of signals is gone
}

int fresh_child() {
    if (fork() != 0)
        for (;;) // until it is killed
            pause();
    setsid();
    std::atomic<int> ended(0);
    static_cast<void>(Signal(SIGTERM)->insert([&](int) { ++ended; }));
    poll(nullptr, 0, 0); // as in channel_target
    RegisterCommandModule("watched",
                          [&](std::string const&, int fd) { cmd::Write(fd, std::to_string(ended) + '\n'); });
    RegisterCommandModule("exit", [](std::string const& status, int) { exit(std::atoi(status.c_str())); });
    std::printf("%d\n", getpid());
    std::fflush(stdout);
    for (;;)
        RunOnce(-1);
}

int exiting_child() {
    SetAlarm(100000, [] {});
    boost::shared_ptr<fd::Manager> const manager = thread::FdMgr();
    std::promise<void> locked;
    std::thread inspector([&] {
        AutoLock const guard(manager->monitors());
        locked.set_value();
        for (;;)
            pause();
    });
    locked.get_future().wait();
    in_child([] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        exit(7);
    });
    _exit(0);
}

// The parent has a command thread, a client and everything else that a child does not get.
int daemon_child() {
    cmd::InstallCommandChannel();
    cmd::Channel self = Connect(getpid(), [](std::string const&) {});
    self.Command("zel monitor poll thread task alarm");
    Alarm const ticks(0, 1, [] {});
    RunOnce(-1);
    pid_t const child = fork();
    if (child != 0)
        for (;;) // until it is killed
            RunOnce(-1);
    setsid();
    ZEL_unload__();
    ZEL_load__();
    int alarms = 0;
    Alarm const own(1, 1, [&] { ++alarms; });
    RegisterCommandModule(
        "alarms", [&](std::string const&, int fd) { cmd::Write(fd, std::to_string(alarms > 0) + '\n'); });
    RegisterCommandModule("exit", [](std::string const& status, int) { exit(std::atoi(status.c_str())); });
    std::printf("%d\n", getpid());
    std::fflush(stdout);
    for (;;)
        RunOnce(-1);
}

} // namespace

int main(int argc, char** argv) {
    std::string const mode = argc > 1 ? argv[1] : "";
    if (mode == "signal")
        return signal_in_child();
    if (mode == "group")
        return signals_to_the_group();
    if (mode == "threads")
        return children_of_another_thread();
    if (mode == "exit")
        return exiting_child();
    return mode == "fresh" ? fresh_child() : daemon_child();
}
