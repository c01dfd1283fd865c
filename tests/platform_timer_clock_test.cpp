// SPDX-License-Identifier: MIT
//
// orn::os::Timer on the real clock. Lower bounds on times are exact; upper bounds are deadlines only.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <orn/os/Timer.hpp>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> threadCreationMs{0};

} // namespace

// The linker has the service's call of pthread_create() come here.
extern "C" int __real_pthread_create(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, pthread_attr_t const* attributes,
                                     void* (*start)(void*), void* argument) {
    if (threadCreationMs > 0) {
        ::poll(nullptr, 0, threadCreationMs);
    }
    return __real_pthread_create(thread, attributes, start, argument);
}

namespace {

using orn::os::Timer;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto deadline = std::chrono::seconds(20);

// Lets a test wait until a callback has run often enough.
class Count {
public:
    void up() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++value_;
        changed_.notify_all();
    }
    bool reaches(std::size_t value) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_until(lock, std::chrono::system_clock::now() + deadline,
                                   [&] { return value_ >= value; });
    }
    std::size_t value() {
        std::lock_guard<std::mutex> lock(mutex_);
        return value_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t value_ = 0;
};

TEST(TimerClock, FiresOnceNeverEarlyAndAnEarlierOneIsNotHeldUp) {
    Count far;
    Count near;
    Timer late([&](Timer*) { far.up(); });
    Timer timer([&](Timer*) { near.up(); });
    late.Set(60000, 0);
    auto const start = Clock::now();
    timer.Set(20, 0);
    ASSERT_TRUE(near.reaches(1));
    EXPECT_GE(Clock::now() - start, milliseconds(20));
    timer.Set(60000, 0);
    timer.Set(0, 0); // replaces, and fires at once
    ASSERT_TRUE(near.reaches(2));
    EXPECT_EQ(far.value(), 0u);
    EXPECT_EQ(near.value(), 2u);
}

TEST(TimerClock, HugeDelaysNeverFire) {
    Count huge;
    Count once;
    Count later;
    Timer never([&](Timer*) { huge.up(); });
    Timer first([&](Timer*) { once.up(); });
    Timer last([&](Timer*) { later.up(); });
    never.Set(ULONG_MAX, ULONG_MAX);
    first.Set(0, ULONG_MAX);
    last.Set(10, 10);
    ASSERT_TRUE(later.reaches(3));
    EXPECT_EQ(huge.value(), 0u);
    EXPECT_EQ(once.value(), 1u);
}

