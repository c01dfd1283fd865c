// SPDX-License-Identifier: MIT
//
// orn::os::Timer over one service thread with a heap of deadlines. All of it is in this file, so that a test
// can link a clock of its own instead.
//
// The service is constant-initialised and never destroyed, because timers may be used while exit() runs in
// another thread. Only its thread ends; see Lifetime.
#include <orn/os/Timer.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <limits>
#include <mutex>
#include <system_error>
#include <type_traits>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <orn/cancel.hpp>
#include <orn/forkHandlers.hpp>
#include <orn/mapping.hpp>

#include "alarmClock.hpp"
#include "timerHeap.hpp"

namespace orn::os {
namespace {

constexpr std::uint64_t never = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t ns_per_ms = 1000000;
// exit() waits this long for a callback that is running. A callback that takes longer usually waits for the
// thread that is in exit(), so both would wait for ever.
constexpr std::uint64_t longest_callback_ns = ns_per_second;

// The state of a timer is 0, or a sum of these and of the generation in which it is armed.
constexpr unsigned calling = 1; // its callback runs
constexpr unsigned dying = 2;   // its destructor waits for the callback, which must not arm it any more
constexpr unsigned first_generation = 4;
constexpr unsigned phases = calling | dying;

std::uint64_t ns_of(unsigned long ms) {
    return ms < never / ns_per_ms ? ms * ns_per_ms : never;
}

std::uint64_t after(std::uint64_t now, std::uint64_t delay) {
    return delay < never - now ? now + delay : never;
}

// The first time that lies a whole number of periods after the deadline and is still to come.
std::uint64_t next_in_phase(std::uint64_t deadline, std::uint64_t period, std::uint64_t now) {
    std::uint64_t const missed = (now - deadline) / period;
    return after(deadline + missed * period, period);
}

} // namespace

class TimerService {
public:
    void set(Timer& timer, unsigned long initial_ms, unsigned long recurring_ms);
    void end(Timer& timer);

    void stop(bool unmapped);
    void before_fork() { mutex_.lock(); }
    void after_fork_in_parent() { mutex_.unlock(); }
    void after_fork_in_child();

private:
    // Timers change their state under the mutex only.
    static unsigned state(Timer const& timer) { return timer.state_.load(std::memory_order_relaxed); }
    // The last access to a timer that is neither armed nor called any more: its destructor does not wait for
    // the mutex then.
    static void change(Timer& timer, unsigned to) { timer.state_.store(to, std::memory_order_release); }
    bool armed(Timer const& timer) const { return (state(timer) & ~phases) == generation_; }
    // The next timer has not been used since it was set. It comes into the cache while a callback runs.
    static void fetch(Timer const& timer) {
        __builtin_prefetch(&timer.callback_, 1);
        __builtin_prefetch(&timer.state_, 1);
    }
    void arm(Timer& timer);
    void disarm(Timer& timer);
    void disarm_all();
    static void* thread_start(void* service);
    void make_condition();
    void start();
    void renew_clock(std::unique_lock<std::mutex>& lock);
    bool wake(std::unique_lock<std::mutex>& lock, std::uint64_t deadline, bool at_once);
    void serve();
    void fire(std::unique_lock<std::mutex>& lock, Timer& timer);
    void sleep(std::unique_lock<std::mutex>& lock);
    bool left_in_time(std::unique_lock<std::mutex>& lock);

    std::mutex mutex_; // a leaf; never held while a callback runs
    // A callback that somebody waits for has returned, or the thread leaves.
    pthread_cond_t idle_ = PTHREAD_COND_INITIALIZER;

    TimerHeap heap_;
    unsigned generation_ = first_generation; // of the timers in the heap; the next one disarms all

    pthread_t thread_ = {};
    AlarmClock clock_; // the thread sleeps on it; made and unmade under the mutex
    bool started_ = false;
    bool stopped_ = false;
    bool left_ = false;              // the thread does nothing more but end
    std::uint64_t sleeps_until_ = 0; // 0: the thread is awake and looks at the heap before it sleeps

