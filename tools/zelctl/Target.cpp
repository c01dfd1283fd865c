// SPDX-License-Identifier: MIT
//
// What /proc tells about a process, and the reasons not to talk to it.
#include "Target.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/zel/cmd.hpp>

#include "Failure.hpp"

namespace zelctl {

namespace {

using orn::zel::cmd::channel_signal;

int open_process(int pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); // close-on-exec by itself
#else
    static_cast<void>(pid);
    return -1;
#endif
}

// The value of "key:" in /proc/<process>/status; "" when it cannot be read.
std::string field(std::string const& process, std::string const& key) {
    std::ifstream status("/proc/" + process + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size() + 1, key + ':') == 0) {
            std::string::size_type const begin = line.find_first_not_of(" \t", key.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

bool has_channel_signal(std::string const& mask) {
    return std::strtoull(mask.c_str(), nullptr, 16) >> (channel_signal - 1) & 1;
}

bool over(std::string const& state) {
    return state.empty() || state[0] == 'Z' || state[0] == 'X';
}

// Whether two names lead to different files. False when one of them may not be looked at.
bool differ(std::string const& one, std::string const& other) {
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           (first.st_ino != second.st_ino || first.st_dev != second.st_dev);
}

// The process's own number for itself, when it lives in a pid namespace below this one; else "".
std::string inner_id(std::string const& process) {
    std::istringstream own(field("self", "NSpid"));
    std::istringstream its(field(process, "NSpid"));
    std::string id;
    while (own >> id)
        its >> id;
    std::string inner;
    while (its >> id)
        inner = id;
    return inner;
}

// /proc and kill() have to mean the same process, because the signal would end one that does not expect it.
void make_sure_of_proc() {
    char self[16] = "";
    ssize_t const length = readlink("/proc/self", self, sizeof self - 1);
    if (length < 1 || std::strtol(self, nullptr, 10) != getpid()) {
        throw Failure(refused,
                      "/proc is not mounted, or is that of another pid namespace: mount -t proc proc /proc");
    }
}

void make_sure_it_is_a_process(int pid, std::string const& name) {
    if (kill(pid, 0) != 0) {
        throw Failure(refused, name + ": " + strerror(errno) +
                                   (errno == EPERM ? "; ask as root or as the user who runs it" : ""));
    }
    std::string const process = field(std::to_string(pid), "Tgid");
    if (process.empty())
        throw Failure(refused, name + ": cannot read /proc/" + std::to_string(pid) + "/status");
    if (process != std::to_string(pid)) {
        throw Failure(refused, std::to_string(pid) + " is a thread of process " + process + ": zelctl " +
                                   process + " ...");
    }
}

void make_sure_it_listens(std::string const& pid, std::string const& name) {
    if (!has_channel_signal(field(pid, "SigCgt"))) {
        throw Failure(refused,
                      name + " does not catch signal 55: it has not loaded zel, and the signal would end it");
    }
    std::string const inner = inner_id(pid);
    if (!inner.empty()) {
        throw Failure(refused,
                      name + " lives in another pid namespace, and its queue is named after its id there, " +
                          inner + ": nsenter -t " + pid + " -m -n -p zelctl " + inner + " ...");
    }
    if (differ("/proc/self/ns/net", "/proc/" + pid + "/ns/net")) {
        throw Failure(refused, name +
                                   " lives in another network namespace, where its queue is out of reach: "
                                   "nsenter -t " +
                                   pid + " -n zelctl " + pid + " ...");
    }
}

// A process silently drops the messages of users whom it does not serve, so it would seem to be busy.
void make_sure_it_serves_this_user(std::string const& pid, std::string const& name) {
    if (geteuid() == 0)
        return;
    std::istringstream users(field(pid, "Uid")); // real, effective, ...
    uid_t user = 0;
    users >> user >> user;
    struct stat status = {};
    stat(("/proc/" + pid + "/status").c_str(), &status);
    if (user != geteuid()) {
        throw Failure(refused, name + " runs as user " + std::to_string(user) +
                                   ", and serves that one and root: ask as root");
    }
    // The kernel gives the files in /proc to root when the process's own user may not trace it.
    if (status.st_uid != user) {
        throw Failure(refused, name +
                                   " has rights or secrets that its user has not (it is not dumpable), and "
                                   "serves root alone: ask as root");
    }
}

} // namespace

Target::Target(int pid) : pid_(pid), descriptor_(open_process(pid)) {
    try {
        make_sure_of_proc();
        make_sure_it_is_a_process(pid, name());
        if (ended())
            throw Failure(refused, name() + " has ended, and waits for its parent to take notice (a zombie)");
        make_sure_it_listens(std::to_string(pid), name());
        make_sure_it_serves_this_user(std::to_string(pid), name());
    } catch (...) {
        close(descriptor_);
        throw;
    }
}

Target::~Target() {
    close(descriptor_);
}

bool Target::ended(int wait_ms) const {
    pollfd entry = {descriptor_, POLLIN, 0};
    if (poll(&entry, 1, wait_ms) > 0)
        return true;
    return descriptor_ == -1 && over(field(std::to_string(pid_), "State"));
}

std::string Target::why_silent(bool connected, int error) const {
    std::string const pid = std::to_string(pid_);
    std::string const state = field(pid, "State");
    if (state.compare(0, 1, "T") == 0)
        return "it is stopped (State in /proc/" + pid + "/status): kill -CONT " + pid + " lets it go on";
    if (state.compare(0, 1, "t") == 0)
        return "it is held by process " + field(pid, "TracerPid") + ", a debugger";
    if (error == EACCES)
        return "the socket @orn.msg.cmd." + pid + " is not its own: see who listens there (ss -xlp)";
    if (connected) {
        return "it has taken the connection, and is busy with another command, or its processors are: "
               "see the thread zel-command in /proc/" +
               pid + "/task";
    }
    if (error == EAGAIN)
        return "its queue is full: it is behind with its commands";
    if (has_channel_signal(field(pid, "SigBlk")))
        return "its main thread blocks signal 55, which opens the channel";
    return "the thread that has loaded zel, as a rule the main thread, has not turned its loop: it is " +
           (state.empty() ? std::string("gone") : state) + ", see /proc/" + pid + "/stack and /proc/" + pid +
           "/wchan";
}

} // namespace zelctl
