// SPDX-License-Identifier: MIT
//
// Finding processes and attaching to them: which are found, which are left alone, and that none is harmed.
#include "support/Zelctl.hpp"

namespace {

using namespace support;

TEST(ZelctlAttach, ends_no_process_that_starts_or_ends_meanwhile) {
    char const* const more = std::getenv("ZELCTL_TEST_RACES");
    Program brood({BROOD, more ? more : "50"});
    std::deque<std::unique_ptr<Program>> asking;
    std::map<std::string, int> ends;
    auto const collect = [&] {
        Result const result(*asking.front());
        bool const expected =
            std::set<std::string>{"exit 3", "exit 4", "exit 6", "exit 7", "exit 8"}.count(result.end) != 0;
        EXPECT_TRUE(expected) << result.end << ": " << result.errors;
        ++ends[result.end];
        asking.pop_front();
    };
    std::string line = brood.line();
    for (; !line.empty() && line[0] != 'k'; line = brood.line()) {
        asking.emplace_back(new Program({ZELCTL, line, "--timeout", "2", "foo"}));
        if (asking.size() == 8)
            collect();
    }
    while (!asking.empty())
        collect();
    EXPECT_EQ("killed 0", line);
    EXPECT_GT(ends["exit 8"], 0) << "none was reached";
}

TEST(ZelctlAttach, reaches_the_program_that_a_process_has_gone_on_to) {
    Program process({BROOD, "twice", "5000"}); // takes the signal, and does not answer before its exec()
    ASSERT_EQ("twice", process.line());
    EXPECT_EQ("exit 8", zelctl({std::to_string(process.pid()), "foo"}).end);
}

TEST(ZelctlAttach, finds_processes_and_tells_how_to_reach_them) {
    std::string const names = "zt" + std::to_string(getpid()); // of no other process
    Program target({INSPECT_TARGET, "listings", names + "-one"});
    Program other({INSPECT_TARGET, "listings", names + "-two"});
    ASSERT_EQ("ready", target.line());
    ASSERT_EQ("ready", other.line());
    std::string const pid = std::to_string(target.pid());
    Words const ask = {"-c", "zel fds"};
    EXPECT_EQ("exit 0", zelctl(joined({names + "-o"}, ask)).end);

    Result const listed = zelctl({"ps", names, "--json"});
    std::map<int, Json> processes;
    for (Json const& process : objects(listed.output))
        processes[process["pid"]] = process;
    ASSERT_EQ(2u, processes.size()) << listed.output;
    Json const& one = processes[target.pid()];
    EXPECT_EQ(names + "-one", one["name"]);
    EXPECT_EQ("caught open yes", one["signal"].get<std::string>() + ' ' + one["channel"].get<std::string>() +
                                     ' ' + one["attach"].get<std::string>());
    EXPECT_EQ(threads(target.pid()).size(), one["threads"]);
    EXPECT_EQ("closed", processes[other.pid()]["channel"]);

    Result const several = zelctl(joined({names}, ask));
    EXPECT_TRUE(fails(several, "exit 3", "several processes"));
    EXPECT_TRUE(fails(several, "exit 3", pid + " (" + names + "-one)"));
    EXPECT_TRUE(fails(zelctl(joined({"no such name"}, ask)), "exit 3", "no process with zel"));
    EXPECT_EQ("exit 3", zelctl({"ps", "no such name"}).end);
    EXPECT_EQ("exit 3", zelctl(joined({"999999999"}, ask)).end);
}

TEST(ZelctlAttach, tells_that_a_process_blocks_the_signal) {
    Program target({"/usr/bin/env", "--block-signal=55", TARGET});
    if (target.line() != "ready")
        GTEST_SKIP() << "an env(1) that blocks no signals";
    std::string const pid = std::to_string(target.pid());
    EXPECT_TRUE(fails(zelctl({pid, "--timeout", "0.2", "foo"}), "exit 6", "all its threads block signal 55"));
    std::map<int, std::string> reasons;
    for (Json const& process : objects(zelctl({"ps", "--json"}).output))
        reasons[process["pid"]] = process["attach"];
    EXPECT_TRUE(holds(reasons[target.pid()], "all its threads block signal 55"));
    EXPECT_TRUE(target.alive());
}

TEST(ZelctlAttach, reaches_a_process_whose_main_thread_has_ended) {
    Program target({TARGET, "left", "busy"});
    ASSERT_EQ("ready", target.line());
    int const pid = target.pid();
    auto const states = [&] {
        std::map<int, std::string> of;
        for (Json const& thread : objects(zelctl({std::to_string(pid), "threads", "--json"}).output))
            of[thread["tid"]] = thread["state"];
        return of;
    };
    EXPECT_TRUE(wait_until([&] { return states()[pid] == "Z"; }));
    auto const reason = [&] {
        std::map<int, std::string> reasons;
        for (Json const& process : objects(zelctl({"ps", "--json"}).output))
            reasons[process["pid"]] = process["attach"];
        return reasons[pid];
    };
    EXPECT_EQ("yes", reason());
    target.signal(SIGSTOP);
    EXPECT_TRUE(wait_until([&] { return holds(reason(), "stopped: kill -CONT"); }));
    EXPECT_TRUE(fails(zelctl({std::to_string(pid), "--timeout", "0.2", "foo"}), "exit 6", "it is stopped"));
    target.signal(SIGCONT);
    EXPECT_TRUE(target.alive());
}

TEST(ZelctlAttach, tells_that_a_process_which_proc_hides_is_another_users) {
    Program target({TARGET});
    ASSERT_EQ("ready", target.line());
    std::string const ask =
        "exec setpriv --reuid=65534 --clear-groups " ZELCTL " " + std::to_string(target.pid());
    Program asking({"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
                    "mount -t proc -o hidepid=2 proc /proc || exit 77; " + ask + " foo"});
    Result const result(asking);
    if (result.end != "exit 5" && result.errors.compare(0, 8, "zelctl: ") != 0)
        GTEST_SKIP() << "only root may mount another /proc: " << result.errors;
    EXPECT_TRUE(fails(result, "exit 5", "ask as root"));
}

TEST(ZelctlAttach, leaves_the_handler_of_an_open_channel_alone_and_refuses_without_one) {
    Program target({TARGET, "default-55"});
    ASSERT_EQ("ready", target.line());
    std::string const pid = std::to_string(target.pid());
    EXPECT_TRUE(fails(zelctl({pid, "foo"}), "exit 4", "does not catch signal 55"));
    EXPECT_TRUE(target.alive());
}

} // namespace
