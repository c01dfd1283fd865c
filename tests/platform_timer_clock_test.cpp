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
    for (int const signo : {SIGALRM, SIGTERM, SIGCHLD, SIGRTMIN, 55})
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

void exit_in_callback() {
    static Timer timer([](Timer*) { std::exit(7); }); // destroyed by its own callback's thread
    timer.Set(0, 1);
    for (;;)
        pause();
}

void exit_among_users() {
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;) {
                Timer timer([](Timer*) {});
                timer.Set(0, 1);
            }
        }).detach();
    }
    Count fired;
    Timer timer(counting(fired));
    timer.Set(0, 1);
    std::exit(fired.reaches(5) ? 7 : 1);
}

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
    ::testing::Values(std::make_pair("exits_in_a_callback", exit_in_callback),
                      std::make_pair("is_used_by_others_at_exit", exit_among_users),
                      std::make_pair("cannot_be_made_so_that_set_throws", run_without_threads),
                      std::make_pair("is_made_slowly_while_the_delay_counts", set_first_timer_slowly),
                      std::make_pair("inherits_the_first_setters_policy", set_first_timer_in_a_batch)),
    [](auto const& process) { return process.param.first; });

} // namespace
