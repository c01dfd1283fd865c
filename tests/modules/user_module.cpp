// SPDX-License-Identifier: MIT
//
// A library that uses zel, for a host that knows nothing of either. Loading it brings up everything that has
// a descriptor, a thread or the handler of a signal, and the command channel with a client and every monitor.
// All of that is left to the unloading. With ORDER_LOG set it then uses everything once more, and writes what
// came of that to this file.
#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

// Also for a thread of the host's.
extern "C" ORN_API void run_a_task() {
    bool done = false;
    orn::zel::RunTask([&](orn::zel::task::Controller* task) {
        task->Complete();
        done = true;
    });
    while (!done)
        orn::zel::RunOnce(-1);
}

namespace {

using namespace orn::zel;

struct User {
    User() {
        raise(SIGUSR1);
        std::promise<void> served; // the loop serves what a thread has set until that thread ends
        orn::os::Thread const member([&] {
            SetAlarm(0, [&] { served.set_value(); });
            served.get_future().wait();
            done = true;
            thread::ThisGroup()->WakeUp('x');
        });
        cmd::InstallCommandChannel();
        client.reset(new cmd::Channel(Connect(getpid(), [this](std::string const& line) {
            answered = answered || line == "1/1 foo";
            listed = listed || line.find("ZEL_PRELOAD") != std::string::npos;
        })));
        client->Command("zel monitor poll thread task alarm");
        client->Command("inspect process");
        client->Command("foo");
        while (!arrived || !ticked || !done || !answered)
            RunOnce(-1);
        RunTask([](task::Controller* task) { task->Sleep(); });
        SetAlarm(100000, [] {}); // still armed at the end
    }
    ~User() {
        char const* const log = std::getenv("ORDER_LOG");
        if (!log)
            return;
        int const fd = open(log, O_WRONLY | O_APPEND | O_CLOEXEC);
        cmd::ProcessCommand("zel x", fd);
        bool rung = false;
        SetAlarm(0, [&] { rung = true; });
        run_a_task();
        arrived = false;
        raise(SIGUSR1);
        while (!arrived || !rung)
            RunOnce(-1);
        cmd::Write(fd, listed ? "listed while others were loaded\n" : "all used\n");
        close(fd);
    }

    bool arrived = false;
    bool ticked = false;
    bool answered = false;
    bool listed = false;
    std::atomic<bool> done{false};
    signal::AutoReceptor arrivals{SIGUSR1, [this](int) { arrived = true; }};
    Alarm ticks{0, 10, [this] { ticked = true; }};
    std::unique_ptr<cmd::Channel> client;
} user;

} // namespace
