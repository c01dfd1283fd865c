// SPDX-License-Identifier: MIT
//
// Tasks: slices, the calls that steer them, and the objects that outlive them.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <orn/zel.hpp>

namespace zel = orn::zel;
using zel::task::Controller;

// ---- What the heap holds, so that "flat" is a number

namespace {

std::atomic<long> allocations(0);
std::atomic<long> live(0);

} // namespace

void* operator new(std::size_t size) {
    void* const memory = std::malloc(size ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    ++allocations;
    ++live;
    return memory;
}

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    try {
        return operator new(size);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}

void operator delete(void* memory) noexcept {
    if (memory)
        --live;
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace {

std::size_t open_descriptors() {
    std::size_t count = 0;
    DIR* const dir = opendir("/proc/self/fd");
    while (readdir(dir))
        ++count;
    closedir(dir);
    return count;
}

// A task manager of this thread with nothing left to do, and a way to see that there is nothing.
class TaskTest : public testing::Test {
protected:
    TaskTest() : manager_(zel::task::manager()) {
        settle();
        descriptors_ = open_descriptors();
    }

    void TearDown() override {
        settle();
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    static void settle() {
        while (zel::RunOnce(0) > 0) {
        }
    }

    boost::shared_ptr<zel::task::Manager> manager_;

private:
    std::size_t descriptors_;
};

typedef TaskTest TaskSlices;
typedef TaskTest TaskEnds;
typedef TaskTest TaskNesting;
typedef TaskTest TaskMemory;
typedef TaskTest TaskThreads;
typedef TaskTest TaskReports;

class ReportPipe {
public:
    ReportPipe() {
        if (pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::runtime_error("pipe2");
    }
    ~ReportPipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    int fd() const { return ends_[1]; }
    std::string text() {
        std::string all;
        char buffer[4096];
        for (ssize_t got; (got = read(ends_[0], buffer, sizeof buffer)) > 0;)
            all.append(buffer, static_cast<std::size_t>(got));
        return all;
    }

private:
    int ends_[2];
};

} // namespace

// ---- Slices

TEST_F(TaskSlices, ComeOneEachTurnAndNeverInRun) {
    int slices = 0;
    zel::Task task([&](Controller*) { ++slices; });
    task.Run();
    EXPECT_EQ(slices, 0);
    for (int turn = 1; turn <= 5; ++turn) {
        EXPECT_EQ(zel::RunOnce(0), 1);
        EXPECT_EQ(slices, turn);
    }
}

TEST_F(TaskSlices, OfASleepingTaskComeBackWithContinueOnly) {
    int slices = 0;
    Controller* controller = nullptr;
    zel::Task task([&](Controller* self) {
        ++slices;
        controller = self;
        self->Sleep();
    });
    task.Run();
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(zel::RunOnce(0), 0);
    controller->Continue();
    EXPECT_EQ(slices, 1);
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(slices, 2);
    EXPECT_EQ(zel::RunOnce(0), 0);
}

TEST_F(TaskSlices, AreTwoAfterAContinueInTheTasksOwnSlice) {
    int slices = 0;
    zel::Task task([&](Controller* self) {
        if (++slices == 1)
            self->Continue();
        else
            self->Sleep();
    });
    task.Run();
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(zel::RunOnce(0), 1); // both, in one turn
    EXPECT_EQ(slices, 3);
    EXPECT_EQ(zel::RunOnce(0), 0);
}

TEST_F(TaskSlices, OfThoseBehindAThrowingBodyWaitForTheNextSchedule) {
    int behind = 0;
    zel::Task thrower([](Controller*) { throw std::runtime_error("body"); });
    thrower.Run();
    zel::RunTask([&](Controller* self) {
        ++behind;
        self->Complete();
    });
    EXPECT_THROW(zel::RunOnce(0), std::runtime_error);
    EXPECT_EQ(zel::RunOnce(0), 0);
    EXPECT_EQ(behind, 0);
    zel::RunTask([](Controller* self) { self->Complete(); });
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(behind, 1);
}

// The second figure is more than the pipe holds at its largest.
TEST_F(TaskSlices, ReachEveryTaskOfABurst) {
    for (int const burst : {100000, 300000}) {
        int slices = 0;
        for (int i = 0; i < burst; ++i) {
            zel::RunTask([&](Controller* self) {
                ++slices;
                self->Complete();
            });
        }
        settle();
        EXPECT_EQ(slices, burst);
    }
}

TEST_F(TaskSlices, NeedAFunction) {
    zel::task::TaskImpl task((zel::task::Body()));
    EXPECT_EQ(task.spec.name, "<unnamed>");
    try {
        task.Run();
        FAIL() << "started";
    } catch (zel::Exception const& refused) {
        EXPECT_STREQ(refused.what(), "NULL Task function");
    }
    EXPECT_EQ(task.id, 0u);
    EXPECT_THROW(zel::RunTask(zel::task::Body()), zel::Exception);
    EXPECT_EQ(zel::RunOnce(0), 0);
}

// ---- Ends

TEST_F(TaskEnds, CompletionIsToldAtOnceAndOnce) {
    std::string order;
    Controller* stale = nullptr;
    zel::RunTask(
        [&](Controller* self) {
            stale = self;
            order += "body ";
            self->Complete();
            self->Complete();
            self->Continue();
            order += "end";
        },
        [&] { order += "done "; });
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(order, "body done end");
    stale->Continue();
    stale->Sleep();
    stale->Complete();
    EXPECT_EQ(zel::RunOnce(0), 0);
    EXPECT_EQ(order, "body done end");
}

TEST_F(TaskEnds, CancelledTaskIsNotHeardOfAgain) {
    int calls = 0;
    Controller* sleeping = nullptr;
    auto const done = [&calls] { ++calls; };
    zel::Task never([&](Controller*) { ++calls; });
    never.NotifyWhenComplete(done).Run();
    never.Cancel();
    never.Cancel();
    zel::Task slept([&](Controller* self) {
        sleeping = self;
        self->Sleep();
    });
    slept.NotifyWhenComplete(done).Run();
    EXPECT_EQ(zel::RunOnce(0), 1);
    slept.Cancel();
    sleeping->Continue();
    sleeping->Complete();
    EXPECT_EQ(zel::RunOnce(0), 0);
    EXPECT_EQ(calls, 0);
}

TEST_F(TaskEnds, HandleCancelsWhenItDiesUnlessDetached) {
    int cancelled = 0;
    int detached = 0;
    {
        zel::Task first([&](Controller*) { ++cancelled; });
        first.Run();
        zel::Task second([&](Controller* self) {
            if (++detached == 3)
                self->Complete();
        });
        second.Detach().Run();
    }
    settle();
    EXPECT_EQ(cancelled, 0);
    EXPECT_EQ(detached, 3);
}

TEST_F(TaskEnds, BodyMayDestroyItsHandleAndKeepsWhatItHolds) {
    auto const held = std::make_shared<int>(5);
    std::weak_ptr<int> const watch = held;
    std::unique_ptr<zel::Task> task;
    int slices = 0;
    task.reset(new zel::Task([&task, &slices, copy = held](Controller*) {
        ++slices;
        task.reset();
        EXPECT_EQ(*copy, 5);
    }));
    const_cast<std::shared_ptr<int>&>(held).reset();
    task->Run();
    settle();
    EXPECT_EQ(slices, 1);
    EXPECT_TRUE(watch.expired()); // not only when the object is reused
}

TEST_F(TaskEnds, OutsideOfLoadAndUnloadTasksAreRefused) {
    zel::Task task([](Controller*) {});
    task.Run();
    {
        zel::Task abandoned([](Controller*) {});
        abandoned.Run();
        manager_.reset();
        zel::task::zel_task_unload();
        try {
            task.Run();
            FAIL() << "started";
        } catch (zel::Exception const& refused) {
            EXPECT_STREQ(refused.what(), "managerMap not initizalized");
        }
        EXPECT_THROW(zel::task::ListTasks("", -1), zel::Exception);
    } // dies quietly
    zel::task::zel_task_load();
    int slices = 0;
    zel::RunTask([&](Controller* self) {
        ++slices;
        self->Complete();
    });
    settle();
    EXPECT_EQ(slices, 1);
}

// ---- Nested loops

TEST_F(TaskNesting, SliceMayWaitForATaskOfItsOwnTurn) {
    std::string order;
    zel::RunTask([&](Controller* self) {
        self->Complete();
        while (order.size() < 2)
            ASSERT_GE(zel::RunOnce(10000), 1);
        order += 'a';
    });
    for (char const name : {'b', 'c'}) {
        zel::RunTask([&order, name](Controller* self) {
            order += name;
            self->Complete();
        });
    }
    EXPECT_EQ(zel::RunOnce(0), 1);
    EXPECT_EQ(order, "bca");
    EXPECT_EQ(zel::RunOnce(0), 0); // what woke the nested loop has gone
}

// Each but the last would otherwise be one level more on the stack, and the loop ends the process at a
// hundred.
TEST_F(TaskNesting, ManyThatEachRunANestedTurnShareOneTurn) {
    int const count = 150;
    std::vector<std::unique_ptr<zel::Task>> tasks;
    std::string order;
    int depth = 0;
    int deepest = 0;
    int slices = 0;
    for (int i = 0; i < count; ++i) {
        tasks.emplace_back(new zel::Task([&](Controller*) {
            ++slices;
            deepest = std::max(deepest, ++depth);
            zel::RunOnce(0);
            --depth;
        }));
        tasks.back()->Run();
    }
    for (int turn = 1; turn <= 20; ++turn) {
        EXPECT_EQ(zel::RunOnce(0), 1);
        EXPECT_EQ(slices, turn * count);
    }
    EXPECT_GT(deepest, 20);
    EXPECT_LT(deepest, 50);
}

// The bound is the stack's, not the manager's: each member has one of its own, and their rounds pile up
// together.
TEST_F(TaskNesting, many_of_several_members_share_one_turn) {
    int const members = 4;
    int const count = 40;
    std::atomic<int> slices(0);
    std::atomic<int> ready(0);
    std::atomic<bool> over(false);
    std::vector<std::unique_ptr<zel::Thread>> threads;
    for (int i = 0; i < members; ++i) {
        threads.emplace_back(new zel::Thread([&] {
            std::vector<std::unique_ptr<zel::Task>> tasks;
            for (int j = 0; j < count; ++j) {
                tasks.emplace_back(new zel::Task([&](Controller* self) {
                    ++slices;
                    zel::RunOnce(0);
                    self->Sleep();
                }));
                tasks.back()->Run();
            }
            ++ready;
            while (!over)
                std::this_thread::yield();
            return 0;
        }));
        threads.back()->Start();
    }
    while (ready < members)
        std::this_thread::yield();
    settle();
    over = true;
    for (auto const& thread : threads)
        thread->Join();
    EXPECT_EQ(members * count, slices);
    manager_.reset(); // the members' pipes stay until the subsystem goes
    zel::task::zel_task_unload();
    zel::task::zel_task_load();
    manager_ = zel::task::manager();
}

TEST_F(TaskNesting, TheDeepestMayWaitForWhatTheyStartAndThoseAboveForTheirTurn) {
    int waiting = 0;
    int helped = 0;
    bool last = false;
    for (int i = 0; i < 90; ++i) {
        zel::RunTask([&, i](Controller* self) {
            self->Complete();
            bool done = false;
            int slices = 0;
            ++waiting;
            zel::RunTask([&](Controller* helper) {
                if (++slices < 3)
                    return;
                helper->Complete();
                done = true;
                ++helped;
            });
            while (!done || (i < 20 && !last))
                ASSERT_GE(zel::RunOnce(10000), 1);
        });
    }
    zel::RunTask([&](Controller* self) {
        self->Complete();
        last = true;
    });
    while (!last || helped < 90)
        ASSERT_GE(zel::RunOnce(10000), 1);
    EXPECT_EQ(waiting, 90);
    EXPECT_EQ(zel::RunOnce(0), 0);
}

TEST_F(TaskNesting, ControllerOnTheStackIsNobodyElses) {
    int ended = 0;
    bool strangers = false;
    int outer = 0;
    zel::RunTask([&](Controller* self) {
        ++outer;
        self->Complete();
        for (int i = 0; i < 10000; ++i) {
            zel::RunTask([&, self](Controller* other) {
                strangers = strangers || other == self;
                ++ended;
                other->Complete();
            });
            if (i % 10 == 0)
                settle();
        }
        settle();
        self->Continue();
    });
    settle();
    EXPECT_EQ(ended, 10000);
    EXPECT_EQ(outer, 1);
    EXPECT_FALSE(strangers);
}

class TaskNestingAtDepth : public TaskTest {
protected:
    // Calls the function in a slice under so many others, each of which waits for the one it has started.
    void nest(int depth, std::function<void()> const& function) {
        zel::RunTask([this, depth, function](Controller* self) {
            self->Complete();
            if (depth == 0) {
                function();
                reached_ = true;
            } else {
                nest(depth - 1, function);
            }
            while (!reached_)
                ASSERT_GE(zel::RunOnce(10000), 1);
        });
    }

    bool reached_ = false;
};

TEST_F(TaskNestingAtDepth, IdentifiersSurviveAnExceptionOfTheNestedLoop) {
    for (int const depth : {0, 30, 31, 32, 60}) {
        SCOPED_TRACE(depth);
        reached_ = false;
        int others = 0;
        nest(depth, [&] {
            zel::RunTask([](Controller* self) {
                self->Complete();
                throw std::runtime_error("body");
            });
            for (int i = 0; i < 2; ++i) {
                zel::RunTask([&](Controller* self) {
                    ++others;
                    self->Complete();
                });
            }
            EXPECT_THROW(zel::RunOnce(0), std::runtime_error);
            while (others < 2)
                ASSERT_GE(zel::RunOnce(10000), 1);
        });
        EXPECT_EQ(zel::RunOnce(0), 1);
        EXPECT_EQ(others, 2);
        EXPECT_EQ(zel::RunOnce(0), 0);
    }
}

// ---- Memory

TEST_F(TaskMemory, SlicesAllocateNothing) {
    std::vector<std::unique_ptr<zel::Task>> tasks;
    long slices = 0;
    for (int i = 0; i < 100; ++i) {
        tasks.emplace_back(new zel::Task([&slices](Controller*) { ++slices; }));
        tasks.back()->Run();
    }
    for (int turn = 0; turn < 10; ++turn)
        zel::RunOnce(0);
    long const before = allocations;
    while (slices < 200000)
        zel::RunOnce(0);
    EXPECT_EQ(allocations, before);
}

TEST_F(TaskMemory, OfFinishedTasksIsReused) {
    auto const run = [](int count) {
        for (int i = 0; i < count; ++i) {
            zel::Task cancelled([](Controller*) {});
            cancelled.Run();
            zel::RunTask([](Controller* self) { self->Complete(); }, [] {});
            zel::RunOnce(0);
        }
    };
    run(3000);
    long const before = live;
    run(30000);
    EXPECT_EQ(live, before);
}

TEST_F(TaskMemory, StaleControllerSteersNobodyWhileAThousandOthersEnd) {
    Controller* stale = nullptr;
    zel::RunTask([&](Controller* self) {
        stale = self;
        self->Complete();
    });
    settle();
    int slices = 0;
    for (int i = 0; i < 1024; ++i) {
        zel::Task task([&](Controller* self) {
            EXPECT_NE(self, stale);
            ++slices;
        });
        task.Run();
        EXPECT_EQ(zel::RunOnce(0), 1);
        stale->Continue();
        stale->Sleep();
        stale->Complete();
    }
    EXPECT_EQ(slices, 1024);
}

// ---- Threads

TEST_F(TaskThreads, ContinueWakesTheLoopFromAnother) {
    std::atomic<Controller*> controller(nullptr);
    int slices = 0;
    zel::Task task([&](Controller* self) {
        ++slices;
        self->Sleep();
        controller = self;
    });
    task.Run();
    std::thread waker([&] {
        while (!controller)
            std::this_thread::yield();
        controller.load()->Continue();
    });
    while (slices < 2)
        ASSERT_GE(zel::RunOnce(10000), 1);
    waker.join();
}

// Another member starts and cancels its own tasks while this thread, the runner, has them run.
TEST_F(TaskThreads, MemberStartsAndCancelsWhileTheRunnerRuns) {
    std::atomic<int> completed(0);
    std::atomic<bool> over(false);
    zel::Thread member([&] {
        for (int i = 0; i < 2000; ++i) {
            zel::RunTask([](Controller* self) { self->Complete(); }, [&] { ++completed; });
            zel::Task cancelled([](Controller*) {});
            cancelled.Run();
        }
        while (completed < 2000)
            std::this_thread::yield();
        over = true;
        zel::Exit();
        return 0;
    });
    member.Start();
    while (!over)
        zel::RunOnce(10000);
    member.Join();
    EXPECT_EQ(completed, 2000);
    // Its manager's pipe stays until the subsystem goes; ours, too, is made anew.
    manager_.reset();
    zel::task::zel_task_unload();
    zel::task::zel_task_load();
    manager_ = zel::task::manager();
}

TEST_F(TaskThreads, WakingATaskMakesNobodyAThreadOfTheLibrary) {
    orn::os::Pipe listing(false);
    auto const known = [&] {
        zel::thread::MonitorPoll("", listing.WriteFD());
        zel::thread::ListThreads("", -1);
        zel::thread::UnmonitorPoll("", -1);
        char text[4096];
        ssize_t const length = read(listing.ReadFD(), text, sizeof text);
        return std::count(text, text + length, '\n');
    };
    Controller* steered = nullptr;
    zel::RunTask([&](Controller* self) { (steered = self)->Sleep(); });
    while (!steered)
        zel::RunOnce(0);
    auto const before = known();
    std::thread([&] {
        steered->Continue();
        EXPECT_EQ(known(), before);
    }).join();
    steered->Complete();
}

TEST_F(TaskThreads, StaleCallsMeetEveryEndAndEveryReuse) {
    int const window = 64;
    std::atomic<Controller*> seen[window] = {};
    std::atomic<bool> over(false);
    auto const steer = [&] {
        while (!over) {
            for (auto& slot : seen) {
                Controller* const controller = slot;
                if (!controller)
                    continue;
                controller->Continue();
                controller->Sleep();
                controller->Continue();
            }
        }
    };
    std::thread first(steer);
    std::thread second(steer);
    int done = 0;
    int cancelled = 0;
    for (int i = 0; i < 5000; ++i) {
        zel::Task task([&, i](Controller* self) {
            seen[i % window] = self;
            if (i % 3 == 0)
                self->Complete();
        });
        task.NotifyWhenComplete([&] { ++done; }).Run();
        zel::RunOnce(0);
        if (i % 3 != 0)
            ++cancelled;
    }
    over = true;
    first.join();
    second.join();
    EXPECT_GT(done, 0);
    EXPECT_GT(cancelled, 0);
    settle();
}

// exit() takes the library down under a loop in a slice and under a thread that keeps on steering it.
TEST(TaskExit, LeavesThreadsInSlicesAndInContinueAlone) {
    for (int run = 0; run < 20; ++run) {
        pid_t const child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            static std::atomic<Controller*> controller(nullptr);
            auto* const loop = new zel::Thread([] {
                zel::NewThreadGroup();
                zel::RunTask([](Controller* self) { controller = self; });
                zel::RunTask([](Controller*) { zel::RunTask([](Controller* self) { self->Complete(); }); });
                for (;;)
                    zel::RunOnce(-1);
                return 0;
            });
            loop->Start();
            while (!controller)
                std::this_thread::yield();
            auto* const steering = new zel::Thread([] {
                for (;;) {
                    controller.load()->Sleep();
                    controller.load()->Continue();
                }
                return 0;
            });
            steering->Start();
            std::exit(0);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
        ASSERT_EQ(WEXITSTATUS(status), 0);
    }
}

// ---- Reports

TEST_F(TaskReports, MonitorTellsEveryChange) {
    ReportPipe observer;
    zel::task::Monitor("", observer.fd());
    Controller* controller = nullptr;
    zel::task::Spec const spec = {"x",
                                  [&](Controller* self) {
                                      if (controller)
                                          return self->Complete();
                                      controller = self;
                                      self->Sleep();
                                  },
                                  zel::task::Done()};
    zel::id_t const id = manager_->NewTask(spec);
    zel::RunOnce(0);
    controller->Continue();
    zel::RunOnce(0);
    controller->Continue();
    zel::task::Unmonitor("", -1);
    zel::RunTask([](Controller* self) { self->Complete(); });
    settle();

    std::string const head =
        "tid=" + std::to_string(zel::thread::self()) + " task " + std::to_string(id) + " \"x\" op=";
    EXPECT_EQ(observer.text(), head + "new runCount=0\n" + head + "Run runCount=1\n" + head +
                                   "Sleep runCount=1 sleeping\n" + head + "Continue runCount=1\n" + head +
                                   "Run runCount=2\n" + head + "Complete runCount=2 complete\n");
}

TEST_F(TaskReports, ListingShowsManagersAndTheCallersTasks) {
    ReportPipe reader;
    std::string const managers = "TaskMgrs:\n[" + std::to_string(manager_->id().value()) +
                                 "] fdMgr=" + std::to_string(zel::thread::FdMgr()->id().value()) +
                                 " task_fd=" + std::to_string(manager_->task_fd()) + "\nTasks:\n";
    zel::task::ListTasks("", reader.fd());
    EXPECT_EQ(reader.text(), managers);

    zel::task::Spec spec = {"one", [](Controller* self) { self->Sleep(); }, zel::task::Done()};
    zel::id_t const one = manager_->NewTask(spec);
    spec.name = "two";
    spec.fn = [](Controller*) {};
    zel::id_t const two = manager_->NewTask(spec);
    zel::RunOnce(0);
    zel::task::ListTasks("", reader.fd());
    EXPECT_EQ(reader.text(), managers + "[" + std::to_string(one) + "] \"one\" runCount=1 sleeping\n[" +
                                 std::to_string(two) + "] \"two\" runCount=1\n");
    manager_->Cancel(one);
    manager_->Cancel(two);
}
