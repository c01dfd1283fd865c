// SPDX-License-Identifier: MIT
//
// Alarms on a clock that the tests turn by hand.
#include <climits>

#include <orn/log.h>

#include "../src/fork.hpp"
#include "../src/uniqueId.hpp"
#include "support/FakeTimer.hpp"
#include "support/Faults.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using fake_timer::advance;

namespace {

// The first record settles for the whole process where its log goes, and opens it.
struct LogFile : TempFile {
    LogFile() {
        setenv("LOG_SINK", path().c_str(), 1);
        Log_SpecEntry(logSpecForceInfo, "tests", __LINE__, "%s", "begin");
    }
} const log_file;

struct NoTimersLeft {
    ~NoTimersLeft() { EXPECT_EQ(0u, fake_timer::live()) << "unloading ends every timer"; }
};

// The base that looks is destroyed after the base that unloads.
class Alarms : private NoTimersLeft, public Loop {
protected:
    alarm::Handler say(std::string const& text) {
        return [this, text] { seen += text; };
    }

    std::string after(unsigned long ms) {
        seen.clear();
        advance(ms);
        EXPECT_EQ("", seen) << "outside of the loop";
        settle();
        return seen;
    }

    std::string seen;
};

TEST_F(Alarms, fire_at_their_deadline_and_not_before_it) {
    SetAlarm(100, say("set "));
    SetAlarm(0, say("now "));
    Alarm const one(101, say("one "));
    Alarm const many(50, 20, say("many "));
    EXPECT_EQ(4u, OutstandingAlarmCount());
    settle();
    EXPECT_EQ("", seen);
    EXPECT_EQ("now ", after(0));
    EXPECT_EQ("", after(49));
    EXPECT_EQ("many ", after(1));
    EXPECT_EQ("many many ", after(49));
    EXPECT_EQ("set ", after(1));
    EXPECT_EQ("one ", after(1));
    EXPECT_EQ(1u, OutstandingAlarmCount());
    EXPECT_EQ("many many ", after(40));
}

TEST_F(Alarms, a_one_shot_is_gone_when_its_handler_runs) {
    unsigned outstanding = 99;
    std::size_t armed = 99;
    auto const captured = std::make_shared<int>(0);
    SetAlarm(5, [&, captured] {
        outstanding = OutstandingAlarmCount();
        armed = fake_timer::live();
        SetAlarm(5, say("next"));
    });
    after(5);
    EXPECT_EQ(0u, outstanding);
    EXPECT_EQ(0u, armed);
    EXPECT_EQ(1, captured.use_count());
    EXPECT_EQ("next", after(5));
}

TEST_F(Alarms, an_empty_handler_is_refused_without_a_trace) {
    EXPECT_EQ("NULL handler", refusal([] { SetAlarm(1, alarm::Handler()); }));
    EXPECT_EQ("NULL handler", refusal([] { Alarm const alarm(1, 1, alarm::Handler()); }));
    EXPECT_EQ(0u, OutstandingAlarmCount());
    EXPECT_EQ(0u, fake_timer::live());
}

TEST_F(Alarms, a_cancelled_alarm_drops_the_expiries_that_are_under_way) {
    Alarm alarm(1, 1, say("x"));
    {
        Alarm const scoped(1, say("y"));
        advance(5);
    }
    alarm.Cancel();
    alarm.Cancel();
    alarm.Reset(1); // inert
    EXPECT_EQ("", after(5));
    EXPECT_EQ(0u, OutstandingAlarmCount());

    std::unique_ptr<Alarm> own;
    own.reset(new Alarm(1, 1, [&] {
        seen += "own";
        own.reset();
    }));
    EXPECT_EQ("own", after(5)) << "though five expiries were queued";
}

TEST_F(Alarms, a_reset_alarm_fires_once_more_and_then_vanishes) {
    Alarm alarm(10, 10, say("x"));
    EXPECT_EQ("x", after(10));
    alarm.Reset(25);
    EXPECT_EQ("", after(24));
    EXPECT_EQ("x", after(1));
    EXPECT_EQ(0u, OutstandingAlarmCount());
    alarm.Reset(1);
    EXPECT_EQ("", after(100)) << "a fired one-shot is not to be had back";

    Alarm once(10, say("y"));
    after(9);
    once.Reset(10);
    EXPECT_EQ("", after(9));
    EXPECT_EQ("y", after(1));
    Alarm const never(ULONG_MAX, ULONG_MAX, say("never"));
    EXPECT_EQ("", after(4000000000));
}

TEST_F(Alarms, a_handler_that_resets_its_own_alarm_may_wait_for_it) {
    auto const captured = std::make_shared<std::string>("kept");
    std::unique_ptr<Alarm> own;
    int depth = 0;
    own.reset(new Alarm(1, 1, [&, captured] {
        if (++depth == 1) {
            own->Reset(1);
            advance(1);
            RunOnce(0); // fires, now as a one-shot
        }
        seen += *captured + std::to_string(captured.use_count() >= 2);
    }));
    EXPECT_EQ("kept1kept1", after(1));
    EXPECT_EQ(0u, OutstandingAlarmCount());
    EXPECT_EQ(1, captured.use_count());
    own.reset();
}

TEST_F(Alarms, an_exception_leaves_the_rest_for_the_next_turn) {
    SetAlarm(1, say("a"));
    SetAlarm(1, [] { throw std::runtime_error("handler"); });
    SetAlarm(1, say("b"));
    advance(1);
    EXPECT_THROW(for (int i = 0; i < 3; ++i) RunOnce(0), std::runtime_error);
    EXPECT_EQ("a", seen);
    settle();
    EXPECT_EQ("ab", seen);
    EXPECT_EQ(0u, OutstandingAlarmCount());
}

TEST_F(Alarms, a_burst_before_the_loop_turns_loses_nothing) {
    int calls = 0;
    Alarm const fast(1, 1, [&] { ++calls; });
    for (int i = 0; i < 20000; ++i)
        SetAlarm(80000, [&] { ++calls; });
    advance(80000);
    settle_all();
    EXPECT_EQ(100000, calls);
}

TEST_F(Alarms, a_pipe_that_is_full_or_cannot_be_read_costs_no_later_expiry) {
    Alarm const alarm(1, 1, say("x"));
    {
        Fault const full(Call::write, EAGAIN); // and blocks nobody
        advance(5);
    }
    EXPECT_EQ("", after(0));
    EXPECT_EQ("xxx", after(3));
    advance(1);
    {
        Fault const interrupted(Call::read, EINTR, 1);
        EXPECT_EQ(1, RunOnce(0));
    }
    EXPECT_EQ("xxx", seen);
    EXPECT_EQ("x", after(0));
}

// A turn that took all there is would be longer each time, since so much more has come meanwhile.
TEST_F(Alarms, and_signals_with_slow_handlers_leave_the_loop_to_others_after_a_while) {
    orn::os::Pipe ready(false);
    put(ready.WriteFD(), "x");
    fd::AutoReceptor const neighbour(ready.ReadFD(), [&](fd::Event*) { seen += '|'; });
    settle();
    auto const work = [&] {
        poll(nullptr, 0, 5);
        seen += 's';
    };
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) { work(); });
    for (bool const alarms : {true, false}) {
        for (int i = 0; i < 40; ++i)
            alarms ? SetAlarm(1, work) : static_cast<void>(raise(SIGUSR1));
        advance(1);
        seen.clear();
        auto const handled = [&] { return std::count(seen.begin(), seen.end(), 's'); };
        while (handled() < 40)
            RunOnce(0);
        // 20 ms, a tick of the kernel's coarse clock, and those that are under way at either end.
        EXPECT_EQ(std::string::npos, seen.find(std::string(11, 's'))) << seen;
        EXPECT_NE(std::string::npos, seen.find("ss")) << "more than one a turn when they are quick";
        RunOnce(0);
        EXPECT_EQ(40, handled());
    }
}

