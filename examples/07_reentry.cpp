// SPDX-License-Identifier: MIT
//
// What a handler may do: end its own registration, and run the loop itself until something has come.
#include <cstdio>
#include <optional>

#include <unistd.h>

#include <orn/os/Pipe.hpp>
#include <orn/zel.hpp>

int main() {
    orn::os::Pipe pipe(false);
    std::optional<orn::zel::fd::AutoReceptor> first_only;
    first_only.emplace(pipe.ReadFD(), [&](orn::zel::fd::Event*) {
        first_only.reset(); // this handler itself lives on until it returns
        std::puts("an event; no more of these");
    });
    if (write(pipe.WriteFD(), "x", 1) != 1) {
        std::perror("write");
        return 1;
    }
    orn::zel::RunOnce(-1);
    // The pipe is still readable. What comes now is only the wake-up by which the loop learns of the change.
    while (orn::zel::RunOnce(0) > 0) {
    }

    bool done = false;
    orn::zel::SetAlarm(0, [&done] {
        std::puts("outer handler: waiting");
        bool answered = false;
        orn::zel::SetAlarm(1, [&answered] {
            std::puts("inner handler");
            answered = true;
        });
        while (!answered)
            orn::zel::RunOnce(-1); // nested: up to 99 levels
        std::puts("outer handler: going on");
        done = true;
    });
    while (!done)
        orn::zel::RunOnce(-1);
    return 0;
}