    Timer* running_ = nullptr;                          // the timer whose callback runs
    boost::function<void(Timer*)>* function_ = nullptr; // that callback, taken out of the timer
    unsigned waiting_ = 0;                              // destructors that wait for the callback
};

// ---- Setting and cancelling ------------------------------------------------------------------------------

void TimerService::arm(Timer& timer) {
    change(timer, (state(timer) & phases) | generation_);
    timer.number_ = heap_.add(timer.deadline_ns_, timer);
}

void TimerService::disarm(Timer& timer) {
    if (!armed(timer))
        return;
    change(timer, state(timer) & phases);
    heap_.remove(timer.number_);
}

[[gnu::cold]] void TimerService::disarm_all() {
    heap_.clear();
    generation_ += first_generation;
    if (generation_ == 0)
        generation_ = first_generation;
}

// ---- From any thread ------------------------------------------------------------------------------------

void TimerService::set(Timer& timer, unsigned long initial_ms, unsigned long recurring_ms) {
    // The clock is read first, because the delay counts from the call, however long the lock and the making
    // of the thread take.
    std::uint64_t const called = now_ns();
    std::unique_lock<std::mutex> lock(mutex_);
    disarm(timer);
    if (stopped_ || (state(timer) & dying) != 0)
        return;
    heap_.make_room();
    start();
    timer.deadline_ns_ = after(called, ns_of(initial_ms));
    timer.period_ns_ = ns_of(recurring_ms);
    arm(timer);
    if (timer.deadline_ns_ < sleeps_until_ && !wake(lock, timer.deadline_ns_, initial_ms == 0)) {
        disarm(timer);
        throw std::system_error(errno, std::generic_category(), "timer");
    }
}

// Has the sleeping thread wake at a deadline before its own. A clock is set and the thread is left asleep, so
// that it does not wake only to sleep again. The mutex must not be held here: the thread may wake at once,
// and would wait for it. Meanwhile the thread may set the clock for its next sleep, and another caller may
// set it for an even earlier deadline. So this looks afterwards whether its own setting came too late.
bool TimerService::wake(std::unique_lock<std::mutex>& lock, std::uint64_t deadline, bool at_once) {
    sleeps_until_ = deadline;
    bool done;
    do {
        deadline = sleeps_until_;
        lock.unlock();
        done = at_once ? clock_.expire() : clock_.set(deadline);
        at_once = false;
        lock.lock();
    } while (done && sleeps_until_ != 0 && sleeps_until_ != deadline);
    return done;
}

void TimerService::end(Timer& timer) {
    // A timer that has fired dies without the mutex, which the thread needs for the others that are due.
    if (timer.state_.load(std::memory_order_acquire) == 0)
        return;
    std::unique_lock<std::mutex> lock(mutex_);
    disarm(timer);
    if (running_ != &timer)
        return;
    if (pthread_equal(thread_, pthread_self()) != 0) {
        running_ = nullptr; // called in its own callback; fire() keeps the function object until that returns
        return;
    }
    // Otherwise a callback that sets its timer again and again would keep us waiting.
    change(timer, state(timer) | dying);
    internal::CancelShield const shield;
    ++waiting_;
    while (running_ == &timer)
        pthread_cond_wait(&idle_, mutex_.native_handle());
    --waiting_;
}

// Also called in a child of fork(), where a thread that no longer exists may have been waiting on the
// condition. Nobody else may be waiting on it.
[[gnu::cold]] void TimerService::make_condition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&idle_, &attributes);
    pthread_condattr_destroy(&attributes);
}

// The caller holds the mutex, so that two timers that are set at the same time do not start two threads.
//
// The thread inherits the scheduling policy, niceness and processors of the caller. With a fixed ordinary
// policy every alarm of a real-time loop would wait for whatever else is ready on its processor: beside one
// busy process it took three switches an alarm instead of two, and 4 ms at worst instead of 0.3. A fixed
// real-time policy needs a privilege, and callbacks would run before threads to which the application has
// given precedence.
[[gnu::cold]] void TimerService::start() {
    if (started_)
        return;
    make_condition();
    if (!clock_.made() && !clock_.make())
        throw std::system_error(errno, std::generic_category(), "timer");
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // the new thread inherits it
    int const error = pthread_create(&thread_, nullptr, thread_start, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        clock_.unmake(); // at dlclose() there is no thread to unmake it after
        throw std::system_error(error, std::generic_category(), "timer thread");
    }
    started_ = true;
    left_ = false;
    sleeps_until_ = 0;
}

// Threads that still run while the process exits may go on using timers, which do nothing from here on.
[[gnu::cold]] void TimerService::stop(bool unmapped) {
    std::unique_lock<std::mutex> lock(mutex_);
    stopped_ = true;
    disarm_all();
    heap_.free();
    if (!started_ || pthread_equal(thread_, pthread_self()) != 0)
        return; // a callback has called exit(), and the thread cannot wait for itself
    started_ = false;
    // A caller of wake() that sets the clock after this takes the expiry back. It then finds that its
    // deadline is not the one that is wanted, and sets this one, which is past.
    if (sleeps_until_ != 0)
        sleeps_until_ = 1;
    clock_.expire();
    bool const joinable = unmapped || left_in_time(lock);
    lock.unlock();
    if (joinable)
        pthread_join(thread_, nullptr);
    else
        pthread_detach(thread_);
    if (unmapped) // at exit() others may be about to set the clock, and its number must stay taken
        clock_.unmake();
}

[[gnu::cold]] bool TimerService::left_in_time(std::unique_lock<std::mutex>& lock) {
    timespec const until = timespec_of(after(now_ns(), longest_callback_ns));
    int error = 0;
    while (!left_ && error == 0)
        error = pthread_cond_timedwait(&idle_, lock.mutex()->native_handle(), &until);
    return left_;
}

