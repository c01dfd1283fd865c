// SPDX-License-Identifier: MIT
//
// libevent's loop for the comparison. It has no work for every turn; a timer without a delay that its
// callback adds again comes closest, since an event that activates itself would not let the turn end. Other
// threads wake it through a pipe, so that it does without locks.
#include <event2/event-config.h>
#include <event2/event.h>

#include "loop.hpp"

namespace bench {

namespace {

// Uses libevent's default back end, epoll.
class LibeventLoop : public Loop {
public:
    LibeventLoop() : base_(nullptr) {
        // libev has functions of the same names, and the library that is linked first wins.
        expect(std::string(event_get_version()) == EVENT__VERSION, "not libevent's functions");
    }
    ~LibeventLoop() override {
        free_all(timers_);
        free_all(events_);
        if (base_ != nullptr)
            event_base_free(base_);
    }

    void watch(int fd) override {
        events_.push_back(add(event_new(base(), fd, EV_READ | EV_PERSIST, readable, this), nullptr));
    }
    void watch_signal(int signo) override {
        events_.push_back(add(evsignal_new(base(), signo, arrived, this), nullptr));
    }
    void add_task() override {
        event* const task = event_new(base(), -1, 0, slice, this);
        events_.push_back(task);
        add(task, &at_once);
    }
    void hold_timer(Clock::time_point due) override {
        timeval const time = time_of(until<std::chrono::microseconds>(due));
        timers_.push_back(add(evtimer_new(base(EVENT_BASE_FLAG_PRECISE_TIMER), expired, this), &time));
    }
    void drop_timers() override { free_all(timers_); }
    void make_and_cancel_timer(unsigned long ms) override {
        timeval const time = time_of(std::chrono::milliseconds(ms));
        event_free(add(evtimer_new(base(EVENT_BASE_FLAG_PRECISE_TIMER), expired, this), &time));
    }
    void turn() override { event_base_loop(base(), EVLOOP_ONCE); }

private:
    static constexpr timeval at_once = {0, 0};

    // Without the flag, timers may be early by a tick of the coarse clock. With it, each turn makes one
    // system call more.
    event_base* base(int flag = 0) {
        if (base_ == nullptr) {
            event_config* const config = event_config_new();
            expect(config != nullptr && event_config_set_flag(config, flag) == 0, "event_config_new");
            base_ = event_base_new_with_config(config);
            event_config_free(config);
            expect(base_ != nullptr, "event_base_new_with_config");
        }
        return base_;
    }
    static timeval time_of(std::chrono::microseconds delay) {
        timeval time = {};
        time.tv_sec = static_cast<time_t>(delay.count() / 1000000);
        time.tv_usec = static_cast<suseconds_t>(delay.count() % 1000000);
        return time;
    }
    static event* add(event* made, timeval const* time) {
        expect(made != nullptr && event_add(made, time) == 0, "event_add");
        return made;
    }
    static void free_all(std::vector<event*>& events) {
        for (event* const held : events)
            event_free(held);
        events.clear();
    }

    static LibeventLoop& of(void* loop) { return *static_cast<LibeventLoop*>(loop); }
    static void readable(evutil_socket_t fd, short, void* loop) {
        take_byte(fd);
        ++of(loop).served;
    }
    static void arrived(evutil_socket_t, short, void* loop) { ++of(loop).served; }
    static void slice(evutil_socket_t, short, void* loop) {
        ++of(loop).served;
        event_add(event_base_get_running_event(of(loop).base_), &at_once);
    }
    static void expired(evutil_socket_t, short, void* loop) { of(loop).expire(); }

    event_base* base_; // of the first thing that is added
    std::vector<event*> events_;
    std::vector<event*> timers_;
};

Entered const entered("libevent", event_get_version(), make<LibeventLoop>);

} // namespace

} // namespace bench
