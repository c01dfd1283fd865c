// SPDX-License-Identifier: MIT
//
// The clock that the alarm tests turn by hand keeps the promises of the real one.
#include "support/FakeTimer.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <orn/os/Timer.hpp>
#include <string>

namespace {

using orn::os::Timer;

TEST(FakeTimer, FiresInOrderOfDeadlinesAndKeepsThePhase) {
    std::string order;
    Timer a([&](Timer*) { order += 'a'; });
    Timer b([&](Timer*) { order += 'b'; });
    a.Set(20, 0);
    b.Set(10, 10);
    fake_timer::advance(9);
    EXPECT_EQ(order, "");
    fake_timer::advance(1);
    EXPECT_EQ(order, "b");
    fake_timer::advance(25);
    EXPECT_EQ(order, "babb");
    EXPECT_EQ(fake_timer::armed(), 1u);
    a.Set(0, 0);
    fake_timer::advance(0);
    EXPECT_EQ(order, "babba");
}

TEST(FakeTimer, ATimerMayBeDestroyedInItsCallback) {
    int fired = 0;
    auto* timer = new Timer([&](Timer* self) {
        delete self;
        ++fired;
    });
    timer->Set(5, 5);
    EXPECT_EQ(fake_timer::live(), 1u);
    fake_timer::advance(50);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(fake_timer::live(), 0u);
    EXPECT_EQ(fake_timer::armed(), 0u);
}

} // namespace
