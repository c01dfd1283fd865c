// SPDX-License-Identifier: MIT
//
// Tasks whose slices run nested loops, and the objects of tasks that are over: neither may pile up.
#include <new>

#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using task::Controller;

namespace {

std::atomic<long> allocations(0);
std::atomic<long> live(0);

} // namespace

#ifndef __SANITIZE_ADDRESS__ // which looks after all kinds of new and delete itself
void* operator new(std::size_t size) {
    ++allocations;
    ++live;
    void* const memory = std::malloc(size);
    return memory ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    live -= memory != nullptr;
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
#endif

namespace {

class Tasks : public Loop {
protected:
    Tasks() {
        task::manager();
        settle_all();
    }

    // Calls the function in a slice under so many others, each of which waits for the one it has started.
    void nest(int depth, std::function<void()> const& function) {
        RunTask([this, depth, function](Controller* self) {
            self->Complete();
            if (depth == 0) {
                function();
                reached = true;
            } else {
                nest(depth - 1, function);
            }
            ASSERT_TRUE(woken_until([this] { return reached; }));
        });
    }

    bool reached = false;
};

// ---- Nested loops ---------------------------------------------------------------------------------------

// Each would otherwise be one level more on the stack, and the loop ends the process at a hundred.
TEST_F(Tasks, that_each_run_a_nested_turn_share_one_turn_without_piling_up) {
    int const count = 150;
    std::unique_ptr<Task> tasks[count];
    int slices = 0;
    for (auto& task : tasks) {
        task.reset(new Task([&](Controller*) {
            ++slices;
            RunOnce(0);
        }));
        task->Run();
    }
    for (int turn = 1; turn <= 20; ++turn) {
        EXPECT_EQ(1, RunOnce(0));
        EXPECT_EQ(turn * count, slices);
    }
}

// The bound on nested slices counts the loop's levels, whosever tasks they are.
TEST_F(Tasks, of_several_members_that_each_run_a_nested_turn_share_one_turn) {
    int slices = 0;
    Count ready;
    Count over;
    auto const member = [&] {
        for (int i = 0; i < 40; ++i) {
            RunTask([&slices](Controller* self) {
                ++slices;
                RunOnce(0);
                self->Complete();
            });
        }
        ready.up();
        over.reaches(1);
    };
    Member const first(member), second(member), third(member), fourth(member);
    ASSERT_TRUE(ready.reaches(4));
    settle_all();
    over.up();
    EXPECT_EQ(160, slices);
}

TEST_F(Tasks, nested_deepest_may_wait_for_what_they_start_and_those_above_for_their_turn) {
    int helped = 0;
    int last = 0;
    for (int i = 0; i < 90; ++i) {
        RunTask([&, i](Controller* self) {
            self->Complete();
            int slices = 0;
            RunTask([&](Controller* helper) {
                if (++slices == 3) {
                    helper->Complete();
                    ++helped;
                }
            });
            ASSERT_TRUE(woken_until([&] { return slices == 3 && (i >= 20 || last == 1); }));
        });
    }
    RunTask(once(last));
    ASSERT_TRUE(woken_until([&] { return last == 1 && helped == 90; }));
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(Tasks, survive_an_exception_of_the_nested_loop) {
    for (int const depth : {0, 30, 31, 32, 60}) {
        SCOPED_TRACE(depth);
        reached = false;
        int others = 0;
        nest(depth, [&] {
            RunTask([](Controller* self) {
                self->Complete();
                throw std::runtime_error("body");
            });
            for (int i = 0; i < 2; ++i)
                RunTask(once(others));
            EXPECT_THROW(RunOnce(0), std::runtime_error);
            EXPECT_TRUE(woken_until([&] { return others == 2; }));
        });
        EXPECT_EQ(1, RunOnce(0));
        EXPECT_EQ(2, others);
        EXPECT_EQ(0, RunOnce(0));
    }
}

// ---- Memory ---------------------------------------------------------------------------------------------

TEST_F(Tasks, keep_their_controller_while_they_are_on_the_stack_and_until_a_thousand_others_have_ended) {
    Controller* stale = nullptr;
    int slices = 0;
    auto const end_others = [&](int count) {
        for (int i = 0; i < count; ++i) {
            Task task([&](Controller* self) {
                EXPECT_NE(stale, self);
                ++slices;
            });
            task.Run();
            EXPECT_EQ(1, RunOnce(0));
            stale->Continue(); // all three in vain
            stale->Sleep();
            stale->Complete();
        }
    };
    RunTask([&](Controller* self) {
        (stale = self)->Complete();
        end_others(10000);
    });
    settle_all();
    end_others(1024);
    EXPECT_EQ(11024, slices);
}

TEST_F(Tasks, allocate_nothing_in_slices_and_use_the_memory_of_those_that_are_over) {
    {
        std::unique_ptr<Task> tasks[100];
        for (auto& task : tasks) {
            task.reset(new Task([](Controller*) {}));
            task->Run();
        }
        for (int turn = 0; turn < 10; ++turn)
            RunOnce(0);
        long const before = allocations;
        for (int turn = 0; turn < 2000; ++turn)
            RunOnce(0);
        EXPECT_EQ(before, allocations);
    }
    auto const run = [](int count) {
        for (int i = 0; i < count; ++i) {
            Task cancelled(complete);
            cancelled.Run();
            RunTask(complete, [] {});
            RunOnce(0);
        }
    };
    run(3000);
    long const before = live;
    run(30000);
    EXPECT_EQ(before, live);
}

TEST_F(Tasks, are_steered_by_stale_controllers_at_every_end_and_every_reuse) {
    std::atomic<Controller*> seen[64] = {};
    std::atomic<bool> over(false);
    auto const steer = [&] {
        while (!over) {
            for (auto& slot : seen) {
                if (Controller* const controller = slot) {
                    controller->Continue();
                    controller->Sleep();
                    controller->Continue();
                }
            }
        }
    };
    std::thread first(steer);
    std::thread second(steer);
    for (int i = 0; i < 5000; ++i) {
        Task task([&, i](Controller* self) {
            seen[i % 64] = self;
            if (i % 3 == 0)
                self->Complete();
        });
        task.Run();
        RunOnce(0);
    }
    over = true;
    first.join();
    second.join();
    settle_all();
}

} // namespace
