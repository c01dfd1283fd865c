// SPDX-License-Identifier: MIT
//
// The reasons for which zelctl ends before its work is done, and the exit status of each. Internal to the
// tool.
#ifndef ZELCTL_FAILURE_HPP
#define ZELCTL_FAILURE_HPP

#include <stdexcept>
#include <string>

namespace zelctl {

// Scripts rely on these numbers. docs/zelctl.1 and the text of --help list them.
enum ExitStatus {
    ok = 0,
    refused = 1,        // the process answered a failure, lines were lost, or the output cannot be written
    misused = 2,        // the command line is wrong
    not_found = 3,      // no such process, or several
    not_attachable = 4, // it has no channel that could be reached
    not_permitted = 5,
    timed_out = 6,
    connection_lost = 7, // in the middle of an answer
    unknown_word = 8     // nobody there has the word
};

// what: one line that says what failed, why, and what to do.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus exit_status, std::string const& what)
        : std::runtime_error(what), status(exit_status) {}

    ExitStatus const status;
};

// A signal has asked for the end. It is raised again once everything has been tidied up.
struct Interrupted {
    int signo;
};

} // namespace zelctl

#endif
