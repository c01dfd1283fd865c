// SPDX-License-Identifier: MIT
//
// For tests of the word "inspect": a client in this process that parses the answers, and a thread to look at.
#ifndef TESTS_SUPPORT_VIEWER_HPP
#define TESTS_SUPPORT_VIEWER_HPP

#include <nlohmann/json.hpp>

#include "../../src/inspect.hpp"
#include "Support.hpp"

namespace support {

using Json = nlohmann::json;
using Objects = std::vector<Json>;

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
    orn::zel::cmd::Channel connect() {
        orn::zel::cmd::InstallCommandChannel();
        return orn::zel::Connect(getpid(), [this](std::string const& line) { take(line); });
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
    orn::zel::cmd::Channel channel_;
};

// A thread with a group of its own that does what it is told.
class Worker {
public:
    Worker() : thread_([this] { serve(); }) {
        run([this] {
            orn::zel::NewThreadGroup();
            group = static_cast<int>(orn::zel::GroupId());
            tid = orn::zel::thread::self();
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
struct OpenChannel {
    OpenChannel() {
        orn::zel::cmd::zel_cmd_load();
        orn::zel::detail::zel_inspect_load();
    }
    ~OpenChannel() {
        orn::zel::cmd::stop_channel();
        orn::zel::detail::zel_inspect_unload();
        orn::zel::cmd::zel_cmd_unload();
    }
    OpenChannel(OpenChannel const&) = delete;
    OpenChannel& operator=(OpenChannel const&) = delete;
};

// A loop that is looked at while it does what it is told.
class InspectedLoop : public Loop {
protected:
    Json look() { return viewer.find("groups", "group", worker.group); }

    OpenChannel const channel;
    Viewer viewer;
    Worker worker;
};

} // namespace support

#endif
