// SPDX-License-Identifier: MIT
//
// For tests of the command-line client on a terminal, where somebody types. Needs ZELCTL, its path.
#ifndef TESTS_SUPPORT_TERMINAL_HPP
#define TESTS_SUPPORT_TERMINAL_HPP

#include <csignal>

#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "Zelctl.hpp"

namespace support {

class Terminal {
public:
    // Starts the client with the words in a shell that has jobs: Ctrl-Z stops it, and the shell lets it go
    // on.
    Terminal(std::string const& words, std::string const& history) {
        winsize const size = {24, 200, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TERM", "xterm", 1);
            setenv("ZELCTL_HISTORY", history.c_str(), 1);
            std::string command = "set -m; $ZEL_TEST_EMULATOR " ZELCTL " " + words + "; s=$?; ";
            for (int i = 0; i < 4; ++i) // a loop of the shell ends when what it waits for stops
                command += "if [ $s -eq 148 ]; then fg; s=$?; fi; ";
            command += "echo status=$s";
            execl("/bin/bash", "bash", "--norc", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Terminal() {
        close(terminal_); // hangs up
        if (pid_ > 0)
            waitpid(pid_, nullptr, 0);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    void type(std::string const& keys) const {
        EXPECT_EQ(static_cast<ssize_t>(keys.size()), write(terminal_, keys.data(), keys.size()));
    }

    // Whether the text comes, behind what has been looked at already.
    ::testing::AssertionResult shows(std::string const& text) {
        bool const came = wait_until([&] {
            char bytes[4096];
            if (!holds(shown_, text) && is_ready(terminal_, POLLIN)) {
                ssize_t const got = read(terminal_, bytes, sizeof bytes);
                shown_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            }
            return holds(shown_, text);
        });
        if (!came)
            return ::testing::AssertionFailure() << "'" << text << "' has not come: " << shown_;
        shown_.erase(0, shown_.find(text) + text.size());
        return ::testing::AssertionSuccess();
    }

    // To the client, or whatever else is in the foreground.
    void signal(int signo) const { EXPECT_EQ(0, kill(-tcgetpgrp(terminal_), signo)); }
    void resize(unsigned short rows, unsigned short columns) const {
        winsize const size = {rows, columns, 0, 0};
        EXPECT_EQ(0, ioctl(terminal_, TIOCSWINSZ, &size));
    }

    // Whether keys go to the client one by one, not in lines.
    bool takes_keys() const {
        termios now = {};
        return tcgetattr(terminal_, &now) == 0 && (now.c_lflag & ICANON) == 0;
    }

private:
    int terminal_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
};

} // namespace support

#endif
