// SPDX-License-Identifier: MIT
//
// The reasons for which zelctl ends before its work is done, and the exit status of each. Internal to the
// tool.
#ifndef ZELCTL_FAILURE_HPP
#define ZELCTL_FAILURE_HPP

#include <stdexcept>
#include <string>

namespace zelctl {

enum ExitStatus { ok = 0, refused = 1, timed_out = 2, misused = 64 };

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
