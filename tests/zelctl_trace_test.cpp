// SPDX-License-Identifier: MIT
//
// What the command-line client records into files, and shows on a live screen.
#include "support/Terminal.hpp"

namespace {

using namespace support;

class ZelctlTrace : public ::testing::Test {
protected:
    ZelctlTrace() { EXPECT_EQ("ready", target.line()); }

    Result ask(Words const& words) const { return zelctl(joined({pid}, words)); }

    // Whether somebody has the process record.
    bool recorded(std::string const& topic) const {
        return holds(ask({"process", "--json"}).output, "\"monitor\":\"" + topic + "\"");
    }

    // The loop's group, once nothing is left to do.
    Json resting() const {
        Json group;
        EXPECT_TRUE(wait_until([&] {
            group = objects(ask({"groups", "--json"}).output).at(0);
            return group["state"] == "sleeping" && !group.contains("in");
        }));
        return group;
    }

    Program target{{INSPECT_TARGET, "works"}};
    std::string const pid = std::to_string(target.pid());
    TempFile const file;
};

// The events of a file, looked at as a viewer does.
struct Trace {
    explicit Trace(std::string const& text) : whole(Json::parse(text, nullptr, false)) {
        struct Slice {
            double begin;
            double end;
        };
        std::map<std::pair<int, int>, std::vector<Slice>> open; // by track
        std::map<int, double> arrows;
        double now = 0;
        for (Json const& event : whole.is_object() ? whole["traceEvents"] : Json::array()) {
            if (event["ph"] == "M") {
                names.insert(event["args"]["name"]);
                continue;
            }
            double const at = event["ts"];
            EXPECT_LE(now, at) << "time runs backwards: " << event;
            now = at;
            if (event["ph"] == "X") {
                ++count[event["cat"]];
                double const end = at + event["dur"].get<double>();
                std::vector<Slice>& slices = open[{event["pid"], event["tid"]}];
                double const less_than_a_ns = 0.0005;
                while (!slices.empty() && slices.back().end <= at + less_than_a_ns)
                    slices.pop_back();
                EXPECT_TRUE(slices.empty() || end <= slices.back().end + less_than_a_ns)
                    << "not nested: " << event;
                slices.push_back({at, end});
            } else if (event["ph"] == "s") {
                EXPECT_TRUE(arrows.emplace(event["id"], at).second) << event;
            } else if (event["ph"] == "f") {
                // From before the dispatch in which the loop has found it to the handler inside.
                std::vector<Slice> const& slices = open[{event["pid"], event["tid"]}];
                bool const inside = slices.size() > 1 && slices.back().begin == at;
                EXPECT_TRUE(inside && arrows[event["id"]] < slices[slices.size() - 2].begin) << event;
                EXPECT_EQ("e", event["bp"]);
                EXPECT_EQ(1u, arrows.erase(event["id"])) << event;
            } else {
                ++count[event["cat"]];
            }
        }
        EXPECT_TRUE(arrows.empty());
    }

