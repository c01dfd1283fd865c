// SPDX-License-Identifier: MIT
//
// zelctl sends a command to a process that has zel and prints the answer. Here are its command line and the
// ways in which it ends; Session.cpp talks to the process.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "Failure.hpp"
#include "Output.hpp"
#include "Session.hpp"
#include "Target.hpp"

namespace {

using zelctl::ExitStatus;
using zelctl::Failure;

volatile sig_atomic_t caught = 0;

void note_signal(int signo) {
    caught = signo;
}

// Catches the signals that ask a program to end. One that whoever started zelctl has ignored stays ignored.
void catch_signals() {
    for (int const signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction action = {};
        sigaction(signo, nullptr, &action);
        if (action.sa_handler == SIG_IGN)
            continue;
        action.sa_handler = note_signal;
        action.sa_flags = 0; // without SA_RESTART, so that system calls that wait are interrupted
        sigaction(signo, &action, nullptr);
    }
}

struct Options {
    int pid = 0;
    double timeout = 5;
    double follow = -1;
    std::string command;
    std::string help; // when it was asked for, there is nothing else to do
};

char const* const footer =
    "The library's own words:\n"
    "  zel fds, zel tasks, zel signals, zel threads\n"
    "  zel monitor WORD..., zel unmonitor WORD...    poll, thread, task, alarm\n"
    "  zel load LIBRARY..., zel unload LIBRARY...\n"
    "Monitors that it has switched on are off again when it ends: use them with --follow.\n"
    "Exit status: 0 when all is well; 1 when the process cannot be talked to, lines were lost or the\n"
    "output cannot be written; 2 when it did not answer in time; 64 when the command line is wrong.";

int pid_of(std::string const& text) {
    long pid = 0;
    bool digits = !text.empty();
    for (char const digit : text) {
        digits = digits && digit >= '0' && digit <= '9';
        pid = std::min(pid * 10 + (digit - '0'), 100000000L);
        if (!digits)
            break;
    }
    if (!digits || pid < 1 || pid >= 100000000L)
        throw Failure(zelctl::misused, "'" + zelctl::printable(text) + "' is no process id");
    return static_cast<int>(pid);
}

void check_seconds(char const* option, double seconds, double least) {
    if (!(seconds >= least && seconds <= 1e6))
        throw Failure(zelctl::misused, std::string(option) + " takes a number of seconds, 1000000 at most");
}

std::string joined(std::vector<std::string> const& words) {
    std::string command;
    for (std::string const& word : words)
        command += (command.empty() ? "" : " ") + word;
    return command;
}

Options options_of(int argc, char** argv) {
    CLI::App app("Sends a command to a process that has loaded zel, and prints the answer.\n"
                 "  zelctl 1234 zel tasks\n"
                 "  zelctl 1234 --follow 10 zel monitor task alarm\n"
                 "Put -- before a command with words that begin with a dash.");
    Options options;
    std::string pid;
    std::vector<std::string> words;
    app.add_option("pid", pid, "The process")->required();
    app.add_option("word", words, "The command, for example: zel fds")->required();
    app.add_option("--timeout", options.timeout, "Seconds to wait for an answer (5)");
    CLI::Option const* const follow = app.add_option(
        "--follow", options.follow, "Then print what comes for so many seconds; 0: until the process ends");
    app.footer(footer);
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        options.help = app.help();
        return options;
    } catch (CLI::ParseError const& error) {
        throw Failure(zelctl::misused, zelctl::printable(error.what()) + " (zelctl --help tells more)");
    }
    options.pid = pid_of(pid);
    check_seconds("--timeout", options.timeout, 0.001);
    if (follow->count() > 0)
        check_seconds("--follow", options.follow, 0);
    options.command = joined(words);
    return options;
}

// Opens /dev/null on the standard descriptors that are closed: a file that is opened later must not become
// the standard output.
void check_standard_output() {
    bool const closed = fcntl(STDOUT_FILENO, F_GETFD) == -1;
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd < STDERR_FILENO);
    if (fd > STDERR_FILENO)
        close(fd);
    if (closed)
        throw Failure(zelctl::refused, "standard output is closed");
}

void hint_at(zelctl::Session const& session, std::string const& command) {
    std::string const word = command.substr(0, command.find(' '));
    for (std::string const known :
         {"fds", "tasks", "signals", "threads", "monitor", "unmonitor", "load", "unload"}) {
        if (session.echoed() && word == known) {
            std::fprintf(stderr,
                         "zelctl: nobody has the word \"%s\", so it was echoed; did you mean: zel %s\n",
                         word.c_str(), zelctl::printable(command).c_str());
        }
    }
}

bool tell_of_lost_lines(zelctl::Session const& session) {
    if (session.lines_lost())
        std::fputs("zelctl: lines were lost: more came than the pipe between the processes takes\n", stderr);
    return session.lines_lost();
}

ExitStatus talk(Options const& options, zelctl::Output& output) {
    zelctl::Target const target(options.pid);
    zelctl::Session session(target, output, options.timeout);
    try {
        session.connect();
        session.run(options.command, options.follow >= 0);
        hint_at(session, options.command);
        if (options.follow >= 0) {
            session.follow(static_cast<unsigned long>(options.follow * 1000));
        } else if (!session.monitors().empty()) {
            std::fputs("zelctl: switched off again, since nobody would read the lines: use --follow\n",
                       stderr);
        }
    } catch (zelctl::Interrupted const&) {
        tell_of_lost_lines(session);
        throw;
    }
    return tell_of_lost_lines(session) ? zelctl::refused : zelctl::ok;
}

int run(int argc, char** argv) {
    check_standard_output();
    Options const options = options_of(argc, argv);
    zelctl::Output output([] { return static_cast<int>(caught); });
    ExitStatus status = zelctl::ok;
    if (options.help.empty())
        status = talk(options, output);
    else
        output.line(options.help);
    output.flush();
    output.check();
    return status;
}

} // namespace

int main(int argc, char** argv) {
    bool const dies_of_sigpipe = signal(SIGPIPE, SIG_IGN) != SIG_IGN;
    catch_signals();
    try {
        return run(argc, argv);
    } catch (zelctl::Interrupted const& interrupted) {
        if (interrupted.signo != SIGPIPE || dies_of_sigpipe) {
            signal(interrupted.signo, SIG_DFL);
            raise(interrupted.signo);
        }
        std::fprintf(stderr, "zelctl: standard output: %s\n", strerror(EPIPE));
        return zelctl::refused;
    } catch (Failure const& failure) {
        std::fprintf(stderr, "zelctl: %s\n", failure.what());
        return failure.status;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "zelctl: %s\n", error.what());
        return zelctl::refused;
    }
}
