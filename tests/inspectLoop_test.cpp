// SPDX-License-Identifier: MIT
//
// What the word "inspect" tells of loops that run, sleep and are stuck: groups, descriptors, traces and
// times.
#include <nlohmann/json.hpp>

#include <orn/os/Thread.hpp>

#include "../src/inspect.hpp"
#include "../src/loopRecord.hpp"
#include "../src/trace.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using Json = nlohmann::json;
using Objects = std::vector<Json>;

namespace {

// A client in this process, whose answers come from the command thread.
class Viewer {
public:
    Viewer() : channel_(connect()) {}

    // The objects of the answer.
    Objects ask(std::string const& what) {
        std::string const topic = what.substr(0, what.find(' '));
        answers_[topic].clear();
        ended_ = false;
        channel_.Command("inspect " + what);
        EXPECT_TRUE(run_until([this] { return ended_; })) << what;
        return answers_[topic];
    }

    // The object that has this value under the key; null when there is none.
    Json find(std::string const& what, std::string const& key, Json const& value) {
        for (Json const& object : ask(what)) {
            if (object.value(key, Json()) == value)
                return object;
        }
        return {};
    }

    bool observed(std::string const& monitor) {
        Json const process = ask("process").at(0);
        return std::any_of(process["observers"].begin(), process["observers"].end(),
                           [&](Json const& each) { return each["monitor"] == monitor; });
    }

    Objects spans;           // of the trace, all groups
    std::map<int, int> lost; // by group

private:
    cmd::Channel connect() {
        cmd::InstallCommandChannel();
        return Connect(getpid(), [this](std::string const& line) { take(line); });
    }

    void take(std::string const& line) {
        if (line.compare(0, 9, "received ") == 0)
            return;
        Json const object = Json::parse(line, nullptr, false);
        ASSERT_FALSE(object.is_discarded()) << line;
        if (object.contains("lost") && !object.contains("end"))
            lost[object.value("group", 0)] += object["lost"].get<int>();
        if (object["inspect"] == "trace" && object.contains("events")) {
            for (Json const& event : object["events"])
                spans.push_back({{"group", object["group"]},
                                 {"begin", event[0]},
                                 {"end", event[0].get<std::uint64_t>() + event[1].get<std::uint64_t>()},
                                 {"kind", event[2]},
                                 {"id", event[3]},
                                 {"tid", event[4]},
                                 {"late", event.size() > 5 ? event[5] : Json(0)}});
        } else if (object.contains("end")) {
            ended_ = true;
        } else {
            answers_[object["inspect"]].push_back(object);
        }
    }

    std::map<std::string, Objects> answers_;
    bool ended_ = false;
    cmd::Channel channel_;
};

// A thread with a group of its own that does what it is told.
class Worker {
public:
    Worker() : thread_([this] { serve(); }) {
        run([this] {
            NewThreadGroup();
            group = static_cast<int>(GroupId());
            tid = thread::self();
        });
    }
    ~Worker() {
        begin({});
        thread_.join();
    }

    void begin(std::function<void()> const& job) {
        {
            std::lock_guard<std::mutex> const guard(mutex_);
            jobs_.push_back(job);
        }
        changed_.notify_one();
    }
    void end() { ASSERT_TRUE(done_.reaches(jobs_.size())); }
    void run(std::function<void()> const& job) {
        begin(job);
        end();
    }

    int group = 0;
    int tid = 0;

private:
    void serve() {
        for (std::size_t next = 0;; ++next) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return next < jobs_.size(); });
            std::function<void()> const job = jobs_[next];
            lock.unlock();
            if (!job)
                return;
            job();
            done_.up();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::function<void()>> jobs_;
    Count done_;
    std::thread thread_;
};

// The command channel, with its words.
struct Channel {
    Channel() {
        cmd::zel_cmd_load();
        detail::zel_inspect_load();
    }
    ~Channel() {
        cmd::stop_channel();
        detail::zel_inspect_unload();
        cmd::zel_cmd_unload();
    }
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;
};

class InspectLoop : public Loop {
protected:
    Json look() { return viewer.find("groups", "group", worker.group); }

    Channel const channel;
    Viewer viewer;
    Worker worker;
};

