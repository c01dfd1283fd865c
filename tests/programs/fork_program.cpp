// SPDX-License-Identifier: MIT
//
// A process that forks and does not execute anything.
//
//     signal   a child sends itself a signal that the parent watches; prints how often the parent saw it
//     daemon   a child leaves the session, brings the library up anew and prints its process id
#include <cstdio>
#include <cstdlib>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

int signal_in_child() {
    int seen = 0;
    signal::AutoReceptor const watched(SIGUSR1, [&](int) { ++seen; });
    while (RunOnce(0) > 0) {
    }
    pid_t const child = fork();
    if (child == 0) {
        for (int i = 0; i < 100; ++i)
            raise(SIGUSR1);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    raise(SIGUSR1);
    while (RunOnce(0) > 0) {
    }
    std::printf("%d\n", seen);
    return 0;
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
    return argc > 1 && std::string(argv[1]) == "signal" ? signal_in_child() : daemon_child();
}
