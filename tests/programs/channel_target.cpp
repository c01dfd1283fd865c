// SPDX-License-Identifier: MIT
//
// A process that is steered from outside. It says "ready" once it may be signalled, and then turns its loop.
// Each of its arguments adds something:
//
//     busy             endless tasks, alarms and threads in loops
//     stuck            never turns its loop
//     left             its main thread ends
//     ignored-sigpipe  ignores SIGPIPE
//     secret           may not be traced by its own user
//     default-55       has given up the handler of the signal that opens the channel
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

std::atomic<unsigned long> slices(0);
std::size_t measured = 0; // the command thread's
std::atomic<int> quit(-1);

void answer(int fd, std::string const& text) {
    cmd::Write(fd, text + '\n');
}

void sigpipe(std::string const&, int fd) {
    struct sigaction now = {};
    sigaction(SIGPIPE, nullptr, &now);
    answer(fd, now.sa_handler == SIG_DFL ? "default" : now.sa_handler == SIG_IGN ? "ignored" : "caught");
}

// A line as long as is asked for, in pieces that the pipe takes.
void line(std::string const& length, int fd) {
    std::string const text = std::string(std::strtoul(length.c_str(), nullptr, 10), 'x') + '\n';
    for (std::size_t at = 0; at < text.size();) {
        ssize_t const written = write(fd, text.data() + at, std::min<std::size_t>(text.size() - at, 3000));
        if (written > 0) {
            at += static_cast<std::size_t>(written);
        } else {
            pollfd room = {fd, POLLOUT, 0};
            poll(&room, 1, 1000);
        }
    }
}

// As many lines as are asked for, in one piece.
void lines(std::string const& count, int fd) {
    std::string text;
    for (unsigned long i = std::strtoul(count.c_str(), nullptr, 10); i > 0; --i)
        text += "one of many lines, with number " + std::to_string(i) + '\n';
    cmd::Write(fd, text);
}

// The number of the descriptor given, or else of the one that answers go to, and which pipe it is.
void where(std::string const& given, int fd) {
    int const asked = given.empty() ? fd : std::atoi(given.c_str());
    struct stat status = {};
    fstat(asked, &status);
    answer(fd, std::to_string(asked) + ' ' + std::to_string(status.st_ino));
}

void register_words() {
    RegisterCommandModule("slices", [](std::string const&, int fd) { answer(fd, std::to_string(slices)); });
    RegisterCommandModule("throw", [](std::string const&, int) { throw std::runtime_error("no"); });
    RegisterCommandModule("throw-number", [](std::string const&, int) { throw 7; });
    RegisterCommandModule("exit", [](std::string const& n, int) { exit(std::atoi(n.c_str())); });
    RegisterCommandModule("quit", [](std::string const& n, int) { quit = std::atoi(n.c_str()); });
    RegisterCommandModule("tail", [](std::string const& text, int fd) { cmd::Write(fd, text); });
    RegisterCommandModule("measure", [](std::string const& text, int) { measured = text.size(); });
    RegisterCommandModule("measured",
                          [](std::string const&, int fd) { answer(fd, std::to_string(measured)); });
    RegisterCommandModule("line", line);
    RegisterCommandModule("lines", lines);
    RegisterCommandModule("where", where);
    RegisterCommandModule("sigpipe", sigpipe);
}

void* member(void*) {
    orn::zel::Alarm const tick(2, 2, [] {});
    for (;;)
        RunOnce(-1);
}

void* loop(void*) {
    NewThreadGroup();
    return member(nullptr);
}

void be_busy() {
    RunTask([](task::Controller*) { ++slices; });
    RunTask([](task::Controller* sleeper) { sleeper->Sleep(); });
    for (void* (*body)(void*) : {member, loop, loop}) {
        o_pthread_t thread;
        o_pthread_create(&thread, nullptr, body, nullptr);
        o_pthread_detach(thread);
    }
}

} // namespace

int main(int argc, char** argv) {
    signal::AutoReceptor const watched(SIGUSR1, [](int) {});
    register_words();
    bool stuck = false;
    bool left = false;
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        if (option == "busy")
            be_busy();
        else if (option == "stuck")
            stuck = true;
        else if (option == "left")
            left = true;
        else if (option == "ignored-sigpipe")
            std::signal(SIGPIPE, SIG_IGN);
        else if (option == "default-55")
            std::signal(cmd::channel_signal, SIG_DFL);
        else if (option == "secret")
            prctl(PR_SET_DUMPABLE, 0);
    }
    // GCC's ThreadSanitizer makes a thread's memory for signals in its first blocking call, and loses one
    // that arrives meanwhile. So that call is not the loop's.
    poll(nullptr, 0, 0);
    std::puts("ready");
    std::fflush(stdout);
    if (left)
        pthread_exit(nullptr);
    while (stuck && quit < 0)
        poll(nullptr, 0, 10);
    while (quit < 0)
        RunOnce(10); // where another member runs the loop, this only sleeps
    exit(quit);
}
