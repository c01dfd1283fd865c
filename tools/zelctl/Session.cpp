// SPDX-License-Identifier: MIT
#include "Session.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>

#include <signal.h>
#include <unistd.h>

namespace zelctl {

namespace {

int const channel_signal = 55;
unsigned long const ask_again_ms = 250;

std::string name_of(int pid) {
    return "process " + std::to_string(pid);
}

// The mask of caught signals from /proc/<pid>/status; false when it cannot be read.
bool caught_signals(int pid, unsigned long long& mask) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == "SigCgt:")
            return static_cast<bool>(status >> std::hex >> mask);
        std::getline(status, key);
    }
    return false;
}

std::string echo_of(std::string const& command) {
    return "received \"" + command + "\"";
}

} // namespace

void make_sure_it_listens(int pid) {
    if (kill(pid, 0) != 0)
        throw Refusal(name_of(pid) + ": " + strerror(errno));
    unsigned long long mask = 0;
    if (!caught_signals(pid, mask))
        throw Refusal(name_of(pid) + ": cannot read /proc/" + std::to_string(pid) + "/status");
    if (!(mask >> (channel_signal - 1) & 1))
        throw Refusal(name_of(pid) +
                      " does not catch signal 55: it has not loaded zel, and the signal would end it");
}

Session::Session(int pid, Print print)
    : pid_(pid), print_(print), mark_("zelctl-" + std::to_string(getpid()) + '-'), marks_(0),
      complete_(false),
      channel_(orn::zel::Connect(pid, [this](std::string const& line) { take_line(line); })) {}

void Session::send(std::string const& command) {
    if (channel_.Command(command) < 0)
        throw Refusal(name_of(pid_) + " does not take the command: " + strerror(errno));
}

void Session::run(std::string const& command) {
    // Commands are served in order: once a second one, which nobody has, is echoed, the first has been
    // answered.
    std::string const end = mark_ + std::to_string(++marks_);
    expected_echo_ = echo_of(command);
    end_ = echo_of(end);
    complete_ = false;
    send(command);
    send(end);
    // An answer that fills the pipe may cost the mark: ask again.
    orn::zel::Alarm const again(ask_again_ms, ask_again_ms, [&] { send(end); });
    while (!complete_)
        orn::zel::RunOnce(-1);
}

void Session::follow(unsigned long ms) {
    bool over = false;
    std::unique_ptr<orn::zel::Alarm> limit;
    if (ms > 0)
        limit.reset(new orn::zel::Alarm(ms, [&] { over = true; }));
    orn::zel::Alarm const alive(ask_again_ms, ask_again_ms, [&] { over = over || kill(pid_, 0) != 0; });
    while (!over)
        orn::zel::RunOnce(-1);
}

void Session::take_line(std::string const& line) {
    if (line.compare(0, 4 + mark_.size(), "1/1 " + mark_) == 0)
        return;
    // An answer without a last newline has the mark's echo on its own last line.
    std::string const echo = "received \"" + mark_;
    std::string::size_type const at = line.find(echo);
    if (at != std::string::npos) {
        if (at > 0)
            print_(line.substr(0, at));
        complete_ = complete_ || line.compare(at, std::string::npos, end_) == 0;
        return;
    }
    if (!expected_echo_.empty() && line == expected_echo_)
        expected_echo_.clear();
    else
        print_(line);
}

} // namespace zelctl
