// SPDX-License-Identifier: MIT
//
// For tests with real second processes: programs that are started and watched, what /proc tells about them,
// and a client of the command channel.
#ifndef TESTS_SUPPORT_PROGRAMS_HPP
#define TESTS_SUPPORT_PROGRAMS_HPP

#include "Common.hpp"

namespace support {

Words joined(Words first, Words const& second);

// A program with pipes for its standard output and its standard error, killed when this dies.
class Program {
public:
    // Runs as the user, unless that is 0.
    explicit Program(Words const& command, std::map<std::string, std::string> const& environment = {},
                     int standard_input = -1, uid_t user = 0);
    ~Program();
    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    pid_t pid() const { return pid_; }
    std::string line(int limit_ms = 10000);       // the next one of its output; "" at its end or too late
    std::string rest();                           // of its output, up to its end
    std::string errors();                         // of its standard error, up to its end
    std::string error_line(int limit_ms = 10000); // the next one there, and whatever has come behind it
    std::string end(int limit_ms = 10000);        // see end_of()
    bool alive() const;
    void signal(int signo) const;
    void stop() const;     // by SIGSTOP, and waits until it has stopped
    bool sleeping() const; // true once its main thread waits in the kernel

private:
    pid_t pid_;
    int output_;
    int errors_;
    std::string unread_;
    std::string end_;
};

std::string proc(pid_t pid, std::string const& entry); // the text of /proc/<pid>/<entry>
std::size_t threads_named(pid_t pid, std::string const& name);

// Whether the signal is in the mask behind "SigCgt:", "SigBlk:" and so on in the text of a status file.
bool in_mask(std::string const& status, std::string const& key, int signo);

// A client of the command channel in this process and thread.
class Client {
public:
    explicit Client(pid_t pid);
    ~Client();
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    ssize_t send(std::string const& command);
    // Sends the command and returns the lines that it answers, its echo left out; {"no answer"} after 10 s.
    Words ask(std::string const& command);
    std::string ask_one(std::string const& command); // the only line of the answer

private:
    struct State;
    State* const state_;
};

} // namespace support

#endif
