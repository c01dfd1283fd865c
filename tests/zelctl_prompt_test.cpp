// SPDX-License-Identifier: MIT
//
// The command-line client on a terminal: its prompt, its screen, keys, and how it leaves.
#include "support/Terminal.hpp"

namespace {

using namespace support;

class ZelctlPrompt : public ::testing::Test {
protected:
    ZelctlPrompt() { EXPECT_EQ("ready", target.line()); }

    void type(std::string const& keys) const { terminal.type(keys); }
    ::testing::AssertionResult shows(std::string const& text) { return terminal.shows(text); }

    TempFile const history;
    Program target{{TARGET, "busy"}};
    Terminal terminal{std::to_string(target.pid()), history.path()};
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
    type("zel fd\t\n");
    EXPECT_TRUE(shows("FdMgrs:")) << "a word of zel's";
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
    EXPECT_TRUE(wait_until([&] { return terminal.takes_keys(); }));
    type("threa\t\n");
    EXPECT_TRUE(shows("\x1b[1m"));
    type("help\n");
    EXPECT_TRUE(shows("unload LIBRARY..."));
    EXPECT_TRUE(shows("> ")) << "before that the terminal would take the key for itself";
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
    for (int i = 0; i < 2;
         ++i) { // Ctrl-Z is the screen's while it is there, and the shell's again afterwards
        type("top\n");
        ASSERT_TRUE(shows("\x1b[?1049h"));
        type("\x1a");
        EXPECT_TRUE(shows("\x1b[?1049l"));
        ASSERT_TRUE(shows("\x1b[?1049h"));
        type("q");
        ASSERT_TRUE(shows("> "));
    }
    type("monitor alarm\n");
    EXPECT_TRUE(shows("ALARM: id="));
    type("\x1a");
    EXPECT_TRUE(shows("zelctl " + std::to_string(target.pid()))) << "fg names what goes on";
    target.signal(SIGKILL);
    EXPECT_TRUE(shows("has ended"));
    EXPECT_TRUE(shows("status=7"));
}

TEST(ZelctlTop, fits_the_screen_and_gives_it_back_however_it_ends) {
    TempFile const history;
    // A signal to the client, or SIGKILL to the process that it looks into, or the key that leaves.
    std::map<int, std::string> const ends = {
        {0, "status=0"}, {SIGTERM, "status=143"}, {SIGHUP, "status=129"}, {SIGKILL, "status=7"}};
    for (auto const& end : ends) {
        Program target({TARGET, "busy"});
        ASSERT_EQ("ready", target.line());
        Terminal terminal(std::to_string(target.pid()) + " top --interval 1000s", history.path());
        ASSERT_TRUE(terminal.shows("\x1b[?1049h")) << "the other screen";
        ASSERT_TRUE(terminal.shows("BUSY%  IN\x1b[0m"));
        EXPECT_TRUE(terminal.takes_keys());
        terminal.resize(4, 7);
        EXPECT_TRUE(terminal.shows("GROUP  \x1b[0m"));
        if (end.first == 0)
            terminal.type("q");
        else if (end.first == SIGKILL)
            target.signal(SIGKILL);
        else
            terminal.signal(end.first);
        EXPECT_TRUE(terminal.shows("\x1b[?1049l")) << end.second;
        EXPECT_TRUE(terminal.shows(end.second));
        EXPECT_FALSE(terminal.takes_keys());
    }
}

} // namespace