TEST_F(InspectLoop, a_stuck_loop_is_seen_in_each_kind_of_callback) {
    std::unique_ptr<WatchedPipe> pipe;
    std::unique_ptr<signal::AutoReceptor> watched;
    std::atomic<int> id(0);
    using Handler = std::function<void()>;
    struct {
        std::string kind;
        std::function<void(Handler const&)> start; // makes the callback due, and tells its number
    } const scenes[] = {
        {"fd",
         [&](Handler const& handler) {
             pipe = std::make_unique<WatchedPipe>(handler);
             pipe->feed();
             id = pipe->ReadFD();
         }},
        {"alarm",
         [&](Handler const& handler) { id = static_cast<int>(alarm::manager()->AddAlarm(0, 0, handler)); }},
        {"signal",
         [&](Handler const& handler) {
             watched = std::make_unique<signal::AutoReceptor>(SIGUSR2, [handler](int) { handler(); });
             raise(id = SIGUSR2);
         }},
        {"task", [&](Handler const& handler) {
             RunTask([&id, handler](task::Controller* self) {
                 id = static_cast<int>(dynamic_cast<task::ControllerImpl&>(*self).id().value());
                 self->Complete();
                 handler();
             });
         }}};
    for (auto const& scene : scenes) {
        SCOPED_TRACE(scene.kind);
        Count entered;
        Count released;
        worker.begin([&] {
            scene.start([&] {
                // No lock of the library's that a handler may have keeps anybody from being told of it.
                AutoLock const group(*thread::ThisGroup());
                AutoLock const monitors(thread::FdMgr()->monitors());
                entered.up();
                released.reaches(1);
                if (scene.kind == "task")
                    throw std::runtime_error("out");
            });
            while (entered.value() == 0) {
                try {
                    RunOnce(-1);
                } catch (std::runtime_error const&) {
                }
            }
        });
        ASSERT_TRUE(entered.reaches(1));
        Json const stuck = look();
        EXPECT_EQ("callback", stuck["state"]);
        EXPECT_EQ(scene.kind, stuck["in"]["kind"]);
        EXPECT_EQ(id.load(), stuck["in"]["id"]);
        EXPECT_LE(stuck["turn_began_ns"], stuck["in"]["since_ns"]);
        EXPECT_EQ(worker.tid, stuck["runner"]);
        EXPECT_EQ(Json::array({worker.tid}), stuck["members"]);
        EXPECT_EQ(true, viewer.find("fds", "thread", worker.tid)["busy"]);
        released.up();
        worker.end();
        EXPECT_EQ("idle", look()["state"]);
        EXPECT_FALSE(look().contains("in"));
        EXPECT_EQ(0, look()["depth"]);
    }
    worker.run([&] {
        pipe.reset();
        watched.reset();
    });
}

TEST_F(InspectLoop, what_is_counted_is_exact_and_a_nested_sleep_is_told_with_the_callback_around_it) {
    std::unique_ptr<WatchedPipe> pipe;
    std::unique_ptr<WatchedPipe> inner;
    worker.run([&] {
        inner = std::make_unique<WatchedPipe>();
        pipe = std::make_unique<WatchedPipe>([&] {
            if (pipe->calls == 6)
                RunOnce(-1);
        });
        settle();
    });
    Json const before = look();
    EXPECT_EQ(2, before["descriptors"]);
    worker.run([&] {
        for (int i = 0; i < 5; ++i) {
            pipe->feed();
            RunOnce(-1);
        }
        EXPECT_EQ(0, RunOnce(0));
    });
    Json after = look();
    EXPECT_EQ(6, after["turns"].get<int>() - before["turns"].get<int>());
    EXPECT_EQ(5, after["dispatches"].get<int>() - before["dispatches"].get<int>());
    EXPECT_EQ(before["rebuilds"], after["rebuilds"]);
    Json const fd = viewer.find("fds", "fd", pipe->ReadFD());
    EXPECT_EQ(5, fd["dispatches"]);
    EXPECT_EQ("IN", fd["event_names"]);
    EXPECT_EQ(false, fd["expired"]);
    EXPECT_EQ(0u, fd["path"].get<std::string>().find("pipe:["));

    worker.begin([&] {
        pipe->feed();
        RunOnce(-1);
    });
    ASSERT_TRUE(wait_until([&] { return look()["state"] == "sleeping"; }));
    after = look();
    EXPECT_EQ(2, after["depth"]);
    EXPECT_EQ(pipe->ReadFD(), after["in"]["id"]);
    inner->feed();
    worker.run([&] {
        pipe.reset();
        inner.reset();
    });
    EXPECT_EQ("idle", look()["state"]);
}

