// SPDX-License-Identifier: MIT
//
// For tests with real second processes: programs that are started and watched, what /proc tells about them,
// and a client of the command channel.
#ifndef TESTS_SUPPORT_PROGRAMS_HPP
#define TESTS_SUPPORT_PROGRAMS_HPP

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace programs {

typedef std::vector<std::string> Words;

int scale(); ///< ZEL_TEST_SCALE, 1 when it is not set

/// Whether the condition came true before the deadline, which is scaled. Meanwhile is what to do between two
/// looks; a millisecond's sleep when it is empty.
bool wait_until(std::function<bool()> const& condition, int limitMs = 10000,
                std::function<void()> const& meanwhile = {});

long milliseconds(); ///< of a clock that does not jump

/// A program with pipes for its standard output and its standard error, killed when this dies.
class Program {
public:
    explicit Program(Words const& command, std::map<std::string, std::string> const& environment = {},
                     int standardInput = -1, uid_t user = 0); ///< user, when it is not 0
    ~Program();
    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    pid_t pid() const { return pid_; }
    std::string line(int limitMs = 10000); ///< the next one of its output, "" at its end or at the deadline
    std::string rest();                    ///< of its output, up to its end
    std::string errors();                  ///< of its standard error, up to its end
    std::string error_line(int limitMs = 10000); ///< the next one there, and whatever has come behind it
    /// "exit <n>" or "signal <n>" once it has ended, "hung" after the deadline.
    std::string end(int limitMs = 10000);
    bool alive();
    void signal(int signo);
    void stop();     ///< by SIGSTOP, and waits until it has stopped
    bool sleeping(); ///< true once its main thread waits in the kernel

private:
    bool fill(std::string& buffer, int& fd, int limitMs);

    pid_t pid_;
    int output_;
    int errors_;
    std::string unread_;
    std::string status_;
};

std::string text_of(std::string const& path);
std::size_t entries_of(std::string const& directory); ///< "." and ".." are not counted
Words threads_of(pid_t pid, std::string const& name); ///< "/proc/<pid>/task/<tid>" of each that is called so
std::size_t threads_named(pid_t pid, std::string const& name);
long cpu_milliseconds(pid_t pid);        ///< that the process has used up, in steps of the kernel's
std::size_t listening_queues(pid_t pid); ///< command queues of this process, as the kernel lists them
/// The mask behind "SigCgt:", "SigBlk:" and so on in a status file.
unsigned long long mask_of(std::string const& status, std::string const& key);

/// A client of the command channel in this process and thread.
class Client {
public:
    explicit Client(pid_t pid);
    ~Client();
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    ssize_t send(std::string const& command);
    /// Sends the command and returns the lines that it answers, its echo left out; {"no answer"} after 10 s.
    Words ask(std::string const& command);
    std::string ask_one(std::string const& command); ///< the only line of the answer

private:
    struct State;
    State* const state_;
};

} // namespace programs

#endif
