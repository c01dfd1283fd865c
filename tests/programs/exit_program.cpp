// SPDX-License-Identifier: MIT
//
// A busy process that exits with 7, from where its first argument says, after as many microseconds as its
// second one: threads sit in loops and in the middle of dispatches, alarms fire, tasks run, signals arrive.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <orn/os/Timer.hpp>
#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

std::string where;

void* member(void*) {
    orn::os::Pipe own(false);
    if (write(own.WriteFD(), "x", 1) != 1)
        abort();
    fd::AutoReceptor const busy(own.ReadFD(), [](fd::Event*) {}); // ready for ever
    signal::AutoReceptor const arrivals(SIGUSR1, [](int) {});
    std::unique_ptr<Alarm> alarm;
    Alarm const ticks(1, 1, [&] { alarm.reset(new Alarm(0, [] { SetAlarm(0, [] {}); })); });
    RunTask([](task::Controller*) {}, [] {}); // a slice in each turn, for ever
    for (;;)
        RunOnce(-1);
}

void* loop(void* argument) {
    NewThreadGroup();
    return member(argument);
}

void* send(void*) {
    for (;;) {
        syscall(SYS_kill, getpid(), SIGUSR1);
        poll(nullptr, 0, 0);
    }
}

void start(int (*create)(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*), void* (*body)(void*)) {
    pthread_t thread;
    if (create(&thread, nullptr, body, nullptr) != 0)
        abort();
    pthread_detach(thread);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    where = argv[1];
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN; // what comes back at the end, while signals still arrive
    sigaction(SIGUSR1, &ignored, nullptr);

    start(o_pthread_create, member);
    start(o_pthread_create, loop);
    start(o_pthread_create, loop);
    start(pthread_create, send);
    timespec const delay = {0, 1000 * atol(argv[2])};
    nanosleep(&delay, nullptr);

    if (where == "main")
        exit(7);
    if (where == "thread") {
        start(o_pthread_create, [](void*) -> void* { exit(7); });
        for (;;)
            RunOnce(-1);
    }
    std::unique_ptr<orn::os::Timer> timer;
    orn::os::Pipe pipe(false);
    std::unique_ptr<fd::AutoReceptor> receptor;
    std::unique_ptr<signal::AutoReceptor> arrivals;
    if (where == "handler") {
        receptor.reset(new fd::AutoReceptor(pipe.ReadFD(), [](fd::Event*) { exit(7); }));
        if (write(pipe.WriteFD(), "x", 1) != 1)
            abort();
    } else if (where == "alarm") {
        SetAlarm(0, [] { exit(7); });
    } else if (where == "signal") {
        arrivals.reset(new signal::AutoReceptor(SIGUSR1, [](int) { exit(7); }));
    } else if (where == "timer") {
        timer.reset(new orn::os::Timer([](orn::os::Timer*) { exit(7); }));
        timer->Set(0, 0);
    } else {
        return 2;
    }
    for (;;)
        RunOnce(-1);
}
