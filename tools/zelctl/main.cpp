// SPDX-License-Identifier: MIT
//
// zelctl: sends commands to a process that has zel and prints the answers.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "Session.hpp"

namespace {

enum ExitStatus { ok = 0, refused = 1, timed_out = 2 };

char too_late[512];

// In signal context. Connecting waits without limit for the other process's loop, so the limit has to come
// from outside.
void give_up(int) {
    ssize_t const written = write(STDERR_FILENO, too_late, strlen(too_late));
    static_cast<void>(written);
    _exit(timed_out);
}

void limit(int pid, double seconds) {
    std::snprintf(
        too_late, sizeof too_late,
        "zelctl: process %d has not answered within %g s.\n"
        "Commands are taken once the thread that loaded zel runs its loop: see whether that thread is\n"
        "stopped or busy (/proc/%d/stack, /proc/%d/wchan, State in /proc/%d/status), and whether the socket\n"
        "@orn.msg.cmd.%d in /proc/net/unix is there, and its own.\n",
        pid, seconds, pid, pid, pid, pid);
    signal(SIGALRM, give_up);
    msec_alarm(static_cast<unsigned long>(seconds * 1000));
}

std::string joined(std::vector<std::string> const& words) {
    std::string command;
    for (std::string const& word : words)
        command += (command.empty() ? "" : " ") + word;
    return command;
}

void print(std::string const& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// The list of threads is written to the poll monitor alone. It is taken for that long, and its own lines left
// out.
void list_threads(int pid) {
    zelctl::Session session(pid, [](std::string const& line) {
        if (line.compare(0, 8, "Threads:") == 0 || line.compare(0, 8, "thread: ") == 0)
            print(line);
    });
    session.run("zel monitor poll");
    session.run("zel threads");
    session.run("zel unmonitor poll");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends a command to a process that has loaded zel, and prints the answer.\n"
                 "  zelctl 1234 zel tasks\n"
                 "  zelctl 1234 --follow 10 zel monitor task alarm\n"
                 "Put -- before a command with words that begin with a dash.");
    int pid = 0;
    double timeout = 5;
    double follow = -1;
    std::vector<std::string> words;
    app.add_option("pid", pid, "The process")->required()->check(CLI::PositiveNumber);
    app.add_option("word", words, "The command, for example: zel fds")->required();
    app.add_option("--timeout", timeout, "Seconds to wait for an answer (5)")->check(CLI::Range(0.001, 1e6));
    app.add_option("--follow", follow, "Then print what comes for so many seconds; 0: until the process ends")
        ->check(CLI::Range(0.0, 1e6));
    app.footer(
        "Ends with 0, with 1 when the process cannot be talked to, with 2 when it did not answer in time.");
    CLI11_PARSE(app, argc, argv);

    try {
        zelctl::make_sure_it_listens(pid);
        limit(pid, timeout);
        std::string const command = joined(words);
        if (command == "zel threads" && follow < 0) {
            list_threads(pid);
            return ok;
        }
        zelctl::Session session(pid, print);
        session.run(command);
        if (follow >= 0) {
            msec_alarm(0);
            session.follow(static_cast<unsigned long>(follow * 1000));
        }
        return ok;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "zelctl: %s\n", error.what());
        return refused;
    }
}