// Work of all kinds, with a nested turn and a move to another group in the midst.
void make_spans(int rounds) {
    int alarms = 0;
    int slices = 0;
    signal::AutoReceptor const watched(SIGUSR2, [](int) {});
    WatchedPipe const inner;
    WatchedPipe const pipe([&] {
        inner.feed();
        RunOnce(-1);
    });
    orn::zel::Alarm const ticks(1, 1, [&] { ++alarms; });
    RunTask([&](task::Controller* self) {
        if (++slices >= rounds)
            self->Complete();
        else if (slices % 7 == 0)
            RunOnce(0);
    });
    for (int i = 0; i < rounds || alarms == 0 || slices < rounds; ++i) {
        pipe.feed();
        if (i % 10 == 0)
            raise(SIGUSR2);
        RunOnce(-1);
    }
}

TEST_F(InspectLoop, a_trace_nests_and_agrees_with_the_counters_and_the_times) {
    Json const before = look();
    EXPECT_EQ("on", viewer.ask("trace on").at(0)["trace"]);
    EXPECT_EQ("on", viewer.ask("timing on").at(0)["timing"]);
    worker.run([] { make_spans(100); });
    Objects const times = viewer.ask("timing");
    EXPECT_EQ("off", viewer.ask("trace off").at(0)["trace"]);
    EXPECT_EQ(0, viewer.lost[worker.group]);
    Json const after = look();

    std::map<std::string, int> count;
    std::map<std::pair<std::string, int>, std::uint64_t> total;
    Objects spans;
    for (Json const& span : viewer.spans) {
        if (span["group"] != worker.group)
            continue;
        EXPECT_EQ(worker.tid, span["tid"]);
        EXPECT_LE(span["begin"], span["end"]);
        ++count[span["kind"]];
        total[{span["kind"], span["id"]}] +=
            span["end"].get<std::uint64_t>() - span["begin"].get<std::uint64_t>();
        // They come in the order of their ends, so what has begun later is inside, and complete.
        while (!spans.empty() && spans.back()["begin"] >= span["begin"])
            spans.pop_back();
        EXPECT_TRUE(spans.empty() || spans.back()["end"] <= span["begin"]) << span;
        spans.push_back(span);
    }
    EXPECT_EQ(after["turns"].get<int>() - before["turns"].get<int>(), count["turn"]);
    EXPECT_EQ(after["dispatches"].get<int>() - before["dispatches"].get<int>(), count["fd"]);
    EXPECT_EQ(100, count["task"]);
    EXPECT_LE(10, count["signal"]);
    EXPECT_LE(1, count["alarm"]);

    std::map<std::string, int> timed;
    for (Json const& entry : times) {
        if (entry.value("group", 0) != worker.group)
            continue;
        timed[entry["kind"]] += entry["count"].get<int>();
        EXPECT_EQ((total[{entry["kind"], entry["id"]}]), entry["total_ns"]);
        EXPECT_LE(entry["longest_ns"], entry["total_ns"]);
        int in_histogram = 0;
        for (Json const& each : entry["histogram"])
            in_histogram += each.get<int>();
        EXPECT_EQ(entry["count"], in_histogram);
    }
    count.erase("turn");
    count.erase("sleep");
    EXPECT_EQ(count, timed);
}

TEST_F(InspectLoop, a_trace_tells_when_alarms_were_due_and_signals_came_and_times_the_longest_slice) {
    using orn::internal::now_ns;
    unsigned long again = 0;
    std::unique_ptr<Task> slow;
    std::uint64_t times[4] = {};
    int fired = 0;
    worker.run([&] {
        slow = std::make_unique<Task>([](task::Controller* self) { self->Sleep(); });
        times[0] = now_ns();
        again = alarm::manager()->AddAlarm(50, 50, [&] { ++fired; });
        times[1] = now_ns();
    });
    viewer.ask("trace on");
    viewer.ask("timing on");
    worker.run([&] {
        signal::AutoReceptor const watched(SIGUSR2, [](int) {});
        times[2] = now_ns();
        raise(SIGUSR2);
        times[3] = now_ns();
        SetAlarm(0, [&] { ++fired; });
        slow->Run();
        while (fired < 4)
            RunOnce(-1);
        alarm::manager()->DeleteAlarm(again);
    });
    Json const timed = viewer.find("timing", "kind", "task");
    Json const task = viewer.find("tasks", "thread", worker.tid);
    EXPECT_EQ((Json{timed["id"], timed["longest_ns"]}), (Json{task["task"], task["longest_ns"]}));
    viewer.ask("timing off");
    EXPECT_FALSE(viewer.find("tasks", "thread", worker.tid).contains("longest_ns"));

    std::set<std::string> known;
    for (Json const& span : viewer.spans) {
        if (span["group"] != worker.group || span["late"] == 0)
            continue;
        std::uint64_t const came = span["begin"].get<std::uint64_t>() - span["late"].get<std::uint64_t>();
        known.insert(span["id"] == again ? "again" : span["kind"]);
        if (span["id"] == again) // armed before the trace, and keeps its phase
            EXPECT_LE((came - times[0]) % 50000000, times[1] - times[0]) << span;
        else
            EXPECT_TRUE(times[2] <= came && (span["kind"] == "alarm" || came <= times[3])) << span;
    }
    EXPECT_EQ((std::set<std::string>{"again", "alarm", "signal"}), known);
}