TEST_F(Alarms, identifiers_travel_in_32_bits_whatever_the_width_of_long) {
    orn::os::Pipe pipe(false);
    alarm::process_to_fd(static_cast<unsigned long>(0x700000005ull), pipe.WriteFD());
    std::uint32_t const five = 5;
    EXPECT_EQ(std::string(reinterpret_cast<char const*>(&five), 4), take(pipe.ReadFD()));
}

TEST_F(Alarms, identifiers_that_wrap_meet_no_living_ones) {
    unsigned long const old = alarm::manager()->AddAlarm(5, 0, say("old "));
    detail::continue_identifiers_at(static_cast<std::uint32_t>(old));
    SetAlarm(5, say("new "));
    detail::continue_identifiers_at(0);
    Alarm zero(5, say("zero"));
    EXPECT_EQ(3u, OutstandingAlarmCount());
    zero.Cancel();
    EXPECT_EQ(2u, OutstandingAlarmCount()) << "0 would not be cancelled";
    EXPECT_EQ("old new ", after(5));

    SetAlarm(5, say("mine"));
    detail::continue_identifiers_at(static_cast<std::uint32_t>(thread::FdMgr()->id().value()));
    Member const member([] {
        EXPECT_EQ(0u, OutstandingAlarmCount()) << "served by another thread's manager";
        detail::continue_identifiers_at(0);
        NewThreadGroup();
        EXPECT_NE(0u, GroupId());
    });
}

