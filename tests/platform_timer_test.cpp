// SPDX-License-Identifier: MIT
//
// What orn::os::Timer promises on any clock. Built twice: for the real clock, and with FAKE_TIMER for the one
// that tests turn by hand.
#include <climits>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <orn/os/Timer.hpp>

#include "support/Common.hpp"
#include "support/FakeTimer.hpp"

namespace {

using orn::os::Timer;

#ifdef FAKE_TIMER
long now_ms() {
    return fake_timer::now();
}
bool pass_until(std::function<bool()> const& condition) {
    for (int ms = 0; ms < 1000 && !condition(); ++ms)
        fake_timer::advance(ms > 0);
    return condition();
}
#else
long now_ms() {
    return support::milliseconds();
}
bool pass_until(std::function<bool()> const& condition) {
    return support::wait_until(condition);
}
#endif

// Who was called when, since this was made.
class Calls {
public:
    boost::function<void(Timer*)> as(char name) {
        return [this, name](Timer*) { note(name); };
    }
    void note(char name) {
        std::lock_guard<std::mutex> const guard(mutex_);
        names_ += name;
        at_.push_back(now_ms() - begin_);
    }
    // The first so many, once there have been as many.
    std::string names(std::size_t first) {
        EXPECT_TRUE(pass_until([&] { return names().size() >= first; }));
        return names().substr(0, first);
    }
    std::string names() {
        std::lock_guard<std::mutex> const guard(mutex_);
        return names_;
    }
    long at(std::size_t call) {
        std::lock_guard<std::mutex> const guard(mutex_);
        return at_.at(call);
    }

private:
    std::mutex mutex_;
    std::string names_;
    std::vector<long> at_;
    long const begin_ = now_ms();
};

TEST(Timer, fires_once_never_early_in_the_order_of_deadlines_and_never_with_a_huge_delay) {
    Calls calls;
    Timer never(calls.as('n'));
    Timer far(calls.as('f'));
    Timer once(calls.as('o'));
    Timer a(calls.as('a'));
    Timer b(calls.as('b'));
    never.Set(ULONG_MAX, ULONG_MAX);
    far.Set(60000, 0);
    once.Set(0, ULONG_MAX);
    a.Set(20, 0);
    b.Set(30, 0);
    EXPECT_EQ("oab", calls.names(3));
    EXPECT_LE(20, calls.at(1));
    EXPECT_LE(30, calls.at(2));
}

TEST(Timer, that_is_set_again_fires_anew_and_at_once_without_a_delay) {
    Calls calls;
    int times = 0;
    Timer twice([&](Timer* self) {
        calls.note('t');
        if (++times == 1)
            self->Set(1, 0);
    });
    twice.Set(60000, 60000);
    twice.Set(2, 60000);
    EXPECT_EQ("tt", calls.names(2));
    EXPECT_LE(3, calls.at(1));
    twice.Set(0, 0);
    EXPECT_EQ("ttt", calls.names(3));
}

TEST(Timer, that_recurs_keeps_its_phase_until_it_dies) {
    Calls calls;
    auto timer = std::make_unique<Timer>(calls.as('r'));
    timer->Set(10, 20);
    calls.names(5);
    timer.reset();
    for (int call = 0; call < 5; ++call)
        EXPECT_LE(10 + 20 * call, calls.at(static_cast<std::size_t>(call)));
    std::string const before = calls.names();
    Timer later(calls.as('l'));
    later.Set(30, 0);
    EXPECT_EQ(before + 'l', calls.names(before.size() + 1));
}

TEST(Timer, may_die_in_its_callback_which_lives_until_it_returns) {
    auto text = std::make_shared<std::string>("alive");
    std::weak_ptr<std::string> const watch = text;
    Calls calls;
    auto* const timer = new Timer([text, &calls](Timer* self) {
        delete self;
        Timer other([](Timer*) {});
        other.Set(0, 1);
        calls.note(text->at(0));
    });
    text.reset();
    timer->Set(5, 5);
    EXPECT_EQ("a", calls.names(1));
    EXPECT_TRUE(pass_until([&] { return watch.expired(); }));
    EXPECT_EQ("a", calls.names());
}

} // namespace