TEST_F(InspectLoop, what_does_not_fit_is_counted_to_the_last_span) {
    auto const ring = std::make_unique<detail::SpanRing>();
    detail::Span span = {};
    for (unsigned long i = 0; i < detail::SpanRing::size + 5; ++i, ++span.id)
        ring->push(span);
    EXPECT_EQ(5u, ring->lost());
    std::vector<detail::Span> taken(10);
    EXPECT_EQ(10u, ring->take(taken.data(), 10));
    EXPECT_EQ(9u, taken[9].id);
    ring->push(span);
    EXPECT_EQ(5u, ring->lost());
    Replaced const however_slow(detail::trace_wish_ns, 1000000000000U);
    Json const before = look();
    viewer.ask("trace on");
    // The client does not read meanwhile, so first its pipe is full and then the ring.
    int const slices = 60000;
    worker.run([&] {
        int left = slices;
        RunTask([&](task::Controller* self) {
            if (--left == 0)
                self->Complete();
        });
        while (left > 0)
            RunOnce(0);
    });
    // Once the pipe is empty again, the next line tells.
    viewer.ask("trace on");
    worker.run([] { RunOnce(0); });
    viewer.ask("trace");
    Json const after = look();
    auto const made = [&](char const* what) { return after[what].get<int>() - before[what].get<int>(); };
    int const got =
        static_cast<int>(std::count_if(viewer.spans.begin(), viewer.spans.end(),
                                       [&](Json const& each) { return each["group"] == worker.group; }));
    EXPECT_LT(0, viewer.lost[worker.group]);
    EXPECT_LT(500, got);
    EXPECT_EQ(slices + made("turns") + made("dispatches"), got + viewer.lost[worker.group]);
}

TEST_F(InspectLoop, a_wish_ends_when_it_is_not_renewed_or_its_client_goes_or_in_a_child) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    EXPECT_EQ("off", viewer.ask("trace").at(0)["trace"]);
    EXPECT_TRUE(viewer.ask("trace sideways").at(0).contains("error"));
    viewer.ask("trace on");
    EXPECT_TRUE(viewer.observed("trace"));
    EXPECT_EQ("exit 1", in_child([&] {
                  group->RunOnce(0);
                  return group->record()->traced() ? 2 : 1;
              }));
    EXPECT_TRUE(group->record()->traced());
    {
        Replaced const soon(detail::trace_wish_ns, 20000000U);
        viewer.ask("trace on");
        EXPECT_TRUE(wait_until([&] { return !group->record()->traced(); }));
    }
    {
        Viewer second; // of this process, so answers go to it from here on
        second.ask("timing on");
        EXPECT_TRUE(second.observed("timing"));
    }
    EXPECT_TRUE(wait_until([&] { return !group->record()->traced(); }));
    Viewer third;
    EXPECT_FALSE(third.observed("timing"));

    // Only who gets answers through the channel may wish.
    orn::os::Pipe const pipe(false);
    cmd::ProcessCommand("inspect trace on", pipe.WriteFD());
    EXPECT_NE(std::string::npos, take(pipe.ReadFD()).find("\"error\""));
}

TEST_F(InspectLoop, a_storm_in_many_threads_is_told_of_in_whole_lines) {
    std::atomic<bool> over(false);
    auto const storm = [&over] {
        while (!over) {
            NewThreadGroup();
            WatchedPipe const moves([] { NewThreadGroup(); });
            moves.feed();
            RunOnce(0);
            orn::os::Thread const member([] { WatchedPipe const watched; });
            make_spans(10);
        }
    };
    std::thread threads[] = {std::thread(storm), std::thread(storm), std::thread(storm)};
    int const rounds = number_from("INSPECTIONS", 30);
    for (int i = 0; i < rounds; ++i) {
        for (char const* const what :
             {"trace on", "timing on", "groups", "fds", "threads", "timing", "process"})
            EXPECT_FALSE(viewer.ask(what).empty());
        if (i % 3 == 2)
            viewer.ask("trace off");
        if (i % 7 == 6)
            viewer.ask("timing off");
    }
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_LT(0u, viewer.spans.size());
}

} // namespace
