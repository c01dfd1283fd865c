// SPDX-License-Identifier: MIT
//
// One conversation of zelctl with a process: from making sure that it may be signalled to knowing that an
// answer is complete. Internal to the tool; the command line is main.cpp's.
#ifndef ZELCTL_SESSION_HPP
#define ZELCTL_SESSION_HPP

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <orn/zel.hpp>

namespace zelctl {

// Why a process is not talked to, in plain words.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Throws Refusal unless the process exists, may be signalled and catches signal 55, whose default action
// would end it.
void make_sure_it_listens(int pid);

class Session {
public:
    typedef std::function<void(std::string const&)> Print;

    // Connects; waits for as long as the process takes to turn its loop.
    Session(int pid, Print print);

    // Sends the command and runs the loop until everything that it answered has been printed. Throws Refusal
    // when the process does not take it.
    void run(std::string const& command);

    // Prints what comes for that long, monitor lines mostly; 0: until the process has ended.
    void follow(unsigned long ms);

private:
    void take_line(std::string const& line);
    void send(std::string const& command);

    int const pid_;
    Print print_;
    std::string expected_echo_; // of the command itself, which is not part of the answer
    std::string const mark_;    // what the commands that mark the end of an answer begin with
    unsigned long marks_;
    std::string end_; // the echo that the present answer ends with
    bool complete_;
    orn::zel::cmd::Channel channel_;
};

} // namespace zelctl

#endif
