// SPDX-License-Identifier: MIT
//
// The command-line client, as a script sees it: output, exit status, and what it never does.
#include <algorithm>

#include "support/Zelctl.hpp"

namespace {

using namespace support;

// As a shell starts it, with what runs programs for another processor before it.
std::string tool() {
    char const* const emulator = std::getenv("ZEL_TEST_EMULATOR");
    return (emulator ? std::string(emulator) + ' ' : std::string()) + ZELCTL;
}

// A process that logs the commands which it serves.
class Zelctl : public ::testing::Test {
protected:
    Zelctl() { EXPECT_EQ("ready", target.line()); }

    Result ask(Words const& words) const { return zelctl(joined({pid}, words)); }

    // One that follows the monitors, and has had a first line unless it must not wait for that.
    std::unique_ptr<Program> follow(Words const& monitors, bool waits = true) const {
        std::unique_ptr<Program> following(
            new Program(joined({ZELCTL, pid, "--follow", "0", "zel", "monitor"}, monitors)));
        EXPECT_TRUE(!waits || following->line().substr(0, 4) == "tid=");
        return following;
    }

    // The redirections of the shell are among the words.
    Result shell(std::string const& words) const {
        Program program({"/bin/sh", "-c", tool() + ' ' + pid + ' ' + words});
        return Result(program);
    }

