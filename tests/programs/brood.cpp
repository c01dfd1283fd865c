// SPDX-License-Identifier: MIT
//
// A process with zel that starts many others, for a tool that goes for each of them while it starts and ends.
//
//     brood COUNT   prints the id of each child as soon as it is there, and in the end how many a signal
//     ended
//     brood child [MS]    turns its loop for a moment
//     brood twice [MS]    says so, rests, and then becomes a child
//
// fork() copies the handler of signal 55, and exec() takes it away: for a while every child looks as if it
// could be signalled, which ends those that come to exec() just then.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

void be_child(char const* self, int number) {
    poll(nullptr, 0, number % 7); // until exec()
    if (number % 3 == 0)
        execl("/bin/sleep", "sleep", number % 2 == 0 ? "0.02" : "0.4", nullptr);
    else if (number % 3 == 1)
        execl(self, self, number % 2 == 0 ? "child" : "twice", nullptr);
    else
        execl("/bin/sh", "sh", "-c", "exec sleep 0.3", nullptr);
    _exit(127);
}

bool ended_by_signal(pid_t child) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFSIGNALED(status);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    char const* const ms = argc > 2 ? argv[2] : "300";
    if (std::strcmp(argv[1], "twice") == 0) {
        std::printf("twice\n");
        std::fflush(stdout);
        poll(nullptr, 0, std::atoi(ms) / 10);
        execl(argv[0], argv[0], "child", ms, nullptr);
        return 127;
    }
    if (std::strcmp(argv[1], "child") == 0) {
        bool done = false;
        orn::zel::Alarm const end(static_cast<unsigned long>(std::atoi(ms)), [&done] { done = true; });
        while (!done)
            orn::zel::RunOnce(-1);
        return 0;
    }
    std::size_t const at_once = 8;
    std::deque<pid_t> children;
    int killed = 0;
    auto const collect = [&] {
        killed += ended_by_signal(children.front()) ? 1 : 0;
        children.pop_front();
    };
    for (int i = 0; i < std::atoi(argv[1]); ++i) {
        pid_t const child = fork();
        if (child == 0)
            be_child(argv[0], i);
        std::printf("%d\n", static_cast<int>(child));
        std::fflush(stdout);
        children.push_back(child);
        if (children.size() == at_once)
            collect();
    }
    while (!children.empty())
        collect();
    std::printf("killed %d\n", killed);
    return 0;
}
