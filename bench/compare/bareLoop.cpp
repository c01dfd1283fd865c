// SPDX-License-Identifier: MIT
//
// The bare system calls for the comparison: a loop by hand, which does just this work. It waits with epoll.
// Signals come through a pipe; so do expiries, four bytes each, which a thread writes when they are due.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <signal.h>
#include <sys/epoll.h>

#include "loop.hpp"

namespace bench {

namespace {

// Keeps deadlines sorted, with what to do then, and tells of those that are due.
class TimerThread {
public:
    using queue_type = std::multimap<Clock::time_point, std::uint32_t>;

    TimerThread() : stop_(false), thread_([this] { serve(); }) {}
    ~TimerThread() {
        {
            std::lock_guard<std::mutex> const guard(mutex_);
            stop_ = true;
            changed_.notify_one();
        }
        thread_.join();
    }
    TimerThread(TimerThread const&) = delete;
    TimerThread& operator=(TimerThread const&) = delete;

    queue_type::iterator add(Clock::time_point due, std::uint32_t id) {
        std::lock_guard<std::mutex> const guard(mutex_);
        auto const added = queue_.emplace(due, id);
        if (due < sleeps_until_) {
            sleeps_until_ = due;
            changed_.notify_one();
        }
        return added;
    }
    void cancel(queue_type::iterator timer) {
        std::lock_guard<std::mutex> const guard(mutex_);
        queue_.erase(timer);
    }
    // Forgets those that have been told of and not taken, too.
    void clear() {
        std::lock_guard<std::mutex> const guard(mutex_);
        queue_.clear();
        char words[4096];
        pollfd told = {due_.read_end(), POLLIN, 0};
        while (poll(&told, 1, 0) == 1 && read(told.fd, words, sizeof words) > 0) {
        }
    }
    int read_end() const { return due_.read_end(); }

private:
    void serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            Clock::time_point const now = Clock::now();
            Clock::time_point const next =
                queue_.empty() ? now + std::chrono::hours(24) : queue_.begin()->first;
            sleeps_until_ = next;
            if (next > now) {
                changed_.wait_until(lock, next);
            } else {
                std::uint32_t const id = queue_.begin()->second;
                queue_.erase(queue_.begin());
                if (write(due_.write_end(), &id, sizeof id) != static_cast<ssize_t>(sizeof id))
                    std::terminate(); // the loop would wait for ever
            }
        }
    }

    Pipe due_; // holds 16,384 words
    std::mutex mutex_;
    std::condition_variable changed_;
    queue_type queue_;
    Clock::time_point sleeps_until_; // the thread, unless it is notified
    bool stop_;
    std::thread thread_;
};

class BareLoop : public Loop {
public:
    BareLoop() : set_(epoll_create1(EPOLL_CLOEXEC)), signo_(0) { expect(set_ != -1, "epoll_create1"); }
    ~BareLoop() override {
        if (signo_ != 0)
            sigaction(signo_, &before_, nullptr);
        close(set_);
    }

    void watch(int fd) override {
        add(fd, [this, fd] {
            take_byte(fd);
            ++served;
        });
    }
    void watch_signal(int signo) override {
        signal_end = signals_.write_end();
        watch(signals_.read_end());
        struct sigaction action = {};
        action.sa_handler = [](int) { put_byte(signal_end); };
        signo_ = signo;
        expect(sigaction(signo, &action, &before_) == 0, "sigaction");
    }
    void add_task() override {
        tasks_.push_back([this] { ++served; });
    }
    void hold_timer(Clock::time_point due) override {
        TimerThread& thread = timer_thread();
        timers_.push_back([this] { expire(); });
        thread.add(due, static_cast<std::uint32_t>(timers_.size() - 1));
    }
    void drop_timers() override {
        timer_thread().clear();
        timers_.clear();
    }
    void make_and_cancel_timer(unsigned long ms) override {
        TimerThread& thread = timer_thread();
        thread.cancel(thread.add(Clock::now() + std::chrono::milliseconds(ms), 0));
    }

    void turn() override {
        epoll_event ready[64];
        int const count = epoll_wait(set_, ready, 64, tasks_.empty() ? -1 : 0);
        for (int i = 0; i < count; ++i)
            handlers_[ready[i].data.u32]();
        for (auto const& task : tasks_)
            task();
    }

private:
    void add(int fd, std::function<void()> handler) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u32 = static_cast<std::uint32_t>(handlers_.size());
        handlers_.push_back(std::move(handler));
        expect(epoll_ctl(set_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }
    TimerThread& timer_thread() {
        if (!timer_thread_) {
            timer_thread_ = std::make_unique<TimerThread>();
            int const fd = timer_thread_->read_end();
            add(fd, [this, fd] {
                std::uint32_t id;
                while (read(fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id))
                    timers_[id]();
            });
        }
        return *timer_thread_;
    }

    static int signal_end; // for the handler in signal context

    int const set_;
    std::vector<std::function<void()>> handlers_;
    std::vector<std::function<void()>> tasks_;
    std::vector<std::function<void()>> timers_;
    Pipe signals_;
    int signo_;
    struct sigaction before_;
    std::unique_ptr<TimerThread> timer_thread_;
};

int BareLoop::signal_end = -1;

Entered const entered("bare", "", make<BareLoop>);

} // namespace

} // namespace bench
