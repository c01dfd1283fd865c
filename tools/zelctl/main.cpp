// SPDX-License-Identifier: MIT
//
// zelctl looks into a process that has zel, and steers it. Here is where its commands come from and the ways
// in which it ends; CommandLine reads the command line, Session talks to the process, Verbs are its words.
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "CommandLine.hpp"
#include "Find.hpp"
#include "Output.hpp"
#include "Prompt.hpp"
#include "Session.hpp"
#include "Target.hpp"
#include "Verbs.hpp"

namespace {

using namespace zelctl;

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
        throw Failure(refused, "standard output is closed");
}

void print(Failure const& failure) {
    std::fprintf(stderr, "zelctl: %s\n", failure.what());
}

// What goes wrong with one command of several is reported, and the next one may still do. Only what ends the
// conversation ends them all.
ExitStatus carry_out(Context& context, std::string const& command) {
    try {
        return run(context, command);
    } catch (Failure const& failure) {
        if (failure.status != misused && failure.status != refused && failure.status != timed_out)
            throw;
        print(failure);
        return failure.status;
    }
}

// Returns the status of the first one that has failed.
ExitStatus carry_out_lines(Context& context) {
    ExitStatus status = ok;
    for (std::string line; std::getline(std::cin, line);) {
        ExitStatus const one = words_of(line).empty() ? ok : carry_out(context, line);
        status = status == ok ? one : status;
    }
    context.output.check();
    return status;
}

ExitStatus carry_out_all(Context& context) {
    Options const& options = context.options;
    if (!options.words.empty())
        return run(context, options.words);
    bool const somebody = isatty(STDIN_FILENO) != 0 && context.output.terminal();
    if (options.commands.empty() && somebody) {
        return prompt(
            context, [&](std::string const& command) { return carry_out(context, command); },
            [] { caught = 0; });
    }
    if (options.commands.empty())
        return carry_out_lines(context);
    ExitStatus status = ok;
    for (std::string const& command : options.commands) {
        ExitStatus const one = carry_out(context, command);
        status = status == ok ? one : status;
    }
    return status;
}

ExitStatus talk(Options const& options, Output& output) {
    if (options.target == "ps" && !options.commands.empty())
        throw Failure(misused, "ps takes parts of names, and no commands");
    if (options.target == "ps")
        return list_processes(output, options);
    Target const target(find_process(options.target));
    Session session(target, output, options.timeout);
    session.connect();
    Context context{session, output, options};
    return carry_out_all(context);
}

int run_tool(int argc, char** argv) {
    check_standard_output();
    Options const options = options_of(argc, argv);
    Output output([] { return static_cast<int>(caught); });
    ExitStatus status = ok;
    if (options.print.empty())
        status = talk(options, output);
    else
        output.line(options.print);
    output.flush();
    output.check();
    return status;
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    bool const dies_of_sigpipe = signal(SIGPIPE, SIG_IGN) != SIG_IGN;
    catch_signals();
    try {
        return run_tool(argc, argv);
    } catch (Interrupted const& interrupted) {
        if (interrupted.signo != SIGPIPE || dies_of_sigpipe) {
            signal(interrupted.signo, SIG_DFL);
            raise(interrupted.signo);
        }
        std::fprintf(stderr, "zelctl: standard output: %s\n", strerror(EPIPE));
        return refused;
    } catch (Failure const& failure) {
        print(failure);
        return failure.status;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "zelctl: %s\n", error.what());
        return refused;
    }
}
