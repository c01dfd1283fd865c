// SPDX-License-Identifier: MIT
//
// The words of the command-line client's own: views, monitors, libraries, and several commands at once.
#include <fstream>

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Zelctl.hpp"

namespace {

using namespace support;

class ZelctlWords : public ::testing::Test {
protected:
    // Commands behind -c, so that words are read as they are where blanks stand in them.
    Result ask(Program const& program, Words const& commands, Words words = {}) const {
        words.insert(words.begin(), {std::to_string(program.pid())});
        for (std::string const& command : commands)
            words.insert(words.end(), {"-c", command});
        return zelctl(words);
    }
    Result ask(Words const& commands) const { return ask(target, commands); }
    std::string first_line(std::string const& text) const { return text.substr(0, text.find('\n')); }

    Program target{{INSPECT_TARGET, "objects"}};
    Program const plain{{INSPECT_TARGET, "listings"}};
    std::string const ready = target.line();
};

TEST_F(ZelctlWords, show_the_objects_that_the_process_tells) {
    EXPECT_EQ("ALARM\tTHREAD\tDUE IN MS\tPERIOD MS\tFIRED\n7\t12345\t40\t-\t-\n123\t9\t1\t-\t3\n",
              ask({"alarms"}).output);
    EXPECT_EQ("ALARM  THREAD  DUE IN MS  PERIOD MS  FIRED\n"
              "    7   12345         40          -      -\n"
              "  123       9          1          -      3\n",
              ask(target, {"alarms"}, {"--table"}).output);
    Result result = ask({"tasks"});
    EXPECT_EQ("TASK\tNAME\n1\ta\\x09b\\x1b[2J\n", result.output) << "cells stay cells";
    EXPECT_TRUE(fails(result, "exit 1", "lines were lost"));
    std::string const heading = first_line(ask({"signals"}).output);
    EXPECT_EQ(63, std::count(heading.begin(), heading.end(), '\t')) << "columns that anybody may add";
    EXPECT_EQ("a\tb\x1b[2J", objects(ask(target, {"tasks"}, {"--json"}).output).at(0)["name"]);
    EXPECT_EQ("WORD\tLIBRARY\nstation\tlibx.so\n", ask({"words"}).output);
    EXPECT_TRUE(fails(ask({"fds"}), "exit 1", "no such thing to inspect, it knows: alarms"));
    EXPECT_TRUE(fails(ask({"top --limit 1"}), "exit 1", "cannot tell: not enough memory"));
    EXPECT_TRUE(fails(ask({"statoin 1"}), "exit 8", "did you mean: station"));
    EXPECT_TRUE(fails(ask({"taks 1"}), "exit 8", "did you mean: tasks"));
    EXPECT_TRUE(fails(ask({"inspect fds"}), "exit 8", "inspect has no word \"fds\": it has alarms"));
    EXPECT_TRUE(fails(ask({"fds 1"}), "exit 2", "no words behind it"));
}

TEST_F(ZelctlWords, show_listings_where_the_process_tells_no_objects) {
    for (Json const& thread : objects(ask(plain, {"threads"}, {"--json"}).output)) {
        if (thread["tid"] == plain.pid()) {
            EXPECT_EQ(proc(plain.pid(), "comm"), thread["name"].get<std::string>() + '\n');
            EXPECT_EQ("S", thread["state"]);
        }
    }
    std::vector<Json> const groups = objects(ask(plain, {"groups"}, {"--json"}).output);
    ASSERT_EQ(2u, groups.size()) << "the loop's and the command thread's";
    EXPECT_EQ(Json({plain.pid()}), groups[0]["members"]);
    std::vector<Json> const fds = objects(ask(plain, {"fds"}, {"--json"}).output);
    ASSERT_FALSE(fds.empty());
    EXPECT_EQ("pipe:", fds[0]["path"].get<std::string>().substr(0, 5));
    EXPECT_EQ("[", ask(plain, {"signals"}).output.substr(0, 1));
    EXPECT_TRUE(fails(ask(plain, {"alarms"}), "exit 1", "does not have inspect alarms"));
}

TEST_F(ZelctlWords, come_several_at_once_and_the_first_failure_decides) {
    Result const result = ask({"zel fds", "no-such-word", "monitor nothing", "a-b"});
    EXPECT_EQ("exit 8", result.end);
    EXPECT_TRUE(holds(result.output, "FdMgrs:") && holds(result.output, "1/1 a-b")) << result.output;
    EXPECT_TRUE(holds(result.errors, "monitor takes any of")) << result.errors;
    Program lines({"/bin/sh", "-c",
                   "printf 'zel fds\\n\\nzel sing\\n' | $ZEL_TEST_EMULATOR " ZELCTL " " +
                       std::to_string(target.pid())});
    EXPECT_TRUE(fails(Result(lines), "exit 8", "zel has no word \"sing\""));
    EXPECT_EQ("1/1 threads\n", ask(target, {"threads"}, {"--raw"}).output);
}

TEST_F(ZelctlWords, print_what_happens_until_it_is_enough) {
    Program busy({TARGET, "busy"});
    ASSERT_EQ("ready", busy.line());
    Result result = ask(busy, {"monitor alarm --limit 3"});
    EXPECT_EQ("exit 0", result.end) << result.errors;
    EXPECT_EQ(3, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
    EXPECT_EQ(" tid=", result.output.substr(15, 5)) << "12:34:56.123456 tid=...";
    result = ask(busy, {"monitor thread alarm --for 100ms --json"});
    EXPECT_EQ("exit 0", result.end) << result.errors;
    Json const line = objects(result.output).at(0);
    EXPECT_EQ("alarm", line["monitor"]);
    EXPECT_EQ("ALARM: id=", line["text"].get<std::string>().substr(0, 10));
    EXPECT_TRUE(threads(busy.pid()).count(line["tid"])) << line;

    result = ask(busy, {"monitor alarm --for 500ms", "tail own"});
    EXPECT_FALSE(holds(result.output, "inspect")) << "asked by the tool itself: " << result.output;
    EXPECT_TRUE(holds(result.output, "\nown\n"));

    Program following({ZELCTL, std::to_string(busy.pid()), "monitor", "alarm", "task"});
    EXPECT_TRUE(holds(following.line(), "tid="));
    EXPECT_EQ("exit 0", ask(busy, {"zel unmonitor alarm"}).end);
    EXPECT_TRUE(holds(following.error_line(), "another zelctl has switched off the alarm monitor"));
    Program const client({CLIENT, std::to_string(busy.pid()), "follow", "zel monitor task"});
    EXPECT_TRUE(fails(Result(following), "exit 1",
                      "process " + std::to_string(client.pid()) + " has taken the task monitor"));
    Program until_its_end({ZELCTL, std::to_string(busy.pid()), "monitor", "alarm"});
    EXPECT_TRUE(holds(until_its_end.line(), "ALARM: id="));
    busy.signal(SIGKILL);
    EXPECT_TRUE(fails(Result(until_its_end), "exit 7", "has ended"));
}

TEST_F(ZelctlWords, load_only_what_the_process_can_take) {
    TempFile const text;
    std::ofstream(text.path()) << "no library";
    TempFile const foreign; // the same but for its byte order and machine
    std::string head = text_of(MODULE).substr(0, EI_NIDENT + 4);
    head[EI_DATA] = head[EI_DATA] == ELFDATA2LSB ? ELFDATA2MSB : ELFDATA2LSB;
    std::swap(head[EI_NIDENT], head[EI_NIDENT + 1]);
    std::ofstream(foreign.path()) << head;
    TempFile const cut; // would end the process with SIGBUS
    std::ofstream(cut.path()) << text_of(MODULE).substr(0, 5000);
    EXPECT_TRUE(fails(ask({"load /no/such/file"}), "exit 1", "No such file"));
    EXPECT_TRUE(fails(ask({"load " + text.path()}), "exit 1", "is no shared library"));
    ASSERT_EQ(0, unlink(text.path().c_str()) | mkfifo(text.path().c_str(), 0600));
    EXPECT_TRUE(fails(ask({"load " + text.path()}), "exit 1", "is no shared library"));
    EXPECT_TRUE(fails(ask({"load " + foreign.path()}), "exit 1", "is for"));
    EXPECT_TRUE(fails(ask({"load " + cut.path()}), "exit 1", "is cut short"));
    EXPECT_TRUE(fails(ask({"load libno-such.so"}), "exit 1", "libno-such.so: cannot open"));
    EXPECT_TRUE(fails(zelctl({std::to_string(target.pid()), "load", "a b"}), "exit 2", "holds a blank"));

    std::string const module = MODULE;
    EXPECT_EQ(module + ": loaded\n", ask({"load /./" + module.substr(1)}).output) << "made plain";
    EXPECT_TRUE(holds(ask({"hello you"}).output, "hello you, from process"));
    EXPECT_EQ(module + ": unloaded\n", ask({"unload " + module}).output);
    EXPECT_TRUE(fails(ask({"unload " + module}), "exit 1", "not found"));
}

TEST_F(ZelctlWords, leave_the_process_as_it_was_when_the_client_is_killed_or_stopped) {
    Program busy({TARGET, "busy"});
    ASSERT_EQ("ready", busy.line());
    EXPECT_EQ("exit 0", ask(busy, {"zel fds"}).end);
    std::size_t const before = threads(busy.pid()).size();
    std::size_t const descriptors = support::descriptors(busy.pid()).size();
    for (int i = 0; i < 5; ++i) {
        Program client({ZELCTL, std::to_string(busy.pid()), "monitor", "alarm", "task"});
        EXPECT_TRUE(holds(client.line(), "tid="));
        client.signal(SIGKILL);
        EXPECT_EQ("signal 9", client.end());
    }
    Program stopped({ZELCTL, std::to_string(busy.pid()), "monitor", "task", "--for", "100ms"});
    EXPECT_TRUE(holds(stopped.line(), "tid="));
    stopped.stop();
    EXPECT_EQ("exit 0", ask(busy, {"zel fds"}).end); // the pipe of the stopped one is full by now, or soon
    std::string slices = ask(busy, {"slices"}).output;
    EXPECT_TRUE(wait_until([&] { return ask(busy, {"slices"}).output != slices; })) << "the target waits";
    stopped.signal(SIGCONT);
    EXPECT_EQ("exit", Result(stopped).end.substr(0, 4));
    EXPECT_EQ(before, threads(busy.pid()).size());
    EXPECT_LE(support::descriptors(busy.pid()).size(), descriptors + 64)
        << "only those of clients that have gone";
}

// compgen of bash carries out what stands in its list.
TEST(ZelctlCompletion, offers_processes_and_words_but_nothing_that_a_shell_might_carry_out) {
    TempFile const hit;
    char const* const script = R"(
        source "$COMPLETION"
        table() { local IFS=$'\t'; echo "$*"; }
        zelctl() {
            case $* in
            ps) table PID USER NAME; table 1 root "$NAME" 4 5 open yes; table 2 root one-more 4 5 open yes ;;
            *words) table WORD; table "$NAME"; table 'a;b'; table say ;;
            esac
        }
        complete_line() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _zelctl; echo ${COMPREPLY[*]}; }
        complete_line zelctl ''
        complete_line zelctl o
        complete_line zelctl one-more s
        complete_line zelctl 2 monitor a)";
    Program bash({"/bin/bash", "--norc", "-c", script},
                 {{"COMPLETION", COMPLETION}, {"NAME", "$(echo hit >" + hit.path() + ")"}});
    Result const result(bash);
    EXPECT_EQ("ps 1 2 one-more\none-more\nsignals say\nalarm\n", result.output) << result.errors;
    EXPECT_EQ("", hit.text());
}

} // namespace