// A child of fork() has only the forking thread, and its parent's timers are not its own.
[[gnu::cold]] void TimerService::after_fork_in_child() {
    disarm_all();
    waiting_ = 0;
    make_condition();
    clock_.unmake(); // setting it would set the parent's
    bool const serving = started_ && pthread_equal(thread_, pthread_self()) != 0;
    if (!serving) {
        started_ = false;
        if (running_) {
            // The function is on the stack of a thread that no longer exists.
            running_->callback_ = std::move(*function_);
            change(*running_, 0);
            running_ = nullptr;
        }
        function_ = nullptr;
    }
    mutex_.unlock();
}

// ---- The service thread ---------------------------------------------------------------------------------

void* TimerService::thread_start(void* service) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setname_np(pthread_self(), "orn-timer");
    prctl(PR_SET_TIMERSLACK, 1ul, 0ul, 0ul, 0ul);
    static_cast<TimerService*>(service)->serve();
    return nullptr;
}

void TimerService::serve() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::uint64_t now = 0; // some time before: what was due then still is
    while (!stopped_) {
        if (!heap_.empty() && heap_.earliest() > now)
            now = now_ns();
        if (!heap_.empty() && heap_.earliest() <= now)
            fire(lock, heap_.first());
        else
            sleep(lock);
    }
    left_ = true;
    pthread_cond_broadcast(&idle_);
}

// Cancelling the earliest timer does not set the clock anew. That would cost each such call a system call,
// and save one waking of the thread until that deadline.
void TimerService::sleep(std::unique_lock<std::mutex>& lock) {
    sleeps_until_ = heap_.empty() ? never : heap_.earliest();
    // A clock that is still set is left so, since it wakes the thread once at most.
    bool good = sleeps_until_ == never || clock_.set(sleeps_until_);
    if (good) {
        lock.unlock();
        good = clock_.wait();
        lock.lock();
    }
    sleeps_until_ = 0;
    if (!good)
        renew_clock(lock);
}

// For a callback that has forked, whose child gives up its parent's clock, and for a program that has closed
// a descriptor which is not its own. While there is no descriptor to be had, timers are looked at every
// millisecond.
[[gnu::cold]] void TimerService::renew_clock(std::unique_lock<std::mutex>& lock) {
    if (clock_.make())
        return;
    lock.unlock();
    poll(nullptr, 0, 1);
    lock.lock();
}

// Takes the callback out of the timer while it runs, because it may destroy the timer, and puts it back
// afterwards. Both happen under the mutex, so that a child of fork() finds the callback in one of the two
// places. The mutex is released while the callback runs, since the callback may set, create and destroy
// timers.
void TimerService::fire(std::unique_lock<std::mutex>& lock, Timer& timer) {
    boost::function<void(Timer*)> function(std::move(timer.callback_));
    change(timer, state(timer) | calling);
    if (timer.period_ns_ == 0) {
        disarm(timer);
    } else {
        timer.deadline_ns_ = next_in_phase(timer.deadline_ns_, timer.period_ns_, now_ns());
        heap_.postpone(timer.deadline_ns_);
    }
    running_ = &timer;
    function_ = &function;
    if (!heap_.empty())
        fetch(heap_.first());
    lock.unlock();
    function(&timer);
    lock.lock();
    function_ = nullptr;
    if (!running_) {
        lock.unlock(); // the timer is gone; destroying the function may use other timers, under the mutex
        function.clear();
        lock.lock();
        return;
    }
    timer.callback_ = std::move(function);
    running_ = nullptr;
    change(timer, state(timer) & ~calling);
    if (waiting_ > 0)
        pthread_cond_broadcast(&idle_);
}

// ---- Life and death -------------------------------------------------------------------------------------

namespace {

static_assert(std::is_trivially_destructible_v<TimerService>, "used after static destructors");

TimerService service;

internal::Mapping mapping;

__attribute__((destructor)) void note_destructors() {
    mapping.destructor_function();
}

// It is constructed before every ordinary static object of the same library and so destroyed after them. The
// thread therefore ends when nothing that uses timers is left in the library, at exit() and at dlclose()
// alike.
class Lifetime {
public:
    Lifetime() { mapping.begin("o_pthread_create"); }
    ~Lifetime() {
        internal::CancelShield const shield; // stop() waits, and must not be unwound
        service.stop(mapping.unmapped());
        if (mapping.unmapped())
            internal::ForkHandlers::withdraw();
    }
    Lifetime(Lifetime const&) = delete;
    Lifetime& operator=(Lifetime const&) = delete;
};

Lifetime lifetime __attribute__((init_priority(101)));

internal::ForkHandlers const fork_handlers __attribute__((init_priority(101))) = {
    [] { service.before_fork(); }, [] { service.after_fork_in_parent(); },
    [] { service.after_fork_in_child(); }};

} // namespace

Timer::Timer(boost::function<void(Timer*)> callback)
    : callback_(std::move(callback)), deadline_ns_(0), period_ns_(0), number_(0), state_(0) {}

Timer::~Timer() {
    service.end(*this);
}

void Timer::Set(unsigned long initial_ms, unsigned long recurring_ms) {
    service.set(*this, initial_ms, recurring_ms);
}

} // namespace orn::os