TEST(TimerClock, ARecurringTimerKeepsItsPhaseAndSkipsWhatAStallMissed) {
    constexpr auto period = milliseconds(20);
    constexpr std::size_t fires = 15;
    std::vector<Clock::duration> at;
    Count fired;
    Clock::time_point start;
    auto const callback = [&](Timer*) {
        at.push_back(Clock::now() - start);
        if (at.size() == 4) {
            std::this_thread::sleep_for(period * 7 / 2);
        }
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
    auto leastLate = Clock::duration(period);
    for (std::size_t i = 0; i < fires; ++i) {
        // The fifth comes as soon as the stall is over, for the period that began in it; two more are missed.
        auto const nth = static_cast<int>(i) + 1;
        int const dueInHalves = nth < 5 ? 2 * nth : nth == 5 ? 15 : 2 * (nth + 2);
        EXPECT_GE(at[i], period * dueInHalves / 2) << "call " << nth;
        if (i > 4) {
            leastLate = std::min(leastLate, at[i] % period);
        }
    }
    // One that counts on from the end of the stall is at least half a period late from there on.
    EXPECT_LT(leastLate, period * 2 / 5);
}

TEST(TimerClock, CallbacksRunOnANamedThreadWithAllSignalsBlocked) {
    Count fired;
    sigset_t blocked;
    char name[16] = "";
    Timer timer([&](Timer*) {
        ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        ::pthread_getname_np(::pthread_self(), name, sizeof name);
        fired.up();
    });
    timer.Set(0, 0);
    ASSERT_TRUE(fired.reaches(1));
    EXPECT_STREQ(name, "orn-timer");
    for (int signal : {SIGALRM, SIGTERM, SIGCHLD, SIGRTMIN, 55}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
}

TEST(TimerClock, TheDestructorWaitsForARunningCallbackThatSetsItselfAgain) {
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
    Timer probe([&](Timer*) { later.up(); });
    probe.Set(0, 1);
    ASSERT_TRUE(later.reaches(3));
    EXPECT_EQ(entered.value(), times);
}

TEST(TimerClock, ACallbackMayDestroyItsTimerAndOutlivesItUntilItReturns) {
    auto text = std::make_shared<std::string>("alive");
    std::weak_ptr<std::string> const watch = text;
    Count fired;
    std::string seen;
    auto* timer = new Timer([text, &fired, &seen](Timer* self) {
        delete self;
        Timer other([](Timer*) {});
        other.Set(0, 1);
        seen = *text;
        fired.up();
    });
    text.reset();
    timer->Set(0, 1);
    ASSERT_TRUE(fired.reaches(1));
    EXPECT_EQ(seen, "alive");
    Count later; // on the same thread, so behind the end of that callback
    Timer probe([&](Timer*) { later.up(); });
    probe.Set(0, 0);
    ASSERT_TRUE(later.reaches(1));
    EXPECT_TRUE(watch.expired());
}

// Two threads, 100,000 timers outstanding, set, replaced and cancelled while others fire.
TEST(TimerClock, OfAHundredThousandTimersEachThatIsNotCancelledFiresOnce) {
    constexpr std::size_t perThread = 50000;
    std::atomic<std::size_t> wrong{0};
    auto work = [&](unsigned seed) {
        std::minstd_rand random(seed);
        std::vector<std::atomic<int>> fired(perThread);
        std::vector<std::unique_ptr<Timer>> timers;
        Count count;
        for (std::size_t i = 0; i < perThread; ++i) {
            timers.push_back(std::make_unique<Timer>([&fired, &count, i](Timer*) {
                ++fired[i];
                count.up();
            }));
            timers[i]->Set(60000 + random() % 1000, 0);
        }
        std::size_t expected = 0;
        for (std::size_t i = 0; i < perThread; ++i) {
            if (random() % 2 == 0) {
                timers[i]->Set(random() % 100, 0);
                ++expected;
            } else if (random() % 2 == 0) {
                timers[i].reset();
            }
        }
        if (!count.reaches(expected)) {
            ++wrong;
        }
        timers.clear();
        for (auto const& times : fired) {
            wrong += times > 1 ? 1u : 0u;
        }
        wrong += count.value() == expected ? 0u : 1u;
    };
    std::thread other(work, 1);
    work(2);
    other.join();
    EXPECT_EQ(wrong, 0u);
}

TEST(TimerClock, AChildOfForkHasItsOwnServiceAndNoneOfItsParentsTimers) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer starts no thread in the child of a process that has threads";
#endif
    Count parents;
    Count childs;
    std::atomic<bool> hold{true};
    Count entered;
    Timer inherited([&](Timer*) { parents.up(); });
    Timer running([&](Timer*) {
        entered.up();
        while (hold) {
            std::this_thread::yield();
        }
    });
    running.Set(0, 0);
    ASSERT_TRUE(entered.reaches(1));
    inherited.Set(50, 50);
    pid_t const child = ::fork();
    if (child == 0) {
        ::alarm(20);
        hold = false;
        {
            Timer own([&](Timer*) { childs.up(); });
            own.Set(1, 75);
            bool const all = childs.reaches(2) && parents.value() == 0;
            running.Set(0, 0); // its callback was on a stack that is no more
            ::_exit(all && entered.reaches(2) ? 0 : 1);
        }
    }
    hold = false;
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(parents.reaches(1));
}

class TimerClockDeathTest : public ::testing::Test {
protected:
    TimerClockDeathTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

void exit_in_callback() {
    static Timer timer([](Timer*) { std::exit(7); }); // destroyed by its own callback's thread
    timer.Set(0, 1);
    for (;;) {
        ::pause();
    }
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
    Timer timer([&](Timer*) { fired.up(); });
    timer.Set(0, 1);
    std::exit(fired.reaches(5) ? 7 : 1);
}

void run_without_threads() {
    pthread_attr_t usual;
    ::pthread_getattr_default_np(&usual);
    pthread_attr_t huge;
    ::pthread_attr_init(&huge);
    ::pthread_attr_setstacksize(&huge, SIZE_MAX / 16 * 15); // no room for that anywhere
    ::pthread_setattr_default_np(&huge);
    Count fired;
    Timer timer([&](Timer*) { fired.up(); });
    try {
        timer.Set(0, 0);
        std::_Exit(1);
    } catch (std::system_error const&) {
    }
    ::pthread_setattr_default_np(&usual);
    Timer other([&](Timer*) { fired.up(); });
    other.Set(10, 0);
    std::_Exit(fired.reaches(1) && fired.value() == 1 ? 7 : 2);
}

// The first call makes the thread, which takes longer than its delay: so it is due before the second, by more
// than their delays say.
void set_first_timer_slowly() {
    threadCreationMs = 100;
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
    struct sched_param const none{};
    ::pthread_setschedparam(::pthread_self(), SCHED_BATCH, &none);
    Count fired;
    std::atomic<int> inherited{-1};
    std::atomic<int> chosen{-1};
    Timer timer([&](Timer*) {
        (fired.value() == 0 ? inherited : chosen) = ::sched_getscheduler(0);
        ::sched_setscheduler(0, SCHED_OTHER, &none);
        fired.up();
    });
    timer.Set(0, 1);
    ::pthread_setschedparam(::pthread_self(), SCHED_OTHER, &none);
    std::_Exit(fired.reaches(2) && inherited == SCHED_BATCH && chosen == SCHED_OTHER ? 7 : 1);
}

TEST_F(TimerClockDeathTest, ADelayCountsFromTheCallAlsoWhenTheThreadIsStillToBeMade) {
    EXPECT_EXIT(set_first_timer_slowly(), ::testing::ExitedWithCode(7), "");
}

TEST_F(TimerClockDeathTest, TheThreadInheritsThePolicyOfTheFirstSetterAndMayChooseAnotherInACallback) {
    EXPECT_EXIT(set_first_timer_in_a_batch(), ::testing::ExitedWithCode(7), "");
}

TEST_F(TimerClockDeathTest, ExitFromACallbackEndsTheProcess) {
    EXPECT_EXIT(exit_in_callback(), ::testing::ExitedWithCode(7), "");
}

TEST_F(TimerClockDeathTest, ExitWhileOtherThreadsUseTimersEndsTheProcess) {
    EXPECT_EXIT(exit_among_users(), ::testing::ExitedWithCode(7), "");
}

TEST_F(TimerClockDeathTest, WithoutAThreadSetThrowsAndLeavesTheTimerDisarmed) {
    EXPECT_EXIT(run_without_threads(), ::testing::ExitedWithCode(7), "");
}

} // namespace
