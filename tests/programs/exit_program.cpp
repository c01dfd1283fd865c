// SPDX-License-Identifier: MIT
//
// A busy process that exits with 7, from where its first argument says, after as many microseconds as its
// second one: threads sit in loops and in the middle of dispatches, alarms fire, tasks run, signals arrive.
// Or a process in which there is nothing but
//
//     steered    a thread that has never run a loop, and steers the tasks of another one
//     loading    a thread that loads and unloads a library that needs zel, and forks
//     outlived   a member of the main thread's group, which serves what that has left behind
//     unloaded   a thread in its loop, with the library taken down explicitly before
//     awaited    a command and a timer's callback, both waiting for the thread that exits
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <orn/os/Timer.hpp>
#include <orn/zel.hpp>

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer's own constructor in the library is run again, too, and takes the globals for others of the
// same names.
extern "C" ORN_API char const* __asan_default_options() {
    return "detect_odr_violation=0";
}
#endif

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
    Alarm const ticks(1, 1, [&] {
        alarm.reset(new Alarm(0, [] { SetAlarm(0, [] {}); }));
        Task([](task::Controller*) {}).Run(); // and cancelled at once
    });
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

std::atomic<task::Controller*> steered[2];

void* steer(void*) {
    for (;;) {
        steered[0].load()->Sleep();
        steered[1].load()->Complete();
    }
}

// The loader runs the constructors of what it needs anew, once exit() has run the destructors.
void* load(void*) {
    for (;;) {
        void* const library = dlopen(QUIET_MODULE, RTLD_NOW);
        pid_t const child = fork();
        if (child == 0)
            _exit(0);
        waitpid(child, nullptr, 0);
        if (library)
            dlclose(library);
    }
}

void wait_for_the_end(std::atomic<bool>& begun) {
    begun = true;
    for (;;)
        pause();
}

// Returns once both have begun to wait.
void be_awaited() {
    static std::atomic<bool> command(false);
    static std::atomic<bool> callback(false);
    RegisterCommandModule("wait", [](std::string const&, int) { wait_for_the_end(command); });
    cmd::InstallCommandChannel();
    Connect(getpid(), [](std::string const&) {}).Command("wait");
    (new orn::os::Timer([](orn::os::Timer*) { wait_for_the_end(callback); }))->Set(0, 0);
    while (!command || !callback)
        RunOnce(1);
}

// Tasks are refused from then on, whatever threads live.
void unload() {
    start(pthread_create, [](void*) -> void* {
        for (;;)
            RunOnce(1);
    });
    ZEL_unload__();
    try {
        RunTask([](task::Controller*) {});
        abort();
    } catch (orn::zel::Exception const& refused) {
        if (std::string(refused.what()) != "managerMap not initizalized")
            abort();
    }
}

// Whether there is such a place.
bool prepare_alone() {
    if (where == "steered") {
        for (std::atomic<task::Controller*>& controller : steered)
            RunTask([&](task::Controller* own) { controller = own; });
        while (!steered[0] || !steered[1])
            RunOnce(-1);
        start(pthread_create, steer);
    } else if (where == "loading") {
        start(pthread_create, load);
    } else if (where == "outlived") {
        SetAlarm(20, [] { exit(7); });
        start(o_pthread_create, [](void*) -> void* {
            for (;;)
                RunOnce(-1);
        });
        pthread_exit(nullptr);
    } else if (where == "unloaded") {
        unload();
    } else if (where == "awaited") {
        be_awaited();
    } else {
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    where = argv[1];
    timespec const delay = {0, 1000 * atol(argv[2])};
    if (prepare_alone()) {
        nanosleep(&delay, nullptr);
        exit(7);
    }
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN; // what comes back at the end, while signals still arrive
    sigaction(SIGUSR1, &ignored, nullptr);

    start(o_pthread_create, member);
    start(o_pthread_create, loop);
    start(o_pthread_create, loop);
    start(pthread_create, send);
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
