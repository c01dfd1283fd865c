// SPDX-License-Identifier: MIT
//
// Alarms on the real clock: what only its service thread can bring about. That no timer is early is shown in
// platform_timer_test.cpp.

#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class AlarmClock : public Loop {};

TEST_F(AlarmClock, members_set_and_cancel_while_a_third_thread_runs_the_loop) {
    std::atomic<long> fired_of[2] = {};
    auto const churn = [](std::atomic<long>& fired) {
        std::atomic<long> mine(0);
        long expected = 0;
        for (int i = 0; i < 300; ++i) {
            Alarm recurring(0, 1, [&] { ++fired; });
            // Most are cancelled before the loop turns: now and then one is given the time to fire.
            long const before = fired;
            EXPECT_TRUE(i % 50 != 0 || wait_until([&] { return fired > before + 1; }));
            Alarm late(1, [&] { ++fired; });
            for (int j = 0; j < 4; ++j, ++expected)
                SetAlarm(0, [&] { ++mine; });
            late.Reset(i % 3 ? 0 : 50000);
            recurring.Reset(0);
            EXPECT_LE(OutstandingAlarmCount(), 2u + static_cast<unsigned>(expected));
            if (i % 16 == 0)
                sched_yield();
        }
        EXPECT_TRUE(wait_until([&] { return mine == expected; })) << mine;
        // A handler that is being called may outlive its cancelling by a moment: let it.
        EXPECT_TRUE(wait_until([] { return OutstandingAlarmCount() == 0; }));
    };
    Member const first([&] { churn(fired_of[0]); }), second([&] { churn(fired_of[1]); });
    while (!first.ended() || !second.ended())
        RunOnce(1);
}

} // namespace