    std::size_t times_served(std::string const& command) const {
        std::string const text = log.text();
        std::size_t count = 0;
        std::string const entry = "cmd='" + command + "'";
        for (std::string::size_type at = 0; (at = text.find(entry, at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    TempFile const log;
    Program target{{TARGET, "busy"}, {{"LOG_SINK", log.path()}}};
    std::string const pid = std::to_string(target.pid());
};

TEST_F(Zelctl, prints_the_whole_answer_and_nothing_else_or_says_that_lines_were_lost) {
    Result result = ask({"foo", "a b"});
    EXPECT_EQ("1/1 foo a b\n", result.output);
    EXPECT_TRUE(fails(result, "exit 8", "has no word \"foo\""));
    EXPECT_EQ("no end\n", ask({"tail", "no end"}).output);
    EXPECT_EQ("two\nlines\n", ask({"tail", "two\nlines"}).output);
    EXPECT_EQ("exit 8", ask({"two\nlines"}).end);
    EXPECT_EQ("", ask({"throw"}).output);
    EXPECT_EQ(std::string(300000, 'x') + '\n', ask({"line", "300000"}).output);
    result = ask({"lines", "20000"});
    EXPECT_EQ("exit 0", result.end) << result.errors;
    EXPECT_EQ(20000, std::count(result.output.begin(), result.output.end(), '\n'));
    for (std::string const command : {"lines 100000", "100000 x"}) {
        result = ask({command});
        EXPECT_TRUE(fails(result, "exit 1", "lines were lost"));
        EXPECT_FALSE(result.output.empty());
    }
    EXPECT_EQ("1/1 foo\n", ask({"foo"}).output);
}

TEST_F(Zelctl, lists_the_threads_although_they_go_to_a_monitor) {
    // Three threads of the target's own may still be starting.
    EXPECT_TRUE(wait_until([&] {
        std::string const output = ask({"zel  threads"}).output;
        return std::count(output.begin(), output.end(), '\n') == 6;
    }));
    Result const result = ask({"zel  threads"});
    EXPECT_EQ("exit 0", result.end) << result.errors;
    EXPECT_EQ(0u, result.output.find("Threads:\nthread: ")) << result.output;
    EXPECT_TRUE(holds(result.output, "thread: " + pid + " group=")) << result.output;

    // Many at once get it whole, and one that follows the monitor has it again afterwards.
    std::unique_ptr<Program> const following = follow({"poll"});
    std::vector<std::unique_ptr<Program>> several;
    for (int i = 0; i < 8; ++i)
        several.emplace_back(new Program({ZELCTL, pid, "--timeout", "20", "zel", "threads"}));
    for (std::unique_ptr<Program> const& one : several) {
        Result const listed(*one);
        EXPECT_EQ("exit 0", listed.end) << listed.errors;
        EXPECT_EQ(result.output, listed.output);
    }
    EXPECT_TRUE(wait_until([&] {
        std::string const text = log.text();
        return text.rfind("cmd='zel monitor poll'") > text.rfind("cmd='zel unmonitor poll'");
    })) << log.text();
    following->signal(SIGTERM);
    EXPECT_EQ("signal 15", following->end());
}

TEST_F(Zelctl, follows_a_process_until_it_ends) {
    std::unique_ptr<Program> const following = follow({"alarm", "task"});
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ("tid=", following->line().substr(0, 4));
    target.signal(SIGKILL); // and stays a zombie
    EXPECT_EQ("exit 0", Result(*following).end);
}

TEST_F(Zelctl, switches_off_what_it_has_switched_on_however_it_ends) {
    std::size_t served = 0;
    auto const switched_off = [&] {
        ++served;
        return wait_until([&] { return times_served("zel unmonitor alarm") == served; });
    };
    for (int const signo : {SIGINT, SIGTERM, SIGHUP}) {
        std::unique_ptr<Program> const following = follow({"alarm"});
        following->signal(signo);
        EXPECT_EQ("signal " + std::to_string(signo), Result(*following).end);
        EXPECT_TRUE(switched_off()) << signo;
    }
    EXPECT_EQ("exit 0", ask({"--follow", "0.05", "zel", "monitor", "alarm"}).end);
    EXPECT_TRUE(switched_off());
    EXPECT_TRUE(holds(ask({"zel", "monitor", "alarm"}).errors, "--follow"));
    EXPECT_TRUE(switched_off());
    EXPECT_EQ("tid=", shell("--follow 0 zel monitor alarm | head -n 1").output.substr(0, 4));
    EXPECT_TRUE(switched_off());
    target.stop();
    EXPECT_EQ("exit 6", ask({"--timeout", "0.2", "zel", "monitor", "alarm"}).end);
    target.signal(SIGCONT);
    EXPECT_TRUE(switched_off());
}

TEST_F(Zelctl, tells_the_one_that_loses_its_monitor) {
    std::unique_ptr<Program> const first = follow({"alarm"});
    std::unique_ptr<Program> const second = follow({"alarm"});
    EXPECT_TRUE(holds(first->error_line(), "another zelctl has taken the alarm monitor"));
    first->signal(SIGTERM);
    EXPECT_EQ("signal 15", Result(*first).end);
    EXPECT_EQ(0u, times_served("zel unmonitor alarm")) << "it is the second one's";
    EXPECT_EQ("exit 0", ask({"zel", "unmonitor", "alarm"}).end);
    EXPECT_TRUE(holds(second->error_line(), "another zelctl has switched off the alarm monitor"));
}

TEST_F(Zelctl, leaves_a_monitor_to_one_of_many_that_start_at_once_and_tells_the_others) {
    std::vector<std::unique_ptr<Program>> several;
    for (int i = 0; i < 6; ++i)
        several.push_back(follow({"alarm", "task"}, false));
    std::string told; // a line for each monitor that one has lost
    EXPECT_TRUE(wait_until([&] {
        for (std::unique_ptr<Program> const& one : several)
            told += one->error_line(1);
        return std::count(told.begin(), told.end(), '\n') >= 10;
    })) << told;
}

TEST_F(Zelctl, gives_up_on_a_stopped_process_and_says_where_to_look) {
    target.stop();
    Result const result = ask({"--timeout", "0.2", "foo"});
    EXPECT_TRUE(fails(result, "exit 6", "within 0.2 s"));
    EXPECT_TRUE(fails(result, "exit 6", "/proc/" + pid + "/status"));
    EXPECT_EQ("", result.output);
    target.signal(SIGCONT);
    EXPECT_EQ("1/1 foo\n", ask({"foo"}).output);
}

TEST_F(Zelctl, says_so_when_the_process_ends_instead_of_answering) {
    EXPECT_TRUE(fails(ask({"exit", "3"}), "exit 7", "process " + pid));
    EXPECT_EQ("exit 3", target.end());
}

TEST_F(Zelctl, reports_at_once_that_the_process_has_ended) {
    target.stop(); // its queue is not there yet, so connecting waits for its loop
    Program connecting({ZELCTL, pid, "--timeout", "1000", "foo"});
    ASSERT_TRUE(wait_until([&] { return in_mask(proc(target.pid(), "status"), "ShdPnd", 55); }));
    target.signal(SIGKILL); // and stays a zombie
    EXPECT_TRUE(fails(Result(connecting), "exit 4", "process " + pid + " has ended"));
    EXPECT_TRUE(fails(ask({"foo"}), "exit 4", "a zombie"));
}

TEST_F(Zelctl, fails_when_its_output_cannot_be_written) {
    TempFile const own; // which must not become the standard output
    setenv("LOG_SINK", own.path().c_str(), 1);
    for (std::string const closed : {">/dev/full", ">&-"})
        EXPECT_TRUE(fails(shell("zel fds " + closed), "exit 1", "zelctl: standard output")) << closed;
    unsetenv("LOG_SINK");
}

TEST_F(Zelctl, ends_by_the_signal_that_comes_while_its_last_lines_wait_for_a_reader) {
    int full[2];
    ASSERT_EQ(0, pipe2(full, O_CLOEXEC | O_NONBLOCK));
    while (write(full[1], "x", 1) == 1) {
    }
    for (std::string const words : {"--help", "--timeout 20 zel threads"}) {
        Program waiting({"/bin/sh", "-c", "exec " + tool() + ' ' + pid + ' ' + words + " >&0"}, {}, full[1]);
        // Beyond the moment at which it catches signals, and beyond the list.
        ASSERT_TRUE(wait_until([&] {
            return in_mask(proc(waiting.pid(), "status"), "SigCgt", SIGTERM) &&
                   (words == "--help" || times_served("zel threads") > 0);
        }));
        ASSERT_TRUE(waiting.sleeping());
        waiting.signal(SIGTERM);
        EXPECT_EQ("signal 15", waiting.end()) << words;
    }
    close(full[0]);
    close(full[1]);
}

TEST_F(Zelctl, shows_no_control_characters_on_a_terminal_and_raw_bytes_elsewhere) {
    std::string const text = "a\x1b[2J\x07\xff\xc2\x9b\xe2\x80\xae\xc3\xa4";
    EXPECT_EQ(text + '\n', ask({"tail", text}).output);
    int const terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(0, grantpt(terminal) | unlockpt(terminal));
    EXPECT_EQ("exit 0", shell("tail '" + text + "' >" + ptsname(terminal)).end);
    char shown[100];
    ssize_t const length = read(terminal, shown, sizeof shown);
    EXPECT_EQ("a\\x1b[2J\\x07\\xff\\xc2\\x9b\\xe2\\x80\\xae\xc3\xa4\r\n",
              std::string(shown, static_cast<std::size_t>(std::max<ssize_t>(length, 0))));
    close(terminal);
}

TEST(ZelctlRefusal, of_a_wrong_command_line_is_one_line_with_a_status_of_its_own) {
    for (Words const& words : {Words{},
                               {"0", "foo"},
                               {"-1", "foo"},
                               {"99999999999999999999", "foo"},
                               {"1", "--bogus", "foo"},
                               {"1", "--timeout", "x", "foo"},
                               {"1", "--timeout", "nan", "foo"},
                               {"1", "--follow", "-1", "foo"},
                               {"1", "--for", "5 years", "foo"},
                               {"1", "--limit", "-1", "foo"},
                               {"1", "--interval", "1ms", "top"},
                               {"ps", "-c", "foo"},
                               {"1", "-c", "foo", "bar"}}) {
        Result const result = zelctl(words);
        EXPECT_TRUE(fails(result, "exit 2", ""));
        EXPECT_EQ(result.errors.size() - 1, result.errors.find('\n')) << result.errors;
        EXPECT_LT(result.errors.size(), 120u);
        EXPECT_EQ("", result.output);
    }
}

TEST_F(Zelctl, says_which_process_a_thread_is_of) {
    std::string const thread = std::to_string(threads(target.pid()).rbegin()->first);
    EXPECT_TRUE(fails(zelctl({thread, "foo"}), "exit 4", "is a thread of process " + pid));
}

TEST(ZelctlRefusal, says_that_a_process_lives_in_another_namespace_and_how_to_ask_there) {
    Program elsewhere({"/usr/bin/unshare", "--net", TARGET});
    if (elsewhere.line() != "ready")
        GTEST_SKIP() << "no namespaces of its own for this user";
    EXPECT_TRUE(
        fails(zelctl({std::to_string(elsewhere.pid()), "foo"}), "exit 4", "another network namespace"));

    Program outer({"/usr/bin/unshare", "--pid", "--fork", "--kill-child", TARGET});
    ASSERT_EQ("ready", outer.line());
    std::string child = proc(outer.pid(), "task/" + std::to_string(outer.pid()) + "/children");
    child = child.substr(0, child.find(' '));
    Result const result = zelctl({child, "foo"});
    EXPECT_TRUE(fails(result, "exit 4", "another pid namespace"));
    EXPECT_TRUE(fails(result, "exit 4", "zelctl 1 ..."));
    kill(std::stoi(child), 55);
    EXPECT_TRUE(wait_until([] { return holds(proc(getpid(), "net/unix"), "@orn.msg.cmd.1\n"); }));
    EXPECT_FALSE(holds(zelctl({"ps"}).output, "\n1\t")) << "the queue of another one of this id";
}

TEST(ZelctlRefusal, of_a_process_that_serves_root_alone_says_so) {
    uid_t const nobody = 65534;
    Program target({TARGET, "secret"}, {}, -1, nobody);
    if (target.line() != "ready")
        GTEST_SKIP() << "only root can become another user, who can run the programs of this build tree";
    std::string const pid = std::to_string(target.pid());
    Program asking({ZELCTL, pid, "foo"}, {}, -1, nobody);
    EXPECT_TRUE(fails(Result(asking), "exit 5", "serves root alone"));
    EXPECT_EQ("1/1 foo\n", zelctl({pid, "foo"}).output);
}

TEST(ZelctlRefusal, leaves_a_process_without_the_library_alone) {
    Program sleeper({"/bin/sleep", "1000"});
    std::string const pid = std::to_string(sleeper.pid());
    ASSERT_TRUE(sleeper.sleeping());
    EXPECT_TRUE(fails(zelctl({pid, "foo"}), "exit 4", "has not loaded zel"));
    EXPECT_TRUE(sleeper.alive());
    sleeper.signal(SIGKILL);
    sleeper.end();
    EXPECT_EQ("exit 3", zelctl({pid, "foo"}).end);
}

} // namespace