TEST_F(Alarms, any_member_of_the_group_may_cancel_and_reset_and_a_stranger_is_logged) {
    std::vector<std::unique_ptr<Alarm>> alarms;
    for (char const* const name : {"a ", "b ", "c ", "d "})
        alarms.emplace_back(new Alarm(1, 1, say(name)));
    int stranger = 0;
    Member([&] {
        alarms[0].reset();
        alarms[1]->Reset(7);
    }).join();
    EXPECT_EQ(std::string::npos, log_file.text().find("src/alarm"));
    Member([&] {
        NewThreadGroup();
        stranger = thread::self();
        alarms[2]->Cancel();
        alarms[3]->Reset(8);
        EXPECT_EQ(0u, OutstandingAlarmCount());
    }).join();
    EXPECT_EQ(2u, OutstandingAlarmCount());
    EXPECT_EQ("", after(6));
    EXPECT_EQ("b d ", after(2));
    std::string const ids = " belongs to thread " + std::to_string(thread::self()) + ", and thread " +
                            std::to_string(stranger) + " is of another group";
    std::string const text = log_file.text();
    std::string::size_type const first = text.find(ids);
    EXPECT_NE(std::string::npos, first) << text;
    EXPECT_NE(std::string::npos, text.find(ids, first + 1)) << text;
}

TEST_F(Alarms, that_an_unload_has_taken_away_still_tell_of_their_end) {
    orn::os::Pipe observer(false);
    auto alarm = std::make_unique<Alarm>(1, say("x"));
    alarm::Monitor("", observer.WriteFD());
    alarm::zel_alarm_unload();
    EXPECT_EQ(0u, fake_timer::live());
    alarm->Reset(1);
    EXPECT_EQ(0u, fake_timer::live());
    EXPECT_EQ("", take(observer.ReadFD()));
    alarm.reset();
    EXPECT_EQ(0u, without_tid(take(observer.ReadFD())).find("alarm deleted: id="));
    alarm::Unmonitor("", 0);
    alarm::zel_alarm_load();
    EXPECT_EQ("", after(1));
}

int hooked = 0;

void alarm_one() {
    SetAlarm(1, [] { ++hooked; });
}

void start_one() {
    RunTask(once(hooked));
}

// The first group of a child of fork() is made together with its first manager, and runs the hook.
TEST_F(Alarms, may_be_unloaded_while_another_thread_asks_for_them) {
    std::atomic<bool> over(false);
    Member const member([&] {
        while (!over)
            alarm::manager();
    });
    for (int round = 0; round < 1000; ++round) {
        alarm::zel_alarm_unload();
        alarm::zel_alarm_load();
    }
    over = true;
}

TEST_F(Alarms, and_tasks_of_the_childs_hook_are_kept_while_a_manager_is_made) {
    for (void (*const make)() : {alarm_one, start_one}) {
        detail::set_child_hook(make);
        EXPECT_EQ("exit 2", in_child([&] {
                      make();
                      advance(1);
                      settle();
                      return hooked;
                  }));
        detail::set_child_hook(nullptr);
    }
}

TEST_F(Alarms, the_monitor_tells_the_life_of_each) {
    orn::os::Pipe observer(false);
    auto const lines = [&] { return without_tid(take(observer.ReadFD())); };
    alarm::manager();
    alarm::Monitor("ignored", observer.WriteFD());
    detail::continue_identifiers_at(700);
    auto alarm = std::make_unique<Alarm>(3, 4, say("x"));
    EXPECT_EQ("alarm created: id=700 initial=3 recurring=4\n", lines());
    after(3);
    EXPECT_EQ("ALARM: id=700\n", lines());
    alarm->Reset(9);
    EXPECT_EQ("alarm created: id=700 timeout=9\n", lines());
    after(9);
    EXPECT_EQ("ALARM: id=700\n", lines());
    alarm->Reset(9);
    EXPECT_EQ("", lines());
    alarm.reset();
    EXPECT_EQ("alarm deleted: id=700\n", lines()) << "although it had fired";
    SetAlarm(1, say("y"));
    EXPECT_EQ("alarm created: id=701 initial=1 recurring=0\n", lines());
    alarm::Unmonitor("whatever", 77);
    after(1);
    EXPECT_EQ("", lines());
}

} // namespace
