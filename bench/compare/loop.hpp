// SPDX-License-Identifier: MIT
//
// What an event loop has to do to be compared. Internal to bench/compare. Each loop has a file of its own,
// which uses the loop as its documentation says.
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

    // Reads a byte from the descriptor whenever there is one, and counts it in served, until this dies.
    virtual void watch(int fd) = 0;
    // Counts each arrival of the signal in served, until this dies.
    virtual void watch_signal(int signo) = 0;
    // Makes a timer that adds to fired and lives as long as this.
    virtual void hold_timer(unsigned long ms) = 0;
    // Makes such a timer and cancels it.
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
