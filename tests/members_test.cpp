// SPDX-License-Identifier: MIT
//
// Members that come to and leave every source of events, on the real clock, while another thread runs their
// loop.
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

class Members : public Loop {};

TEST_F(Members, use_every_source_of_events_while_another_thread_runs_their_loop) {
    int const rounds = 300;
    int const signo = SIGRTMIN + 1;
    std::atomic<long> arrivals(0), fired_of[2] = {};
    signal::AutoReceptor const stays(signo, [](int) {});
    auto const churn = [&](std::atomic<long>& fired) {
        std::atomic<long> rung(0), completed(0);
        for (int i = 0; i < rounds; ++i) {
            WatchedPipe const own;
            signal::AutoReceptor const one(signo, [&](int) { ++arrivals; });
            signal::AutoReceptor const two(SIGRTMIN + 2 + i % 8, [&](int) { ++arrivals; });
            ASSERT_LE(1u, Signal(signo)->count());
            raise(signo);

            Alarm recurring(0, 1, [&] { ++fired; });
            // Most are cancelled before the loop turns: now and then one is given the time to fire.
            long const before = fired;
            ASSERT_TRUE(i % 50 != 0 || wait_until([&] { return fired > before + 1; }));
            Alarm late(1, [&] { ++fired; });
            for (int j = 0; j < 4; ++j)
                SetAlarm(0, [&] { ++rung; });
            late.Reset(i % 3 ? 0 : 50000);
            recurring.Reset(0);
            EXPECT_LE(OutstandingAlarmCount(), 2u + 4u * static_cast<unsigned>(i + 1));

            for (int j = 0; j < 4; ++j) {
                RunTask(complete, [&] { ++completed; });
                Task cancelled([](task::Controller*) {});
                cancelled.Run();
            }
            if (i % 4 == 0)
                continue; // the descriptor is withdrawn before, in or after the first poll
            own.feed();
            ASSERT_TRUE(wait_until([&] { return own.calls == 1; }));
        }
        EXPECT_TRUE(wait_until([&] { return rung == 4 * rounds && completed == 4 * rounds; }));
        // A handler that is being called may outlive its cancelling by a moment: let it.
        EXPECT_TRUE(wait_until([] { return OutstandingAlarmCount() == 0; }));
    };
    {
        Member const first([&] { churn(fired_of[0]); }), second([&] { churn(fired_of[1]); });
        while (!first.ended() || !second.ended())
            RunOnce(1);
    }
    settle_all();
    EXPECT_LT(0, arrivals);
}

} // namespace
