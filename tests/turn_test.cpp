// SPDX-License-Identifier: MIT
//
// What handlers may do to the turn of the loop that calls them: remove and destroy themselves and each other,
// reuse descriptor numbers, throw, nest, and move their thread to another group.
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

// A few pipes that are watched, in ascending order of descriptors, which is the order of dispatch.
class Turn : public Loop {
protected:
    using Handler = boost::function<void(fd::Event*)>;

    void watch(std::size_t i, Handler handler) {
        receptors[i].reset(); // before the new one, whose number it would take along
        receptors[i].reset(new fd::AutoReceptor(pipes[i].ReadFD(), handler));
    }

    Handler reader(std::size_t i) {
        return [this, i](fd::Event* event) { seen += char('a' + i) + take(event->fd()) + ' '; };
    }

    void feed() {
        for (orn::os::Pipe const& pipe : pipes)
            put(pipe.WriteFD(), "1");
    }

    orn::os::Pipe pipes[3] = {orn::os::Pipe(false), orn::os::Pipe(false), orn::os::Pipe(false)};
    std::unique_ptr<fd::AutoReceptor> receptors[3];
    std::string seen;
};

TEST_F(Turn, a_handler_destroys_its_own_registration_and_that_of_another_of_the_turn) {
    auto const captured = std::make_shared<std::string>("kept");
    watch(0, [this, captured](fd::Event* event) {
        receptors[0].reset();
        receptors[1].reset();
        seen += *captured + take(event->fd()) + ' ';
    });
    watch(1, reader(1));
    watch(2, reader(2));
    settle();
    feed();
    settle();
    feed();
    settle();
    EXPECT_EQ("kept1 c1 c1 ", seen);
    EXPECT_EQ(1, captured.use_count());
}

TEST_F(Turn, a_reused_descriptor_number_does_not_see_the_event_of_the_old_one) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK | O_CLOEXEC)); // a number above the others: dispatched last
    auto old = std::make_unique<fd::AutoReceptor>(ends[0], [&](fd::Event*) { seen += "old "; });
    std::unique_ptr<fd::AutoReceptor> fresh;
    watch(0, [&](fd::Event* event) {
        take(event->fd());
        old.reset();
        ASSERT_EQ(ends[0], dup2(pipes[2].ReadFD(), ends[0])); // closed, and open again as something else
        fresh.reset(new fd::AutoReceptor(ends[0], reader(2)));
    });
    settle();
    put(ends[1], "x");
    put(pipes[0].WriteFD(), "x");
    EXPECT_EQ(2, RunOnce(-1));
    settle();
    EXPECT_EQ("", seen);
    put(pipes[2].WriteFD(), "7");
    settle();
    EXPECT_EQ("c7 ", seen);
    fresh.reset();
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Turn, an_exception_leaves_the_run_call_and_the_rest_of_the_turn_comes_next) {
    bool angry = true;
    watch(0, [&](fd::Event* event) {
        take(event->fd());
        if (angry)
            throw std::runtime_error("a");
        seen += "a ";
    });
    watch(1, reader(1));
    settle();
    feed();
    EXPECT_THROW(RunOnce(-1), std::runtime_error);
    EXPECT_FALSE(thread::ThisGroup()->IsRunner(thread::self()));
    angry = false;
    put(pipes[0].WriteFD(), "2");
    EXPECT_EQ(1, RunOnce(-1)) << "the leftover does not count, nor is it polled again";
    EXPECT_EQ("b1 a ", seen);
    angry = true;
    feed();
    EXPECT_THROW(RunUntilEventOnFd(-1, POLLIN, -1), std::runtime_error);
    settle();
    EXPECT_EQ("b1 a b1 ", seen);
}

// The outer and the inner run are of either kind, with or without a rebuild between them. The handlers read
// once and do not expect to find nothing.
class NestedTurn : public Turn, public testing::WithParamInterface<int> {};

