// SPDX-License-Identifier: MIT
//
// What the word "inspect" tells of loops that run, sleep and are stuck: groups and descriptors.
#include <orn/os/Thread.hpp>

#include "support/Viewer.hpp"

using namespace orn::zel;
using namespace support;

namespace {

using InspectLoop = InspectedLoop;

// What a list holds while it destroys handlers that were removed during a dispatch.
struct ListLock {
    explicit ListLock(Receptacle<int, unsigned long>& users) : list(dynamic_cast<HandlerList<int>&>(users)) {
        list.lock_mutex();
    }
    ~ListLock() { list.unlock_mutex(); }
    ListLock(ListLock const&) = delete;
    ListLock& operator=(ListLock const&) = delete;

    HandlerList<int> const& list;
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
    boost::shared_ptr<Receptacle<int, unsigned long>> users;
    worker.run([&] {
        users = Signal(SIGUSR1);
        users->insert([](int) {});
    });
    for (auto const& scene : scenes) {
        SCOPED_TRACE(scene.kind);
        Count entered;
        Count released;
        worker.begin([&] {
            scene.start([&] {
                // No lock of the library's that a handler may have keeps anybody from being told of it.
                AutoLock const group(*thread::ThisGroup());
                AutoLock const monitors(thread::FdMgr()->monitors());
                AutoLock const alarms(*alarm::managerMutex);
                ListLock const handlers(*users);
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
        for (char const* const what : {"process", "threads", "alarms", "tasks"})
            viewer.ask(what);
        EXPECT_EQ(1, viewer.find("signals", "signal", SIGUSR1)["handlers"]);
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

} // namespace
