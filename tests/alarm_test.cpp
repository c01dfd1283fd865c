// SPDX-License-Identifier: MIT
//
// Alarms on a clock that the tests turn by hand.
#include <climits>
#include <thread>

#include <orn/log.h>

#include "../src/fork.hpp"
#include "../src/threadRegistry.hpp"
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

class Alarms : public Loop {
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
    EXPECT_EQ("NULL handler", refusal([] { Alarm const alarm(1, 1, alarm::Handler()); }));
    SetAlarm(100, [&] { SetAlarm(2, [&] { seen += std::to_string(OutstandingAlarmCount()); }); });
    SetAlarm(0, say("now "));
    Alarm const one(101, say("one "));
    Alarm const many(50, 20, say("many "));
    EXPECT_EQ(4u, OutstandingAlarmCount());
    EXPECT_EQ(4u, fake_timer::live()) << "and none of the one that was refused";
    EXPECT_EQ("now ", after(0));
    EXPECT_EQ("", after(49));
    EXPECT_EQ("many ", after(1));
    EXPECT_EQ("many many ", after(49));
    EXPECT_EQ("", after(1));
    EXPECT_EQ("one ", after(1));
    EXPECT_EQ("1", after(1)) << "one that fires once is gone when its handler runs";
    EXPECT_EQ(1u, fake_timer::live());
    EXPECT_EQ("many many ", after(39));
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

TEST_F(Alarms, a_burst_before_the_loop_turns_loses_nothing) {
    int calls = 0;
    Alarm const fast(1, 1, [&] { ++calls; });
    advance(100000);
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
    advance(1);
    {
        Fault const interrupted(Call::read, EINTR, 1);
        EXPECT_EQ(1, RunOnce(0));
    }
    EXPECT_EQ("", seen);
    EXPECT_EQ("x", after(0));
}

// A turn that took all there is would be longer each time, since so much more has come meanwhile.
TEST_F(Alarms, and_signals_leave_the_loop_to_others_after_a_while_or_a_throw_and_lose_nothing) {
    WatchedPipe ready([&] {
        seen += '|';
        ready.feed();
    });
    ready.feed();
    settle();
    bool angry = false;
    auto const work = [&] {
        poll(nullptr, 0, 5);
        seen += 's';
        if (std::exchange(angry, false))
            throw std::runtime_error("handler");
    };
    signal::AutoReceptor const receptor(SIGUSR1, [&](int) { work(); });
    for (bool const alarms : {true, false}) {
        for (int i = 0; i < 40; ++i)
            alarms ? SetAlarm(1, work) : static_cast<void>(raise(SIGUSR1));
        advance(1);
        angry = true;
        EXPECT_THROW(for (int i = 0; i < 3; ++i) RunOnce(0), std::runtime_error);
        seen.clear();
        auto const handled = [&] { return std::count(seen.begin(), seen.end(), 's'); };
        while (handled() < 39)
            RunOnce(0);
        // 20 ms, a tick of the kernel's coarse clock, and those that are under way at either end.
        EXPECT_EQ(std::string::npos, seen.find(std::string(11, 's'))) << seen;
        EXPECT_NE(std::string::npos, seen.find("ss")) << "more than one a turn when they are quick";
        RunOnce(0);
        EXPECT_EQ(39, handled());
    }
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

    detail::continue_identifiers_at(900);
    Alarm fired(1, say("fired "));
    EXPECT_EQ("fired ", after(1));
    detail::continue_identifiers_at(900);
    Alarm const heir(3, 3, say("heir "));
    fired.Reset(1);
    fired.Cancel();
    EXPECT_EQ("heir ", after(3));

    SetAlarm(5, say("mine"));
    unsigned long const group = GroupId();
    detail::continue_identifiers_at(static_cast<std::uint32_t>(thread::FdMgr()->id().value()));
    Member const member([group] {
        EXPECT_EQ(0u, OutstandingAlarmCount()) << "served by another thread's manager";
        detail::continue_identifiers_at(static_cast<std::uint32_t>(group));
        NewThreadGroup();
        EXPECT_NE(group, GroupId());
        detail::continue_identifiers_at(0);
        NewThreadGroup();
        EXPECT_NE(0u, GroupId());
    });
}

TEST_F(Alarms, any_member_of_the_group_may_cancel_and_reset_and_a_stranger_is_logged) {
    Alarm a(1, 1, say("a ")), b(1, 1, say("b ")), c(1, 1, say("c ")), d(1, say("d "));
    Member([&] {
        a.Cancel();
        b.Reset(7);
    }).join();
    EXPECT_EQ(std::string::npos, log_file.text().find("src/alarm"));
    int stranger = 0;
    Member([&] {
        NewThreadGroup();
        stranger = thread::self();
        c.Cancel();
        d.Reset(8);
        EXPECT_EQ(0u, OutstandingAlarmCount());
    }).join();
    EXPECT_EQ(2u, OutstandingAlarmCount());
    EXPECT_EQ("", after(6));
    EXPECT_EQ("b d ", after(2));
    std::string const ids = " belongs to thread " + std::to_string(thread::self()) + ", and thread " +
                            std::to_string(stranger) + " is of another group";
    std::string const text = log_file.text();
    EXPECT_NE(text.find(ids), text.rfind(ids)) << text;
}

TEST_F(Alarms, that_an_unload_has_taken_away_still_tell_of_their_end) {
    orn::os::Pipe observer(false);
    {
        auto const held = alarm::manager();
        Alarm alarm(1, say("x"));
        alarm::Monitor("", observer.WriteFD());
        alarm::zel_alarm_unload();
        EXPECT_EQ(0u, fake_timer::live());
        alarm.Reset(1);
        EXPECT_EQ("", take(observer.ReadFD()));
    }
    EXPECT_EQ(0u, without_tid(take(observer.ReadFD())).find("alarm deleted: id="));
    alarm::zel_alarm_load();
    EXPECT_EQ("", after(1));
}

TEST_F(Alarms, may_be_unloaded_while_another_thread_uses_them) {
    std::atomic<bool> over(false);
    Member const member([&] {
        while (!over) {
            Alarm alarm(1, 1, [] {});
            alarm.Reset(2);
            alarm::manager();
        }
    });
    for (int round = 0; round < 1000; ++round) {
        alarm::zel_alarm_unload();
        alarm::zel_alarm_load();
    }
    over = true;
}

TEST_F(Alarms, of_a_thread_whose_record_was_replaced_fire_on_its_new_loop) {
    std::thread([&] {
        for (void (*const replace)() :
             {+[] { TheThreadMap()->Erase(); }, +[] { thread::This() = thread::Associations(); },
              +[] { thread::Registry::drop(); }, +[] { thread::Registry::unload(); }}) {
            auto const before = alarm::manager();
            EXPECT_EQ(before, alarm::manager());
            replace();
            SetAlarm(1, say("x"));
            EXPECT_NE(before, alarm::manager());
            EXPECT_EQ("x", after(1));
        }
    }).join();
}

int hooked = 0;

// The first group of a child of fork() is made together with its first manager, and runs the hook.
TEST_F(Alarms, and_tasks_of_the_childs_hook_are_kept_while_a_manager_is_made) {
    for (void (*const make)() : {+[] { SetAlarm(1, [] { ++hooked; }); }, +[] { RunTask(once(hooked)); }}) {
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
    alarm::manager();
    alarm::Monitor("ignored", observer.WriteFD());
    detail::continue_identifiers_at(700);
    {
        Alarm alarm(3, 4, say("x"));
        after(3);
        alarm.Reset(9);
        after(9);
        alarm.Reset(9); // in vain
    }
    alarm::Unmonitor("whatever", 77);
    SetAlarm(1, say("y"));
    after(1);
    EXPECT_EQ("alarm created: id=700 initial=3 recurring=4\n"
              "ALARM: id=700\n"
              "alarm created: id=700 timeout=9\n"
              "ALARM: id=700\n"
              "alarm deleted: id=700\n",
              without_tid(take(observer.ReadFD())));
}

} // namespace
