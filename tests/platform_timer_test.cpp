// SPDX-License-Identifier: MIT
//
// orn::os::Timer and its service thread. Lower bounds on times are exact; upper bounds are deadlines only.
#include <algorithm>
#include <chrono>
#include <climits>
#include <random>
#include <system_error>

#include <pthread.h>
#include <sched.h>

#include <orn/os/Timer.hpp>

#include "support/Common.hpp"

namespace {

std::atomic<int> creation_ms{0};
std::atomic<int> creation_error{0};

} // namespace

// The linker has the service's call of pthread_create() come here.
extern "C" int __real_pthread_create(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, pthread_attr_t const* attributes,
                                     void* (*start)(void*), void* argument) {
    if (int const error = creation_error)
        return error;
    if (creation_ms > 0)
        poll(nullptr, 0, creation_ms);
    return __real_pthread_create(thread, attributes, start, argument);
}

namespace {

using orn::os::Timer;
using support::Count;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

boost::function<void(Timer*)> counting(Count& count) {
    return [&count](Timer*) { count.up(); };
}

// Who was called; to be read when no more can come.
struct Calls {
    boost::function<void(Timer*)> as(char name) {
        return [this, name](Timer*) {
            names += name;
            count.up();
        };
    }
    std::string names;
    Count count;
};

TEST(Timer, fires_once_never_early_and_in_the_order_of_deadlines) {
    Calls calls;
    Timer far(calls.as('f')), a(calls.as('a')), b(calls.as('b'));
    long const begin = support::milliseconds();
    far.Set(60000, 0);
    b.Set(30, 0);
    a.Set(20, 0);
    EXPECT_TRUE(calls.count.reaches(1));
    EXPECT_LE(begin + 20, support::milliseconds());
    EXPECT_TRUE(calls.count.reaches(2));
    EXPECT_LE(begin + 30, support::milliseconds());
    EXPECT_EQ("ab", calls.names);
}

TEST(Timer, that_is_set_again_fires_anew_and_at_once_without_a_delay) {
    Count fired;
    Timer twice([&](Timer* self) {
        if (fired.value() == 0)
            self->Set(1, 0);
        fired.up();
    });
    long const begin = support::milliseconds();
    twice.Set(60000, 60000);
    twice.Set(2, 60000);
    EXPECT_TRUE(fired.reaches(2));
    EXPECT_LE(begin + 3, support::milliseconds());
    twice.Set(0, 0);
    EXPECT_TRUE(fired.reaches(3));
}

TEST(Timer, with_a_huge_delay_never_fires) {
    Calls calls;
    Timer never(calls.as('n')), once(calls.as('o'));
    auto last = std::make_unique<Timer>(calls.as('l'));
    never.Set(ULONG_MAX, ULONG_MAX);
    once.Set(0, ULONG_MAX);
    last->Set(10, 10);
    EXPECT_TRUE(calls.count.reaches(4));
    last.reset();
    EXPECT_EQ("olll", calls.names.substr(0, 4));
}

TEST(Timer, may_die_in_its_callback_which_lives_until_it_returns) {
    auto text = std::make_shared<std::string>("alive");
    std::weak_ptr<std::string> const watch = text;
    Count fired;
    auto* const timer = new Timer([text, &fired](Timer* self) {
        delete self;
        Timer other([](Timer*) {});
        other.Set(0, 1);
        EXPECT_EQ("alive", *text);
        fired.up();
    });
    text.reset();
    timer->Set(5, 5);
    EXPECT_TRUE(support::wait_until([&] { return watch.expired(); }));
    EXPECT_EQ(1u, fired.value());
}

// ---- The service thread

TEST(TimerThread, keeps_the_phase_of_a_recurring_timer_and_skips_what_a_stall_missed) {
    constexpr auto period = milliseconds(20);
    constexpr std::size_t fires = 15;
    std::vector<Clock::duration> at;
    Count fired;
    Clock::time_point start;
    auto const callback = [&](Timer*) {
        at.push_back(Clock::now() - start);
        if (at.size() == 4)
            std::this_thread::sleep_for(period * 7 / 2);
        fired.up();
    };
    std::unique_ptr<Timer> timer;
    do { // until the phase is known closely, even if this thread had to wait for its turn
        timer.reset();
        at.clear();
        timer = std::make_unique<Timer>(callback);
        start = Clock::now();
        timer->Set(20, 20);
    } while (Clock::now() - start > milliseconds(2));
    ASSERT_TRUE(fired.reaches(fired.value() + fires));
    timer.reset();
    auto least_late = Clock::duration(period);
    for (std::size_t i = 0; i < fires; ++i) {
        // The fifth comes as soon as the stall is over, for the period that began in it; two more are missed.
        auto const nth = static_cast<int>(i) + 1;
        int const due_in_halves = nth < 5 ? 2 * nth : nth == 5 ? 15 : 2 * (nth + 2);
        EXPECT_GE(at[i], period * due_in_halves / 2) << "call " << nth;
        if (i > 4)
            least_late = std::min(least_late, at[i] % period);
    }
    // One that counts on from the end of the stall is at least half a period late from there on.
    EXPECT_LT(least_late, period * 2 / 5);
}

TEST(TimerThread, has_a_name_and_all_signals_blocked) {
    Count fired;
    sigset_t blocked;
    char name[16] = "";
    Timer timer([&](Timer*) {
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        pthread_getname_np(pthread_self(), name, sizeof name);
        fired.up();
    });
    timer.Set(0, 0);
    ASSERT_TRUE(fired.reaches(1));
    EXPECT_STREQ("orn-timer", name);
    for (int const signo : {SIGALRM, SIGTERM, SIGCHLD, SIGRTMIN})
        EXPECT_EQ(1, sigismember(&blocked, signo)) << signo;
}

TEST(TimerThread, lets_a_destructor_wait_for_a_running_callback_that_sets_itself_again) {
    Count entered;
    std::atomic<bool> finished{false};
    auto timer = std::make_unique<Timer>([&](Timer* self) {
        entered.up();
        std::this_thread::sleep_for(milliseconds(30));
        self->Set(0, 0);
        finished = true;
    });
    timer->Set(0, 0);
    ASSERT_TRUE(entered.reaches(1));
    timer.reset();
    EXPECT_TRUE(finished);
    auto const times = entered.value();
    Count later;
    Timer probe(counting(later));
    probe.Set(0, 1);
    ASSERT_TRUE(later.reaches(3));
    EXPECT_EQ(times, entered.value());
}

// Set, replaced and cancelled while others fire, by two threads.
TEST(TimerThread, fires_each_of_a_hundred_thousand_that_is_not_cancelled_once) {
    auto const work = [](unsigned seed) {
        std::minstd_rand random(seed);
        std::vector<std::atomic<int>> fired(50000);
        std::vector<std::unique_ptr<Timer>> timers;
        Count count;
        for (std::atomic<int>& times : fired) {
            timers.push_back(std::make_unique<Timer>([&](Timer*) {
                ++times;
                count.up();
            }));
            timers.back()->Set(60000 + random() % 1000, 0);
        }
        std::size_t expected = 0;
        for (std::unique_ptr<Timer>& timer : timers) {
            if (random() % 2 == 0) {
                timer->Set(random() % 100, 0);
                ++expected;
            } else if (random() % 2 == 0) {
                timer.reset();
            }
        }
        EXPECT_TRUE(count.reaches(expected));
        timers.clear();
        EXPECT_EQ(expected, count.value());
        EXPECT_EQ(0, std::count_if(fired.begin(), fired.end(), [](int times) { return times > 1; }));
    };
    std::thread other(work, 1);
    work(2);
    other.join();
}

TEST(TimerThread, is_anew_in_a_child_of_fork_without_the_timers_of_the_parent) {
    if (support::has_thread_sanitizer)
        GTEST_SKIP() << "ThreadSanitizer starts no thread in the child of a process that has threads";
    Count parents;
    Count childs;
    Count entered;
    std::atomic<bool> hold{true};
    Timer inherited(counting(parents));
    Timer running([&](Timer*) {
        entered.up();
        while (hold)
            std::this_thread::yield();
    });
    running.Set(0, 0);
    ASSERT_TRUE(entered.reaches(1));
    inherited.Set(50, 50);
    EXPECT_EQ("exit 0", support::in_child([&] {
                  hold = false;
                  Timer own(counting(childs));
                  own.Set(1, 75);
                  bool const all = childs.reaches(2) && parents.value() == 0;
                  running.Set(0, 0); // its callback was on a stack that is no more
                  return all && entered.reaches(2) ? 0 : 1;
              }));
    hold = false;
    EXPECT_TRUE(parents.reaches(1));
}

// ---- What needs a process of its own, which ends with 7 when all went well

void run_without_threads() {
    Count fired;
    Timer timer(counting(fired));
    creation_error = EAGAIN;
    try {
        timer.Set(0, 0);
        std::_Exit(1);
    } catch (std::system_error const& refused) {
        EXPECT_EQ(EAGAIN, refused.code().value());
    }
    creation_error = 0;
    Timer other(counting(fired));
    other.Set(10, 0);
    std::_Exit(fired.reaches(1) && fired.value() == 1 ? 7 : 2);
}

// The first call makes the thread, which takes longer than its delay: so it is due before the second, by more
// than their delays say.
void set_first_timer_slowly() {
    creation_ms = 100;
    std::atomic<int> calls{0};
    std::atomic<int> place{0};
    Count fired;
    Timer first([&](Timer*) {
        place = ++calls;
        fired.up();
    });
    Timer second([&](Timer*) {
        ++calls;
        fired.up();
    });
    first.Set(100, 0);
    second.Set(50, 0);
    std::_Exit(fired.reaches(2) && place == 1 ? 7 : 1);
}

// SCHED_BATCH, since that one needs no privilege.
void set_first_timer_in_a_batch() {
    sched_param const none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
    Count fired;
    std::atomic<int> inherited{-1};
    std::atomic<int> chosen{-1};
    Timer timer([&](Timer*) {
        (fired.value() == 0 ? inherited : chosen) = sched_getscheduler(0);
        sched_setscheduler(0, SCHED_OTHER, &none);
        fired.up();
    });
    timer.Set(0, 1);
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &none);
    std::_Exit(fired.reaches(2) && inherited == SCHED_BATCH && chosen == SCHED_OTHER ? 7 : 1);
}

class TimerThreadDeathTest : public ::testing::TestWithParam<std::pair<char const*, void (*)()>> {};

TEST_P(TimerThreadDeathTest, ends_the_process_well) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(GetParam().second(), ::testing::ExitedWithCode(7), "");
}

INSTANTIATE_TEST_SUITE_P(
    ThatItself, TimerThreadDeathTest,
    ::testing::Values(std::make_pair("cannot_be_made_so_that_set_throws", run_without_threads),
                      std::make_pair("is_made_slowly_while_the_delay_counts", set_first_timer_slowly),
                      std::make_pair("inherits_the_first_setters_policy", set_first_timer_in_a_batch)),
    [](auto const& process) { return process.param.first; });

} // namespace
