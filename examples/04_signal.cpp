// SPDX-License-Identifier: MIT
//
// Signals as events: each arrival is one call on the loop, where a handler may do anything.
#include <cstdio>

#include <unistd.h>

#include <orn/zel.hpp>

int main() {
    int reloads = 0;
    orn::zel::signal::AutoReceptor hangup(SIGHUP, [&reloads](int) {
        std::printf("reload %d\n", ++reloads); // not in signal context, so printf() is allowed
    });
    for (int i = 0; i < 3; ++i)
        kill(getpid(), SIGHUP);
    std::puts("three have arrived, and wait for the loop");
    while (reloads < 3)
        orn::zel::RunOnce(-1); // -1 with EINTR when a signal ends the wait: the next turn delivers it

    // [use]
    bool stop = false;
    orn::zel::signal::AutoReceptor terminate(SIGTERM, [&stop](int) { stop = true; });
    orn::zel::SetAlarm(10, [] { kill(getpid(), SIGTERM); });
    while (!stop)
        orn::zel::RunOnce(-1);
    // [/use]
    std::puts("terminated");

    try {
        orn::zel::Signal(SIGKILL);
    } catch (orn::zel::Exception const& error) {
        std::printf("refused: %s\n", error.what());
    }
    return 0;
}
