// SPDX-License-Identifier: MIT
//
// The command-line client on a terminal: its prompt, keys, and how it leaves.
#include <pty.h>
#include <termios.h>

#include "support/Zelctl.hpp"

namespace {

using namespace support;

// The client on a terminal of its own, where somebody types.
class ZelctlPrompt : public ::testing::Test {
protected:
    ZelctlPrompt() {
        EXPECT_EQ("ready", target.line());
        winsize const size = {24, 200, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TERM", "xterm", 1);
            setenv("ZELCTL_HISTORY", history.path().c_str(), 1);
            // The shell has jobs, so Ctrl-Z stops the client, and the shell lets it go on.
            std::string const command = "set -m; " ZELCTL " " + std::to_string(target.pid()) +
                                        "; s=$?; while [ $s -eq 148 ]; do fg; s=$?; done; echo status=$s";
            execl("/bin/bash", "bash", "--norc", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~ZelctlPrompt() override {
        close(terminal_); // hangs up
        if (pid_ > 0)
            waitpid(pid_, nullptr, 0);
    }

    void type(std::string const& keys) const {
        EXPECT_EQ(static_cast<ssize_t>(keys.size()), write(terminal_, keys.data(), keys.size()));
    }

    // Whether the text comes, behind what has been looked at already.
    ::testing::AssertionResult shows(std::string const& text) {
        while (!holds(shown_, text)) {
            char bytes[4096];
            ssize_t const got = is_ready(terminal_, POLLIN, 10000) ? read(terminal_, bytes, sizeof bytes) : 0;
            if (got < 1)
                return ::testing::AssertionFailure() << "'" << text << "' has not come: " << shown_;
            shown_.append(bytes, static_cast<std::size_t>(got));
        }
        shown_.erase(0, shown_.find(text) + text.size());
        return ::testing::AssertionSuccess();
    }

    // Whether keys go to the prompt one by one, not in lines.
    bool takes_keys() const {
        termios now = {};
        return tcgetattr(terminal_, &now) == 0 && (now.c_lflag & ICANON) == 0;
    }

    TempFile const history;
    Program target{{TARGET, "busy"}};

private:
    int terminal_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
};

TEST_F(ZelctlPrompt, completes_words_remembers_lines_and_only_detaches) {
    ASSERT_TRUE(shows("> "));
    type("tai\t");
    EXPECT_TRUE(shows("tai"));
    type("\x15sigp\t"); // its words cannot be asked for where the library does not tell them
    type("\x15threa\t\n");
    EXPECT_TRUE(shows("\x1b[1m")) << "a heading";
    EXPECT_TRUE(shows("channel_target"));
    ASSERT_TRUE(shows("> "));
    type("tail \x1b[A\x15tail one\n"); // the line before, thrown away again
    EXPECT_TRUE(shows("\r\none\r\n"));
    ASSERT_TRUE(shows("> "));
    EXPECT_TRUE(holds(history.text(), "tail\\040one")) << history.text();
    type("nobody-has-this\n");
    EXPECT_TRUE(shows("has no word"));
    ASSERT_TRUE(shows("> "));
    type("\x1a");
    EXPECT_TRUE(shows("zelctl " + std::to_string(target.pid()))) << "fg names what goes on";
    EXPECT_TRUE(wait_until([&] { return takes_keys(); }));
    type("threa\t\n");
    EXPECT_TRUE(shows("\x1b[1m"));
    type("help\n");
    EXPECT_TRUE(shows("unload LIBRARY..."));
    type("\x04");
    EXPECT_TRUE(shows("status=0"));
    EXPECT_TRUE(target.alive());
}

TEST_F(ZelctlPrompt, gives_up_a_command_but_not_the_prompt_when_it_is_interrupted) {
    ASSERT_TRUE(shows("> "));
    type("monitor alarm\n");
    EXPECT_TRUE(shows("ALARM: id="));
    type("\x03");
    EXPECT_TRUE(shows("> "));
    type("rubbish");
    EXPECT_TRUE(shows("rubbish"));
    type("\x03");
    EXPECT_TRUE(shows("> "));
    type("tail still-here\n");
    EXPECT_TRUE(shows("\r\nstill-here\r\n"));
    target.signal(SIGKILL);
    EXPECT_TRUE(shows("has ended"));
    EXPECT_TRUE(shows("status=7"));
}

} // namespace
