// SPDX-License-Identifier: MIT
//
// The word "inspect" and its lines of JSON, as a client's program reads them: what it tells of the process,
// its threads, tasks, alarms and signals. inspectLoop_test is about loops.
#include <thread>

#include <sys/prctl.h>

#include <nlohmann/json.hpp>

#include "../src/cmd.hpp"
#include "../src/inspect.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using Json = nlohmann::json;

namespace {

class Inspect : public Loop {
protected:
    Inspect() {
        cmd::load_words();
        detail::zel_inspect_load();
    }
    ~Inspect() override { cmd::unload_words(); }

    // The objects of an answer. The last one has told that they are all.
    std::vector<Json> ask(std::string const& what) {
        cmd::ProcessCommand("inspect " + what, answers.WriteFD());
        std::vector<std::string> lines;
        split(take(answers.ReadFD()), "\n", lines);
        std::vector<Json> objects;
        for (std::string const& line : lines)
            objects.push_back(Json::parse(line));
        last = objects.back();
        objects.pop_back();
        EXPECT_EQ(true, last["end"]);
        EXPECT_EQ(objects.size() + last["lost"].get<std::size_t>(), last["objects"]);
        for (Json const& object : objects)
            EXPECT_EQ(what.substr(0, 64), object["inspect"]);
        return objects;
    }

    // The first object with this value.
    Json find(std::string const& what, char const* key, Json const& value) {
        for (Json const& object : ask(what)) {
            if (object[key] == value)
                return object;
        }
        return {};
    }

    Json last; // line of the latest answer
    orn::os::Pipe const answers{false};
};

TEST_F(Inspect, tells_of_the_process_its_threads_and_who_brought_a_word) {
    prctl(PR_SET_NAME, "a \"b\"\n\xff\xc3\xa4");
    RegisterCommandModule("mine", [](std::string const&, int) {});
    task::Monitor("", 2);
    Json const process = ask("process").at(0);
    task::Unmonitor("", -1);
    EXPECT_EQ(getpid(), process["pid"]);
    EXPECT_EQ("a \"b\"\n\u00ff\u00e4", process["name"])
        << "a byte that is no UTF-8 is the character of that number";
    EXPECT_LT(process["start_ns"], process["now_ns"]);
    EXPECT_EQ(8 * sizeof(void*), process["width"]);
    EXPECT_EQ(Json::parse(R"([{"monitor": "task", "fd": 2}])"), process["observers"]);
    std::map<std::string, Json> words;
    for (Json const& word : process["words"])
        words[word["word"]] = word["library"];
    EXPECT_EQ(process["program"], words["mine"]);
    EXPECT_EQ(1u, words.count("inspect"));
    UnregisterCommandModule("mine");

    GroupId();
    Json const self = find("threads", "tid", thread::self());
    EXPECT_EQ(process["name"], self["name"]);
    EXPECT_EQ(GroupId(), self["group"]);
    Json const refusal = ask("nothing").at(0);
    EXPECT_EQ("no such thing to inspect", refusal["error"]);
    EXPECT_EQ("process", refusal["known"].at(0));
}

TEST_F(Inspect, tells_of_alarms_tasks_and_signals_of_every_thread) {
    Alarm const once(60000, [] {});
    Alarm const again(0, 50000, [] {});
    int slices = 0;
    Task sleeper([&](task::Controller* task) {
        ++slices;
        task->Sleep();
    });
    sleeper.Name("tab\t\"");
    sleeper.Run();
    std::unique_ptr<Alarm> left;
    std::thread([&] { left = std::make_unique<Alarm>(60000, [] {}); }).join();
    signal::AutoReceptor const watched(SIGUSR1, [](int) {});
    raise(SIGUSR1);
    EXPECT_TRUE(run_until([&] { return !find("alarms", "fired", 1).empty(); }));
    settle();
    std::vector<Json> tasks;
    std::vector<Json> alarms;
    Json signal;
    std::thread([&] { // any thread may ask
        tasks = ask("tasks");
        alarms = ask("alarms");
        signal = find("signals", "signal", SIGUSR1);
    })
        .join();
    ASSERT_EQ(3u, alarms.size());
    EXPECT_EQ(0, alarms[2]["thread"]) << "that thread has ended";
    if (alarms[0]["period_ms"] != 0)
        alarms[0].swap(alarms[1]);
    EXPECT_EQ((Json{0, 50000, 0, 1}),
              (Json{alarms[0]["period_ms"], alarms[1]["period_ms"], alarms[0]["fired"], alarms[1]["fired"]}));
    EXPECT_NEAR(60000, alarms[0]["due_in_ms"].get<int>(), 5000);
    EXPECT_NEAR(50000, alarms[1]["due_in_ms"].get<int>(), 5000);
    EXPECT_EQ(thread::self(), alarms[0]["thread"]);
    ASSERT_EQ(1u, tasks.size());
    tasks[0].erase("task");
    EXPECT_EQ((Json{{"inspect", "tasks"},
                    {"name", "tab\t\""},
                    {"thread", thread::self()},
                    {"slices", 1},
                    {"state", "sleeping"}}),
              tasks[0]);
    EXPECT_EQ((Json{{"inspect", "signals"},
                    {"signal", SIGUSR1},
                    {"name", "SIGUSR1"},
                    {"thread", thread::self()},
                    {"handlers", 1},
                    {"arrivals", 1}}),
              signal);
}

TEST_F(Inspect, says_how_many_lines_a_pipe_has_no_room_for) {
    std::vector<std::unique_ptr<Task>> tasks;
    for (int i = 0; i < 2000; ++i) {
        tasks.push_back(std::make_unique<Task>([](task::Controller* task) { task->Sleep(); }));
        tasks.back()->Run();
    }
    // Texts that do not fit behind each other in a page leave much less room than there are bytes.
    for (int const texts : {0, 10}) {
        for (int i = 0; i < texts; ++i)
            put(answers.WriteFD(), std::string(2100, ' '));
        std::size_t const told = ask("tasks").size();
        EXPECT_LT(100u, told);
        EXPECT_EQ(2000u, last["objects"]) << "with those that were lost";
        EXPECT_EQ(2000u - told, last["lost"]);
    }
    std::string const long_word(4000, '"');
    RegisterCommandModule(long_word, [](std::string const&, int) {});
    EXPECT_EQ(1u, ask("process").size()) << "a line that is longer than a page";
    UnregisterCommandModule(long_word);
    EXPECT_EQ(1u, ask(long_word).size());
}

TEST_F(Inspect, answers_while_threads_register_and_withdraw_all_the_time) {
    std::atomic<bool> done{false};
    std::vector<std::unique_ptr<Member>> storm;
    struct End {
        ~End() { done = true; }
        std::atomic<bool>& done;
    } const end{done};
    for (int i = 0; i < 3; ++i) {
        storm.push_back(std::make_unique<Member>([&] {
            NewThreadGroup();
            while (!done) {
                signal::AutoReceptor const watched(SIGUSR2, [](int) {});
                WatchedPipe const pipe;
                Alarm const alarm(0, 1, [] {});
                Task task([](task::Controller*) {});
                task.Run();
                pipe.feed();
                RunOnce(1);
                RunOnce(0);
            }
        }));
    }
    std::vector<std::string> known = ask("nothing").at(0)["known"];
    for (int round = 0; round < 100; ++round) {
        for (std::string const& what : known) {
            if (what != "trace" && what != "timing")
                ask(what);
        }
    }
}

} // namespace