TEST_P(NestedTurn, dispatches_each_event_once) {
    auto const run = [](bool until) { return until ? RunUntilEventOnFd(-1, POLLIN, 0) : RunOnce(0); };
    std::unique_ptr<WatchedPipe> added;
    int calls[3] = {};
    for (std::size_t i = 0; i < 3; ++i) {
        watch(i, [&, i](fd::Event* event) {
            char byte;
            EXPECT_EQ(1, read(event->fd(), &byte, 1)) << "an event that was there no more, for " << i;
            ++calls[i];
            if (i != 0)
                return;
            if (GetParam() & 4)
                added.reset(new WatchedPipe);
            for (int turn = 0; turn < 3; ++turn)
                run(GetParam() & 2);
            EXPECT_EQ(2, calls[1] + calls[2]) << "the nested run has served them";
        });
    }
    settle();
    for (int round = 1; round <= 3; ++round) {
        std::fill(calls, calls + 3, 0);
        feed();
        run(GetParam() & 1);
        settle();
        EXPECT_EQ((std::vector<int>{1, 1, 1}), std::vector<int>(calls, calls + 3));
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, NestedTurn, testing::Range(0, 8));

// The handlers read without looking; on a blocking descriptor, one that is called for nothing would hang.
TEST_F(Turn, an_event_that_a_nested_turn_left_behind_is_delivered_once) {
    bool angry = true;
    auto const take_one = [this](fd::Event* event) {
        char byte;
        EXPECT_EQ(1, read(event->fd(), &byte, 1)) << "an event that was there no more, after " << seen;
    };
    watch(0, [&](fd::Event* event) {
        take_one(event);
        seen += 'a';
        if (seen == "a") {
            feed();
            EXPECT_THROW(RunOnce(0), std::runtime_error); // that of b, with c behind it
        } else if (!angry) {
            settle();
        }
    });
    watch(1, [&](fd::Event* event) {
        take_one(event);
        seen += 'b';
        if (angry)
            throw std::runtime_error("b");
    });
    watch(2, [&](fd::Event* event) {
        take_one(event);
        seen += 'c';
    });
    settle();
    put(pipes[0].WriteFD(), "1");
    EXPECT_EQ(0, RunUntilEventOnFd(-1, POLLIN, 0));
    EXPECT_EQ("aabc", seen);
    settle();
    EXPECT_EQ("aabc", seen);

    // Nor is the caller told of what a nested turn has taken from its descriptor.
    angry = false;
    feed();
    EXPECT_EQ(0, RunUntilEventOnFd(pipes[2].ReadFD(), POLLIN, 0));
    EXPECT_EQ("aabcabc", seen);
}

TEST_F(Turn, a_nested_loop_keeps_no_poll_set_but_the_present_one_which_may_have_shrunk) {
    boost::shared_ptr<fd::Manager> const manager = thread::FdMgr(); // a set holds it
    watch(0, [&](fd::Event* event) {
        take(event->fd());
        long const before = manager.use_count();
        for (int turn = 0; turn < 100; ++turn) {
            watch(1, reader(1)); // which makes the next turn build the set anew
            RunOnce(0);
        }
        EXPECT_EQ(before, manager.use_count());
        for (auto& receptor : receptors)
            receptor.reset();
        settle();
        seen += "end ";
    });
    watch(1, reader(1));
    watch(2, reader(2));
    settle();
    feed();
    RunOnce(-1);
    feed();
    settle();
    EXPECT_EQ(seen.size() - 4, seen.find("end ")) << "with the rest of the turn";
}

TEST_F(Turn, a_handler_is_called_to_its_end_when_its_member_and_the_set_that_it_was_in_go_meanwhile) {
    boost::weak_ptr<fd::Manager> theirs;
    std::unique_ptr<Member> member;
    Count watches;
    Count over;
    auto const handler = [&](fd::Event* event) {
        std::string const byte = take(event->fd());
        over.up();
        member.reset();
        RunOnce(0);
        EXPECT_TRUE(theirs.expired());
        seen += 'a' + byte;
    };
    member = std::make_unique<Member>([&] {
        theirs = thread::FdMgr();
        watch(0, handler);
        watches.up();
        over.reaches(1);
        receptors[0].reset();
    });
    ASSERT_TRUE(watches.reaches(1));
    put(pipes[0].WriteFD(), "1");
    settle();
    EXPECT_EQ("a1", seen);
}

TEST_F(Turn, a_handler_moves_its_thread_to_a_new_group_and_the_old_one_may_die) {
    boost::weak_ptr<thread::Group> const old = thread::ThisGroup();
    watch(0, [&](fd::Event* event) {
        take(event->fd());
        receptors[0].reset();
        NewThreadGroup();
        seen += "a ";
        EXPECT_FALSE(old.expired()) << "its turn is not over";
        RunOnce(0); // in the new group, which has the other descriptor now
        EXPECT_EQ("a b1 ", seen);
    });
    watch(1, reader(1));
    settle();
    feed();
    RunOnce(-1);
    EXPECT_TRUE(old.expired());
    settle();
    feed();
    settle();
    EXPECT_EQ("a b1 b1 ", seen);
}

TEST_F(Turn, a_handler_that_has_moved_its_thread_withdraws_what_the_old_group_polls) {
    boost::shared_ptr<thread::Group> const old = thread::ThisGroup();
    Count watches;
    Count over;
    Member const member([&] {
        watch(1, reader(1));
        watches.up();
        over.reaches(1);
    });
    watch(0, [&](fd::Event* event) {
        take(event->fd());
        NewThreadGroup(); // so that the new group, and not the old one, is told of the removal
        receptors[1].reset();
    });
    EXPECT_TRUE(watches.reaches(1));
    settle();
    feed();
    old->RunOnce(0);
    EXPECT_TRUE(old->bumped()) << "or its loop would spin on what nobody takes";
    over.up();
    EXPECT_EQ("", seen);
}

} // namespace
