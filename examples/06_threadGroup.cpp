// SPDX-License-Identifier: MIT
//
// Two threads in one group. The loop that the first thread runs serves what the second one registers, so
// handlers never run side by side and need no locks among themselves.
#include <atomic>
#include <cstdio>
#include <future>

#include <unistd.h>

#include <orn/os/Pipe.hpp>
#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

int main() {
    int const loop_thread = orn::zel::thread::self();
    orn::os::Pipe pipe(false);
    bool on_loop = false;
    // [use]
    std::promise<bool> handled;
    std::atomic<bool> done(false);
    orn::os::Thread const second([&] { // joins the group of the thread that makes it
        orn::zel::fd::AutoReceptor receptor(pipe.ReadFD(), [&](orn::zel::fd::Event* event) {
            char c;
            if (read(event->fd(), &c, 1) == 1)
                handled.set_value(orn::zel::thread::self() == loop_thread);
        });
        if (write(pipe.WriteFD(), "x", 1) == 1)
            on_loop = handled.get_future().get();
        done = true;
        orn::zel::Exit(); // ends the wait of the first thread, which then sees the flag
    });
    while (!done)
        orn::zel::RunOnce(-1);
    // [/use]
    std::printf("registered by the second thread, called on %s\n", on_loop ? "the first" : "another");
    return on_loop ? 0 : 1;
}
