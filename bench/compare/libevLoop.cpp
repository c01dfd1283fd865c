// SPDX-License-Identifier: MIT
//
// libev's loop for the comparison. Work for every turn is an idle watcher.
#include <deque>

#include <ev.h>

#include "loop.hpp"

namespace bench {

namespace {

// Uses libev's default back end, epoll.
class LibevLoop : public Loop {
public:
    LibevLoop() : loop_(ev_loop_new(EVFLAG_AUTO)) {
        expect(loop_ != nullptr, "ev_loop_new");
        ev_set_userdata(loop_, this);
    }
    ~LibevLoop() override {
        drop_timers();
        for (ev_io& watcher : descriptors_)
            ev_io_stop(loop_, &watcher);
        for (ev_signal& watcher : signals_)
            ev_signal_stop(loop_, &watcher);
        for (ev_async& watcher : wakes_)
            ev_async_stop(loop_, &watcher);
        for (ev_idle& watcher : tasks_)
            ev_idle_stop(loop_, &watcher);
        ev_loop_destroy(loop_);
    }

    void watch(int fd) override {
        ev_io& watcher = descriptors_.emplace_back();
        ev_io_init(&watcher, readable, fd, EV_READ);
        ev_io_start(loop_, &watcher);
    }
    void watch_signal(int signo) override {
        ev_signal& watcher = signals_.emplace_back();
        ev_signal_init(&watcher, arrived, signo);
        ev_signal_start(loop_, &watcher);
    }
    void allow_wakes() override {
        ev_async& watcher = wakes_.emplace_back();
        ev_async_init(&watcher, woken);
        ev_async_start(loop_, &watcher);
    }
    void wake() override { ev_async_send(loop_, &wakes_.front()); }
    void add_task() override {
        ev_idle& watcher = tasks_.emplace_back();
        ev_idle_init(&watcher, slice);
        ev_idle_start(loop_, &watcher);
    }
    void hold_timer(Clock::time_point due) override {
        ev_timer& watcher = timers_.emplace_back();
        // A timer counts from the loop's own time, which may be long ago. Updated after the delay was
        // computed, it makes no timer early.
        std::chrono::duration<double> const delay = until<Clock::duration>(due);
        ev_now_update(loop_);
        ev_timer_init(&watcher, expired, delay.count(), 0.);
        ev_timer_start(loop_, &watcher);
    }
    void drop_timers() override {
        for (ev_timer& watcher : timers_)
            ev_timer_stop(loop_, &watcher);
        timers_.clear();
    }
    void make_and_cancel_timer(unsigned long ms) override {
        ev_timer watcher;
        ev_now_update(loop_);
        ev_timer_init(&watcher, expired, static_cast<double>(ms) / 1000, 0.);
        ev_timer_start(loop_, &watcher);
        ev_timer_stop(loop_, &watcher);
    }
    void turn() override { ev_run(loop_, EVRUN_ONCE); }

private:
    using LoopType = struct ev_loop;

    static LibevLoop& of(LoopType* loop) { return *static_cast<LibevLoop*>(ev_userdata(loop)); }
    static void readable(LoopType* loop, ev_io* watcher, int) {
        take_byte(watcher->fd);
        ++of(loop).served;
    }
    static void arrived(LoopType* loop, ev_signal*, int) { ++of(loop).served; }
    static void woken(LoopType*, ev_async*, int) {}
    static void slice(LoopType* loop, ev_idle*, int) { ++of(loop).served; }
    static void expired(LoopType* loop, ev_timer*, int) { of(loop).expire(); }

    LoopType* const loop_;
    std::deque<ev_io> descriptors_; // watchers may not move
    std::deque<ev_signal> signals_;
    std::deque<ev_async> wakes_;
    std::deque<ev_idle> tasks_;
    std::deque<ev_timer> timers_;
};

Entered const entered("libev", std::to_string(ev_version_major()) + '.' + std::to_string(ev_version_minor()),
                      make<LibevLoop>);

} // namespace

} // namespace bench
