// SPDX-License-Identifier: MIT
//
// libevent's loop for the comparison.
#include <vector>

#include <event2/event.h>

#include "loop.hpp"
#include "versus.hpp"

namespace bench {

namespace {

// Uses libevent's default back end, epoll.
class LibeventLoop : public Loop {
public:
    LibeventLoop() : base_(event_base_new()) { expect(base_ != nullptr, "event_base_new"); }
    ~LibeventLoop() override {
        for (event* const held : events_)
            event_free(held);
        event_base_free(base_);
    }

    void watch(int fd) override { hold(event_new(base_, fd, EV_READ | EV_PERSIST, readable, this), nullptr); }
    void watch_signal(int signo) override { hold(evsignal_new(base_, signo, arrived, this), nullptr); }
    void hold_timer(unsigned long ms) override {
        timeval const time = time_of(ms);
        hold(evtimer_new(base_, due, this), &time);
    }
    void make_and_cancel_timer(unsigned long ms) override {
        timeval const time = time_of(ms);
        event* const timer = evtimer_new(base_, due, this);
        expect(timer != nullptr && event_add(timer, &time) == 0, "event_add");
        event_free(timer);
    }
    void turn() override { event_base_loop(base_, EVLOOP_ONCE); }

private:
    static timeval time_of(unsigned long ms) {
        timeval time = {};
        time.tv_sec = static_cast<time_t>(ms / 1000);
        time.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
        return time;
    }
    static void readable(evutil_socket_t fd, short, void* loop) {
        take_byte(fd);
        ++static_cast<LibeventLoop*>(loop)->served;
    }
    static void arrived(evutil_socket_t, short, void* loop) { ++static_cast<LibeventLoop*>(loop)->served; }
    static void due(evutil_socket_t, short, void* loop) { ++static_cast<LibeventLoop*>(loop)->fired; }

    void hold(event* made, timeval const* time) {
        expect(made != nullptr && event_add(made, time) == 0, "event_add");
        events_.push_back(made);
    }

    event_base* base_;
    std::vector<event*> events_;
};

} // namespace

std::unique_ptr<Loop> make_libevent_loop() {
    return std::make_unique<LibeventLoop>();
}

std::string libevent_version() {
    return event_get_version();
}

} // namespace bench
