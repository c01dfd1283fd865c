// SPDX-License-Identifier: MIT
//
// The command-line client, as a script sees it: output, exit status, and what it never does.
#include <string>

#include <signal.h>

#include <gtest/gtest.h>

#include "support/Programs.hpp"

namespace {

using programs::Program;
using programs::Words;

struct Result {
    std::string end;
    std::string output;
    std::string errors;
};

Result zelctl(std::string const& pid, Words words) {
    words.insert(words.begin(), pid);
    words.insert(words.begin(), ZELCTL);
    Program program(words);
    Result result;
    result.output = program.rest();
    result.errors = program.errors();
    result.end = program.end();
    return result;
}

class Zelctl : public ::testing::Test {
protected:
    Zelctl() : target({TARGET, "busy"}) { EXPECT_EQ("ready", target.line()); }

    Result ask(Words const& words) { return zelctl(std::to_string(target.pid()), words); }

    Program target;
};

bool holds(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Zelctl, prints_the_whole_answer_and_nothing_else) {
    Result result = ask({"foo", "a b"});
    EXPECT_EQ("1/1 foo a b\n", result.output);
    EXPECT_EQ("", result.errors);
    EXPECT_EQ("exit 0", result.end);
    EXPECT_EQ("1/3 3\n2/3 3\n3/3 3\n", ask({"3"}).output);
    EXPECT_EQ("", ask({"0", "x"}).output);
    EXPECT_EQ("no end\n", ask({"tail", "no end"}).output);
    EXPECT_EQ("", ask({"throw"}).output);
    EXPECT_EQ(std::string(300000, 'x') + '\n', ask({"line", "300000"}).output);
    EXPECT_EQ("[zel] x: no such command\n", ask({"zel", "x"}).output);
}

TEST_F(Zelctl, lists_the_threads_although_they_go_to_a_monitor) {
    Result const result = ask({"zel", "threads"});
    EXPECT_EQ("exit 0", result.end);
    EXPECT_TRUE(holds(result.output, "Threads:")) << result.output;
    EXPECT_TRUE(holds(result.output, std::to_string(target.pid()))) << result.output;
}

TEST_F(Zelctl, follows_a_process_until_it_ends) {
    Program following(
        {ZELCTL, std::to_string(target.pid()), "--follow", "0", "zel", "monitor", "alarm", "task"});
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ("tid=", following.line().substr(0, 4));
    target.signal(SIGKILL);
    target.end();
    following.rest();
    EXPECT_EQ("exit 0", following.end());
}

TEST_F(Zelctl, says_so_when_the_process_ends_instead_of_answering) {
    Result const result = ask({"exit", "3"});
    EXPECT_EQ("exit 1", result.end);
    EXPECT_TRUE(holds(result.errors, "process " + std::to_string(target.pid()))) << result.errors;
    EXPECT_EQ("exit 3", target.end());
}

TEST_F(Zelctl, gives_up_on_a_stopped_process_and_says_where_to_look) {
    target.stop();
    Result const result = ask({"--timeout", "0.2", "foo"});
    EXPECT_EQ("exit 2", result.end);
    EXPECT_EQ("", result.output);
    EXPECT_TRUE(holds(result.errors, "within 0.2 s")) << result.errors;
    EXPECT_TRUE(holds(result.errors, "/proc/" + std::to_string(target.pid()) + "/status")) << result.errors;
    target.signal(SIGCONT);
    EXPECT_EQ("1/1 foo\n", ask({"foo"}).output);
}

TEST(ZelctlRefusal, leaves_a_process_without_the_library_alone) {
    Program sleeper({"/bin/sleep", "1000"});
    ASSERT_TRUE(sleeper.sleeping());
    Result const result = zelctl(std::to_string(sleeper.pid()), {"foo"});
    EXPECT_EQ("exit 1", result.end);
    EXPECT_TRUE(holds(result.errors, "does not catch signal 55")) << result.errors;
    EXPECT_TRUE(sleeper.alive());

    std::string const pid = std::to_string(sleeper.pid());
    sleeper.signal(SIGKILL);
    sleeper.end();
    EXPECT_EQ("exit 1", zelctl(pid, {"foo"}).end);
    for (std::string const bad : {"0", "-1", "abc"})
        EXPECT_NE("exit 0", zelctl(bad, {"foo"}).end);
    EXPECT_NE("exit 0", zelctl(pid, {}).end);
}

} // namespace
