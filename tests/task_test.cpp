// SPDX-License-Identifier: MIT
//
// Tasks: slices, the calls that steer them, and their ends. Nested loops are in taskCore_test.cpp.
#include "support/Faults.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using task::Controller;

namespace {

void nothing(Controller*) {}

// The manager of this thread has nothing left to do when a test begins.
class Tasks : public Loop {
protected:
    Tasks() { settle_all(); }

    boost::shared_ptr<task::Manager> manager = task::manager();
};

// ---- Slices ---------------------------------------------------------------------------------------------

TEST_F(Tasks, sleep_until_they_are_continued_which_in_their_own_slice_gives_two_more) {
    int slices = 0;
    Controller* controller = nullptr;
    Task task([&](Controller* self) {
        controller = self;
        if (++slices == 2)
            self->Continue();
        else
            self->Sleep();
    });
    task.Run();
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(0, RunOnce(0));
    controller->Continue();
    EXPECT_EQ(1, slices);
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(2, slices);
    EXPECT_EQ(1, RunOnce(0)) << "both, in one turn";
    EXPECT_EQ(4, slices);
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(Tasks, behind_a_body_that_throws_wait_for_the_next_schedule) {
    int behind = 0;
    Task thrower([](Controller*) { throw std::runtime_error("body"); });
    thrower.Run();
    RunTask(once(behind));
    EXPECT_THROW(RunOnce(0), std::runtime_error);
    EXPECT_EQ(0, RunOnce(0));
    EXPECT_EQ(0, behind);
    RunTask(complete);
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(1, behind);
}

TEST_F(Tasks, of_a_burst_are_all_reached_and_so_are_those_that_a_full_pipe_cannot_take) {
    int slices = 0;
    int const burst = 400 * 256; // a whole number of the reads that empty the pipe
    for (int i = 0; i < burst; ++i)
        RunTask(once(slices));
    settle_all();
    EXPECT_EQ(burst, slices);

    Task asleep([](Controller* self) { self->Sleep(); });
    asleep.Run();
    settle_all();
    {
        Fault const full(Call::write, EAGAIN);
        RunTask(once(slices));
    }
    EXPECT_EQ(0, RunOnce(0)) << "a pipe that is full wakes the loop itself";
    {
        Fault const emptied_meanwhile(Call::write, EAGAIN, 1);
        RunTask(once(slices));
    }
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(burst + 2, slices);
}

// ---- Ends -----------------------------------------------------------------------------------------------

TEST_F(Tasks, tell_of_their_completion_at_once_and_once) {
    std::string order;
    Controller* stale = nullptr;
    RunTask(
        [&](Controller* self) {
            stale = self;
            order += "body ";
            self->Complete();
            self->Complete();
            self->Continue();
            order += "end";
        },
        [&] { order += "done "; });
    EXPECT_EQ(1, RunOnce(0));
    stale->Continue();
    stale->Sleep();
    stale->Complete();
    EXPECT_EQ(0, RunOnce(0));
    EXPECT_EQ("body done end", order);
}

TEST_F(Tasks, that_are_cancelled_or_lose_their_handle_are_not_heard_of_again_unless_they_are_detached) {
    int calls = 0;
    int slices = 0;
    Controller* sleeping = nullptr;
    Task slept([&](Controller* self) { (sleeping = self)->Sleep(); });
    slept.NotifyWhenComplete([&] { ++calls; }).Run();
    EXPECT_EQ(1, RunOnce(0));
    slept.Cancel();
    slept.Cancel();
    sleeping->Continue();
    sleeping->Complete();
    {
        Task dies([&](Controller*) { ++calls; });
        dies.NotifyWhenComplete([&] { ++calls; }).Run();
        Task detached(once(slices));
        detached.Detach().Run();
    }
    settle_all();
    EXPECT_EQ(0, calls);
    EXPECT_EQ(1, slices);
}

TEST_F(Tasks, may_destroy_their_handle_and_keep_what_they_hold_to_the_end_of_the_slice) {
    auto const held = std::make_shared<int>(0);
    std::unique_ptr<Task> task;
    task.reset(new Task([&task, copy = held](Controller*) {
        task.reset();
        *copy += copy.use_count() > 1;
    }));
    task->Run();
    settle_all();
    EXPECT_EQ(1, *held);
    EXPECT_EQ(1, held.use_count()) << "not only when the object is reused";
}

TEST_F(Tasks, are_refused_outside_of_load_and_unload) {
    {
        Task abandoned(nothing);
        abandoned.Run();
        manager.reset();
        task::zel_task_unload();
        EXPECT_EQ("managerMap not initizalized", refusal([&] { abandoned.Run(); }));
        EXPECT_THROW(task::ListTasks("", -1), orn::zel::Exception);
    } // dies quietly
    task::zel_task_load();
    int slices = 0;
    RunTask(once(slices));
    settle_all();
    EXPECT_EQ(1, slices);
}

// ---- Threads --------------------------------------------------------------------------------------------

TEST_F(Tasks, are_continued_by_any_thread_which_does_not_become_one_of_the_librarys) {
    int slices = 0;
    Count counted;
    Controller* controller = nullptr;
    Task task([&](Controller* self) {
        (controller = self)->Sleep();
        ++slices;
    });
    task.Run();
    settle_all();
    auto const before = known_threads();
    std::thread waker([&] {
        EXPECT_TRUE(waits(getpid()));
        controller->Continue();
        EXPECT_TRUE(counted.reaches(1));
    });
    EXPECT_TRUE(woken_until([&] { return slices == 2; }));
    EXPECT_EQ(before, known_threads());
    counted.up();
    waker.join();
}

// ---- Reports --------------------------------------------------------------------------------------------

TEST_F(Tasks, are_watched_in_every_change) {
    orn::os::Pipe observer(false);
    task::Monitor("", observer.WriteFD());
    Controller* controller = nullptr;
    task::Body const body = [&](Controller* self) {
        if (controller)
            return self->Complete();
        (controller = self)->Sleep();
    };
    auto const id = manager->NewTask({"x", body, {}});
    RunOnce(0);
    controller->Continue();
    RunOnce(0);
    task::Unmonitor("", -1);
    RunTask(complete);
    settle_all();

    std::string expected;
    for (char const* const change : {"new runCount=0", "Run runCount=1", "Sleep runCount=1 sleeping",
                                     "Continue runCount=1", "Run runCount=2", "Complete runCount=2 complete"})
        expected += "task " + std::to_string(id) + " \"x\" op=" + change + '\n';
    EXPECT_EQ(expected, without_tid(take(observer.ReadFD())));
}

TEST_F(Tasks, are_listed_for_the_caller_below_all_managers) {
    orn::os::Pipe reader(false);
    auto const list = [&] {
        task::ListTasks("", reader.WriteFD());
        return take(reader.ReadFD());
    };
    std::string const managers = "TaskMgrs:\n[" + std::to_string(manager->id().value()) +
                                 "] fdMgr=" + std::to_string(thread::FdMgr()->id().value()) +
                                 " task_fd=" + std::to_string(manager->task_fd()) + "\nTasks:\n";
    EXPECT_EQ(managers, list());
    auto const one = manager->NewTask({"one", [](Controller* self) { self->Sleep(); }, {}});
    Task two(nothing);
    two.Run();
    RunOnce(0);
    EXPECT_EQ(managers + "[" + std::to_string(one) + "] \"one\" runCount=1 sleeping\n[" +
                  std::to_string(one + 1) + "] \"<unnamed>\" runCount=1\n",
              list());
    manager->Cancel(one);
}

} // namespace
