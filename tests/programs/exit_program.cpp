// SPDX-License-Identifier: MIT
//
// exit_program PLACE MICROSECONDS: a process that exits with 7 after that time. It is busy, with threads in
// loops and in the middle of dispatches, alarms, tasks and signals, and exits from
//
//     main, thread, handler, alarm, signal, timer
//
// or there is nothing in it but
//
//     steered    a thread that has never run a loop, and steers the tasks of another one
//     loading    a thread that loads and unloads a library that needs zel, and forks
//     forking    threads that fork, and find every child as it should be
//     outlived   a member of the main thread's group, which serves what that has left behind
//     unloaded   a thread in its loop, with the library taken down explicitly before
//     awaited    a command and a timer's callback, both waiting for the thread that exits, which has
//                been cancelled
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

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

// So are those of the C++ library, which forget what the first run has allocated.
static bool constructed_again = false;
extern "C" ORN_API int __lsan_is_turned_off() {
    return constructed_again;
}
#endif

namespace {

using namespace orn::zel;

void exit_here() {
    exit(7);
}

[[noreturn]] void turn() {
    for (;;)
        RunOnce(-1);
}

void start(void* (*body)(void*)) {
    pthread_t thread;
    if (o_pthread_create(&thread, nullptr, body, nullptr) != 0)
        abort();
    pthread_detach(thread);
}

// ---- The busy process -----------------------------------------------------------------------------------

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
    turn();
}

void* loop(void*) {
    NewThreadGroup();
    return member(nullptr);
}

void be_busy() {
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN; // what comes back at the end, while signals still arrive
    sigaction(SIGUSR1, &ignored, nullptr);
    start(member);
    start(loop);
    start(loop);
    std::thread([] {
        for (;;) {
            syscall(SYS_kill, getpid(), SIGUSR1);
            poll(nullptr, 0, 0);
        }
    }).detach();
}

std::map<std::string, void (*)()> const places = {
    {"main", exit_here},
    {"thread", [] { start([](void*) -> void* { exit(7); }); }},
    {"handler",
     [] {
         orn::os::Pipe const pipe(false);
         fd::AutoReceptor const receptor(pipe.ReadFD(), [](fd::Event*) { exit(7); });
         if (write(pipe.WriteFD(), "x", 1) != 1)
             abort();
         turn();
     }},
    {"alarm", [] { SetAlarm(0, exit_here); }},
    {"signal",
     [] {
         signal::AutoReceptor const arrivals(SIGUSR1, [](int) { exit(7); });
         turn();
     }},
    {"timer",
     [] {
         static orn::os::Timer timer([](orn::os::Timer*) { exit(7); }); // destroyed in its own callback
         timer.Set(0, 0);
         turn();
     }},
};

// ---- Those with nothing but one thing in them -----------------------------------------------------------

std::atomic<task::Controller*> steered[2];

void be_steered() {
    for (std::atomic<task::Controller*>& controller : steered)
        RunTask([&](task::Controller* own) { controller = own; });
    while (!steered[0] || !steered[1])
        RunOnce(-1);
    std::thread([] {
        for (;;) {
            steered[0].load()->Sleep();
            steered[1].load()->Complete();
        }
    }).detach();
}

// ThreadSanitizer has fork handlers of its own, which go while exit() runs. A fork that is under way then
// keeps the sanitizer's locks for ever, and every other thread waits for them.
#if defined(__SANITIZE_THREAD__)
bool const may_fork_in_exit = false;
#else
bool const may_fork_in_exit = true;
#endif

// The loader runs the constructors of what it needs anew, once exit() has run the destructors.
void load() {
#if defined(__SANITIZE_ADDRESS__)
    constructed_again = true;
#endif
    std::thread([] {
        for (;;) {
            void* const library = dlopen(QUIET_MODULE, RTLD_NOW);
            pid_t const child = may_fork_in_exit ? fork() : -1;
            if (child == 0)
                _exit(0);
            if (child > 0)
                waitpid(child, nullptr, 0);
            if (library)
                dlclose(library);
        }
    }).detach();
}

// The program has no fork handlers of its own: two that go at the end are enough to have glibc 2.36 abort it.
void be_forking() {
    for (int i = 0; i < 4; ++i) {
        std::thread([] {
            for (;;) {
                pid_t const child = fork();
                sigset_t mask;
                if (child == 0)
                    _exit(pthread_sigmask(SIG_SETMASK, nullptr, &mask) != 0 || sigismember(&mask, SIGUSR1));
                int status = 0;
                if (waitpid(child, &status, 0) == child && status != 0)
                    abort();
            }
        }).detach();
    }
}

void be_outlived() {
    SetAlarm(20, exit_here);
    start([](void*) -> void* { turn(); });
    pthread_exit(nullptr);
}

void unload() {
    std::thread([] {
        for (;;)
            RunOnce(1);
    }).detach();
    ZEL_unload__();
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
    pthread_cancel(pthread_self()); // it must not be unwound out of exit()
    exit(7);
}

std::map<std::string, void (*)()> const alone = {{"steered", be_steered}, {"loading", load},
                                                 {"forking", be_forking}, {"outlived", be_outlived},
                                                 {"unloaded", unload},    {"awaited", be_awaited}};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    timespec const delay = {0, 1000 * atol(argv[2])};
    auto const found = alone.find(argv[1]);
    found != alone.end() ? found->second() : be_busy();
    nanosleep(&delay, nullptr);
    if (found != alone.end())
        exit(7);
    places.at(argv[1])();
    turn();
}
