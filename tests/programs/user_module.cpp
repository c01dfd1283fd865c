// SPDX-License-Identifier: MIT
//
// A library that uses zel, to be loaded by a host that knows nothing of either. Loading it brings up
// everything that needs a descriptor, a thread or a handler of a signal, and unloading it leaves all of that
// to zel.
#include <atomic>
#include <future>
#include <memory>

#include <signal.h>

#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

struct User {
    User()
        : arrivals(new signal::AutoReceptor(SIGUSR1, [this](int) { arrived = true; })),
          ticks(new Alarm(0, 1000, [this] { ticked = true; })) {
        raise(SIGUSR1);
        std::promise<void> served; // the loop serves what a thread has set until that thread ends
        orn::os::Thread const member([&] {
            SetAlarm(0, [&] { served.set_value(); });
            served.get_future().wait();
            done = true;
            thread::ThisGroup()->WakeUp('x');
        });
        while (!arrived || !ticked || !done)
            RunOnce(-1);
        SetAlarm(100000, [] {}); // still armed at the end
    }

    bool arrived = false;
    bool ticked = false;
    std::atomic<bool> done{false};
    std::unique_ptr<signal::AutoReceptor> arrivals;
    std::unique_ptr<Alarm> ticks;
} user;

} // namespace
