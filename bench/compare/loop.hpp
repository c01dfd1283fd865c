// SPDX-License-Identifier: MIT
//
// What an event loop has to do to be compared. Internal to bench/compare; each loop has a file of its own,
// which uses it as its documentation tells one to.
#ifndef ORN_ZEL_BENCH_COMPARE_LOOP_HPP
#define ORN_ZEL_BENCH_COMPARE_LOOP_HPP

#include <memory>
#include <string>

namespace bench {

class Loop {
public:
    Loop() : served(0), fired(0) {}
    virtual ~Loop() {}
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    // Until this dies: reads a byte from the descriptor whenever there is one, and counts it in served.
    virtual void watch(int fd) = 0;
    // Until this dies: counts each arrival in served.
    virtual void watch_signal(int signo) = 0;
    // Until this dies: a timer that adds to fired.
    virtual void hold_timer(unsigned long ms) = 0;
    // Such a timer, and gone again.
    virtual void make_and_cancel_timer(unsigned long ms) = 0;
    // Waits for events and handles what is there.
    virtual void turn() = 0;

    long served;
    long fired;
};

std::unique_ptr<Loop> make_zel_loop();
std::unique_ptr<Loop> make_libevent_loop();
std::unique_ptr<Loop> make_libuv_loop();

std::string libevent_version();
std::string libuv_version();

} // namespace bench

#endif
