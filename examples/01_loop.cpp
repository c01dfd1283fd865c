// SPDX-License-Identifier: MIT
//
// One loop serves three kinds of events: an alarm, a signal and a descriptor.
// [program]
#include <cstdio>
#include <unistd.h>

#include <orn/zel.hpp>

int main() {
    bool done = false;
    orn::zel::Alarm ticks(1000, 1000, [] { std::puts("a second has passed"); });
    orn::zel::signal::AutoReceptor interrupt(SIGINT, [&done](int) { done = true; });
    orn::zel::fd::AutoReceptor input(STDIN_FILENO, [&done](orn::zel::fd::Event* event) {
        char text[256];
        ssize_t const length = read(event->fd(), text, sizeof text);
        std::printf("%d bytes of input\n", static_cast<int>(length));
        done = length <= 0;
    });
    while (!done)
        orn::zel::RunOnce(-1);
    return 0;
}
// [/program]
