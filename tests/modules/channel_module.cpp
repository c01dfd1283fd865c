// SPDX-License-Identifier: MIT
//
// A library that uses the command channel of its own process, for a host that knows nothing of zel: when it
// has been loaded the channel is installed, a client connected and every monitor on. All of that is left to
// the unloading.
#include <memory>
#include <string>

#include <unistd.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

struct User {
    User() {
        cmd::InstallCommandChannel();
        bool answered = false;
        client.reset(new cmd::Channel(
            Connect(getpid(), [&](std::string const& line) { answered = answered || line == "1/1 foo"; })));
        client->Command("zel monitor poll thread task alarm");
        client->Command("foo");
        ticks.reset(new Alarm(0, 10, [] {}));
        while (!answered)
            RunOnce(-1);
        RunTask([](task::Controller* task) { task->Sleep(); });
    }

    std::unique_ptr<cmd::Channel> client;
    std::unique_ptr<Alarm> ticks;
} user;

} // namespace

// For a thread of the host's.
extern "C" ORN_API void run_a_task() {
    bool done = false;
    RunTask([&](task::Controller* task) {
        task->Complete();
        done = true;
    });
    while (!done)
        RunOnce(-1);
}