    Json const whole;
    std::map<std::string, unsigned long> count; // of slices and instants
    std::set<std::string> names;                // of tracks
};

TEST_F(ZelctlTrace, nests_and_agrees_with_what_the_process_has_counted_also_when_interrupted) {
    for (int const signo : {SIGINT, SIGTERM, SIGHUP}) {
        Program recording({ZELCTL, pid, "trace", "-o", file.path()});
        ASSERT_TRUE(wait_until([&] { return recorded("trace"); }));
        Json const before = resting();
        ask({"work", "50"});
        EXPECT_EQ("worked", target.line());
        Json const after = resting();
        ask({"inspect", "trace"}); // for which the process first hands out what it has
        recording.signal(signo);
        EXPECT_EQ("signal " + std::to_string(signo), recording.end());
        EXPECT_FALSE(recorded("trace"));

        Trace const trace(file.text());
        std::map<std::string, unsigned long> count = trace.count;
        auto const grown = [&](char const* what) {
            return after[what].get<unsigned>() - before[what].get<unsigned>();
        };
        EXPECT_EQ(0, trace.whole["otherData"]["lost"]);
        EXPECT_EQ(grown("turns"), count["turn"] + 1) << "all but that which had begun before";
        EXPECT_EQ(grown("dispatches"), count["fd"]);
        EXPECT_EQ(50u, count["task"]);
        EXPECT_EQ(1u, count["alarm"]);
        EXPECT_EQ(1u, count["signal"]);
        EXPECT_EQ(2u, count["arrival"]);
        EXPECT_EQ(50u + 49u, count["state"]);
        std::string name = proc(target.pid(), "comm"); // the emulator's, under one
        name.pop_back();
        EXPECT_EQ(1u, trace.names.count(name + " (group " + after["group"].dump() + ")"));
    }
}

TEST_F(ZelctlTrace,
       writes_the_whole_file_when_the_loop_is_stuck_or_the_process_dies_and_says_when_it_cannot) {
    ask({"work", "0"});
    Result result = ask({"trace", "-o", file.path(), "--for", "100ms", "--json"});
    EXPECT_EQ("exit 0", result.end) << result.errors;
    EXPECT_EQ(1, objects(result.output).at(0)["spans"]);
    EXPECT_TRUE(holds(file.text(), "\"unfinished\":true"));
    ask({"work", "1"});
    EXPECT_EQ("worked", target.line());

    EXPECT_TRUE(fails(ask({"trace"}), "exit 2", "takes a file"));
    EXPECT_TRUE(fails(ask({"trace", "-o", "/no/such/file"}), "exit 1", "No such file"));
    EXPECT_TRUE(fails(ask({"trace", "-o", "/dev/full", "--for", "10ms"}), "exit 1", "No space left"));
    Program recording({ZELCTL, pid, "trace", "-o", file.path()});
    ASSERT_TRUE(wait_until([&] { return recorded("trace"); }));
    ask({"work", "3"});
    EXPECT_EQ("worked", target.line());
    ask({"inspect", "trace"});
    target.signal(SIGKILL);
    EXPECT_TRUE(fails(Result(recording), "exit 7", "has ended"));
    EXPECT_EQ(3u, Trace(file.text()).count["task"]);
}

TEST_F(ZelctlTrace, top_shows_what_a_loop_is_stuck_in_and_gives_the_screen_back) {
    std::string const screen = "\x1b[?1049h";
    std::string const usual = "\x1b[?1049l";
    Terminal terminal(pid + " top --interval 100ms", file.path());
    EXPECT_TRUE(terminal.shows(screen));
    ask({"work", "50"});
    EXPECT_TRUE(terminal.shows("KIND"));
    EXPECT_TRUE(terminal.takes_keys());
    ask({"work", "0"});
    EXPECT_TRUE(terminal.shows("\x1b[1;31m"));
    EXPECT_TRUE(terminal.shows("stuck"));
    EXPECT_TRUE(terminal.shows("100.0  fd "));
    terminal.type("\x1a");
    EXPECT_TRUE(terminal.shows(usual));
    EXPECT_TRUE(terminal.shows(screen));
    EXPECT_TRUE(terminal.shows("stuck"));
    EXPECT_TRUE(wait_until([&] { return terminal.takes_keys(); }));
    terminal.type("q");
    EXPECT_TRUE(terminal.shows(usual));
    EXPECT_TRUE(terminal.shows("status=0"));
    EXPECT_FALSE(recorded("timing"));
    Terminal interrupted(pid + " top", file.path());
    EXPECT_TRUE(interrupted.shows(screen));
    interrupted.type("\x03");
    EXPECT_TRUE(interrupted.shows(usual));
    EXPECT_FALSE(recorded("timing"));
}

TEST_F(ZelctlTrace, top_prints_tables_where_nobody_looks_at_a_screen) {
    Program top({ZELCTL, pid, "top", "--json", "--limit", "10", "--interval", "200ms"});
    ASSERT_TRUE(wait_until([&] { return recorded("timing"); }));
    ask({"work", "1000"});
    Result const result(top);
    EXPECT_EQ("exit 0", result.end) << result.errors;
    std::map<std::string, unsigned> seen;
    for (Json const& row : objects(result.output))
        seen[row.value("kind", "group")] += row.value("calls/s", 0) > 0 ? 1 : 0;
    EXPECT_TRUE(seen.count("group") && seen["task"] > 0 && seen["alarm"] > 0 && seen["signal"] > 0)
        << result.output;
}

} // namespace
