// SPDX-License-Identifier: MIT
//
// The words that schedule tasks: their order, and where they are until a loop
// comes for them.
#include <sys/ioctl.h>
#include <sys/wait.h>

#include "support/Faults.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using task::Controller;
using Id = orn::zel::id_t;

namespace {

class Words : public Loop {
protected:
    Words() { settle_all(); }

    unsigned long in_pipe() const {
        int bytes = 0;
        EXPECT_EQ(0, ioctl(manager->task_fd(), FIONREAD, &bytes));
        return static_cast<unsigned long>(bytes) / sizeof(std::uint32_t);
    }

    // Starts a task that sleeps after each slice.
    Id sleeper(std::function<void()> const& body) {
        return manager->NewTask({"", [body](Controller* self) { self->Sleep(), body(); }, {}});
    }

    boost::shared_ptr<task::Manager> manager = task::manager();
};

TEST_F(Words, of_each_thread_stay_in_order_and_give_a_slice_each) {
    unsigned const threads = 3; // and the slices themselves, which come first
    unsigned const each = 5000;
    unsigned const ring = 7;
    std::vector<Id> tasks;
    unsigned seen[threads + 1] = {};
    unsigned scheduled = 1;
    int depth = 0;
    auto const slice = [&](unsigned of, unsigned position) {
        ASSERT_EQ(position, seen[of]++ % ring) << "slices of thread " << of;
        for (int i = 0; of == 0 && i < 3 && scheduled < each; ++i)
            manager->Schedule(tasks[scheduled++ % ring]);
        if (seen[of] % 50 == 0 && depth < 4) {
            ++depth;
            RunOnce(0);
            --depth;
        }
    };
    for (unsigned i = 0; i < ring * (threads + 1); ++i)
        tasks.push_back(sleeper([&, i] { slice(i / ring, i % ring); }));
    scheduled = each; // their first slices schedule nothing
    settle_all();
    std::fill(std::begin(seen), std::end(seen), 0);
    scheduled = 1;
    manager->Schedule(tasks[0]);
    std::vector<std::thread> others;
    for (unsigned of = 1; of <= threads; ++of) {
        others.emplace_back([&, of] {
            for (unsigned i = 0; i < each; ++i)
                manager->Schedule(tasks[ring * of + i % ring]);
        });
    }
    EXPECT_TRUE(woken_until([&] {
        return std::all_of(std::begin(seen), std::end(seen), [&](unsigned count) { return count == each; });
    }));
    for (std::thread& other : others)
        other.join();
    EXPECT_EQ(0, RunOnce(0));
}

TEST_F(Words, of_a_slice_are_found_by_a_loop_inside_and_lie_in_the_pipe_after_the_round) {
    std::vector<int> order;
    pollfd watched = {manager->task_fd(), POLLIN, 0};
    auto const starts_three = [&] {
        EXPECT_EQ(0, RunOnce(0)) << "nothing waits yet";
        for (int i = 0; i < 3; ++i) {
            sleeper([&order, i] { order.push_back(i); });
            EXPECT_EQ(1, poll(&watched, 1, 0)) << "for any that watches the pipe";
        }
        EXPECT_EQ(1, RunOnce(0));
        EXPECT_EQ((std::vector<int>{0, 1, 2}), order);
        EXPECT_EQ(0, RunOnce(0));
    };
    sleeper(starts_three);
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(0u, in_pipe());

    // More than one write() takes.
    unsigned const count = 2500;
    unsigned slices = 0;
    std::vector<std::unique_ptr<Task>> tasks;
    for (unsigned i = 0; i < count; ++i) {
        tasks.emplace_back(new Task([&](Controller*) { ++slices; }));
        tasks.back()->Run();
    }
    for (unsigned turn = 1; turn <= 3; ++turn) {
        EXPECT_EQ(1, RunOnce(0));
        EXPECT_EQ(turn * count, slices);
        EXPECT_EQ(count, in_pipe()) << "and nothing else";
    }
}

TEST_F(Words, that_a_full_pipe_does_not_take_at_the_end_of_a_round_are_served_once_it_has_been_read) {
    unsigned const count = 1500;
    std::vector<unsigned> order;
    std::unique_ptr<Fault> full;
    sleeper([&] {
        full.reset(new Fault(Call::write, EAGAIN));
        for (unsigned i = 0; i < count; ++i)
            sleeper([&order, i] { order.push_back(i); });
    });
    EXPECT_EQ(1, RunOnce(0));
    full.reset();
    EXPECT_EQ(0, RunOnce(0)) << "a pipe that is full wakes the loop itself";
    sleeper([] {});
    EXPECT_EQ(1, RunOnce(0));
    ASSERT_EQ(count, order.size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(Words, are_left_to_the_parent_by_a_child_of_fork_that_returns_from_the_slice) {
    int slices = 0;
    pid_t child = -1;
    std::vector<std::unique_ptr<Task>> tasks;
    for (int i = 0; i < 3; ++i) {
        tasks.emplace_back(new Task([&, i](Controller*) {
            ++slices;
            if (i != 1 || child != -1)
                return;
            child = fork();
            if (child != 0)
                waitpid(child, nullptr, 0);
        }));
        tasks.back()->Run();
    }
    RunOnce(0);
    if (child == 0)
        _exit(0);
    EXPECT_EQ(3u, in_pipe());
    EXPECT_EQ(1, RunOnce(0));
    EXPECT_EQ(6, slices);
}

} // namespace
