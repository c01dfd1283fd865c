// SPDX-License-Identifier: MIT
//
// orn::os::Timer's service thread, on the real clock. What holds on any clock is in platform_timer_test.cpp.
// Lower bounds on times are exact; upper bounds are deadlines only.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
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

TEST(TimerThread, keeps_the_phase_of_a_recurring_timer_and_skips_what_a_stall_missed) {
    constexpr auto period = milliseconds(20);
    std::vector<Clock::duration> at;
    Count fired;
    Clock::time_point start;
    auto const callback = [&](Timer*) {
        at.push_back(Clock::now() - start);
        if (at.size() == 1)
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
    ASSERT_TRUE(fired.reaches(fired.value() + 12));
    timer.reset();
    // The second comes as soon as the stall is over, for the period that began in it; two more are missed.
    EXPECT_GE(at[0], period);
    EXPECT_GE(at[1], period * 9 / 2);
    auto least_late = Clock::duration(period);
    for (std::size_t i = 2; i < 12; ++i) {
        EXPECT_GE(at[i], period * (i + 3)) << i;
        least_late = std::min(least_late, at[i] % period);
    }
    // One that counts on from the end of the stall is at least half a period late from there on.
    EXPECT_LT(least_late, period * 2 / 5);
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
    Count later;
    Timer probe(counting(later));
    probe.Set(0, 1);
    ASSERT_TRUE(later.reaches(3));
    EXPECT_EQ(1u, entered.value());
}

// Set, replaced and cancelled while others fire, by two threads.
TEST(TimerThread, fires_each_of_a_hundred_thousand_that_is_not_cancelled_once) {
    auto const work = [](unsigned seed) {
        std::minstd_rand random(seed);
        Count fired;
        std::vector<std::unique_ptr<Timer>> timers(50000);
        for (std::unique_ptr<Timer>& timer : timers) {
            timer = std::make_unique<Timer>(counting(fired));
            timer->Set(60000 + random() % 1000, 0);
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
        EXPECT_TRUE(fired.reaches(expected));
        timers.clear();
        EXPECT_EQ(expected, fired.value());
    };
    std::thread other(work, 1);
    work(2);
    other.join();
}

TEST(TimerThread, is_anew_in_a_child_of_fork_without_the_timers_of_the_parent) {
    if (support::has_thread_sanitizer)
        GTEST_SKIP() << "ThreadSanitizer starts no thread in the child of a process that has threads";
    Count parents;
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
                  Count own;
                  Timer timer(counting(own));
                  timer.Set(1, 75);
                  bool const all = own.reaches(2) && parents.value() == 0;
                  running.Set(0, 0); // its callback was on a stack that is no more
                  return all && entered.reaches(2) ? 0 : 1;
              }));
    hold = false;
    EXPECT_TRUE(parents.reaches(1));
}

// Each call sets the clock, so that one in some thirty exits meets a thread that is about to.
void set_earlier_and_earlier(std::atomic<int>& calls) {
    Timer timer([](Timer*) {});
    for (unsigned long ms = 3600000;; --ms) {
        timer.Set(ms, 0);
        ++calls;
    }
}

TEST(TimerThread, ends_at_once_when_the_process_exits_while_its_clock_is_set) {
    if (support::has_thread_sanitizer)
        GTEST_SKIP() << "ThreadSanitizer starts no thread in the child of a process that has threads";
    for (int child = 0; child < 100; ++child) {
        auto const exit_among_setters = [child]() -> int {
            static std::atomic<int> calls(0);
            for (int setter = 0; setter < 3; ++setter)
                std::thread(set_earlier_and_earlier, std::ref(calls)).detach();
            while (calls < 1000 + 10 * child)
                std::this_thread::yield();
            exit(7);
        };
        ASSERT_EQ("exit 7", support::in_child(exit_among_setters, 900)) << "exit() waits for a second";
    }
}

TEST(TimerThread, sleeps_on_a_clock_of_its_own_in_a_child_and_when_its_own_was_closed) {
    if (support::has_thread_sanitizer)
        GTEST_SKIP() << "ThreadSanitizer does not run on in a child of a process that has threads";
    Count fired;
    pid_t child = -1;
    Timer forking([&](Timer* self) {
        if (child == 0)
            _exit(3); // the thread has slept in the child
        child = fork();
        if (child == 0)
            self->Set(20, 0);
        fired.up();
    });
    forking.Set(0, 0);
    ASSERT_TRUE(fired.reaches(1));
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(3, WEXITSTATUS(status));

    Timer recurring(counting(fired));
    recurring.Set(1, 20);
    for (int fd = 3; fd < 20; ++fd) {
        if (support::is_timer_clock(fd))
            close(fd);
    }
    EXPECT_TRUE(fired.reaches(4));
    Timer earlier(counting(fired));
    earlier.Set(0, 0);
    EXPECT_TRUE(fired.reaches(5));
}

// ---- What needs a process of its own, which ends with 7 when all went well ------------------------------

void run_without_threads() {
    Count fired;
    Timer refused(counting(fired));
    Timer other(counting(fired));
    creation_error = EAGAIN;
    try {
        refused.Set(0, 0);
    } catch (std::system_error const& error) {
        creation_error -= error.code().value();
    }
    other.Set(10, 0);
    std::_Exit(fired.reaches(1) && fired.value() == 1 ? 7 : 1);
}

// The first call makes the thread, which takes longer than its delay: so it is due before the second, by more
// than their delays say.
void set_first_timer_slowly() {
    creation_ms = 100;
    std::atomic<int> place{-1};
    Count fired;
    Timer first([&](Timer*) {
        place = static_cast<int>(fired.value());
        fired.up();
    });
    Timer second(counting(fired));
    first.Set(100, 0);
    second.Set(50, 0);
    std::_Exit(fired.reaches(2) && place == 0 ? 7 : 1);
}

// SCHED_BATCH, since that one needs no privilege.
void set_first_timer_in_a_batch() {
    sched_param const none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
    Count fired;
    std::atomic<int> inherited{-1};
    std::atomic<int> chosen{-1};
    std::atomic<bool> takes_signals{false};
    Timer timer([&](Timer*) {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        takes_signals = sigismember(&blocked, SIGALRM) == 0 || sigismember(&blocked, 55) == 0;
        (fired.value() == 0 ? inherited : chosen) = sched_getscheduler(0);
        sched_setscheduler(0, SCHED_OTHER, &none);
        fired.up();
    });
    timer.Set(0, 1);
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &none);
    bool const as_chosen = fired.reaches(2) && inherited == SCHED_BATCH && chosen == SCHED_OTHER;
    std::_Exit(as_chosen && !takes_signals ? 7 : 1);
}

TEST(TimerThreadDeathTest,
     throws_unless_it_can_be_made_takes_no_signals_and_the_first_setters_time_and_policy) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(run_without_threads(), ::testing::ExitedWithCode(7), "");
    EXPECT_EXIT(set_first_timer_slowly(), ::testing::ExitedWithCode(7), "");
    EXPECT_EXIT(set_first_timer_in_a_batch(), ::testing::ExitedWithCode(7), "");
}

} // namespace
