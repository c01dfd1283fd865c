// SPDX-License-Identifier: MIT
//
// A module that uses every subsystem while it is unloaded, and writes what came of it to the file in
// ORDER_LOG.
#include <cstdlib>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

struct Presence {
    Presence() {
        RegisterCommandModule("mine", [](std::string const&, int fd) { cmd::Write(fd, "mine\n"); });
    }
    ~Presence() {
        int const fd = open(std::getenv("ORDER_LOG"), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        cmd::ProcessCommand("mine", fd);
        cmd::ProcessCommand("zel x", fd);
        UnregisterCommandModule("mine");
        int calls = 0;
        signal::AutoReceptor const arrivals(SIGUSR1, [&](int) { ++calls; });
        SetAlarm(0, [&] { ++calls; });
        RunTask([&](task::Controller* task) {
            ++calls;
            task->Complete();
        });
        raise(SIGUSR1);
        while (calls < 3)
            RunOnce(-1);
        cmd::Write(fd, "all used\n");
        close(fd);
    }
} presence;

} // namespace
