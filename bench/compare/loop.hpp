// SPDX-License-Identifier: MIT
//
// What an event loop has to do to be compared. Internal to bench/compare. Each loop has a file of its own,
// which uses the loop as its documentation says, and enters it in the list of loops().
#ifndef ORN_ZEL_BENCH_COMPARE_LOOP_HPP
#define ORN_ZEL_BENCH_COMPARE_LOOP_HPP

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "versus.hpp"

namespace bench {

class Loop {
public:
    Loop() : served(0) {}
    virtual ~Loop() {}
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    // Reads a byte from the descriptor whenever there is one, and counts it in served, until this dies.
    virtual void watch(int fd) = 0;
    // Counts each arrival of the signal in served, until this dies.
    virtual void watch_signal(int signo) = 0;
    // From then on any thread may end a wait in turn() with wake(). The loops that have no such call watch a
    // pipe, as their users do.
    virtual void allow_wakes() { watch(wakes_.read_end()); }
    virtual void wake() { put_byte(wakes_.write_end()); }
    // Has work to do on every turn, and counts each call of it in served, until this dies.
    virtual void add_task() = 0;
    // Makes a timer that calls expire() once, at that time or later, and is kept until drop_timers().
    virtual void hold_timer(Clock::time_point due) = 0;
    virtual void drop_timers() = 0;
    // Makes such a timer that is due so far from now, and cancels it.
    virtual void make_and_cancel_timer(unsigned long ms) = 0;
    // Hands in what cancelled timers have left for the loop to do.
    virtual void settle() {}
    // Waits for events and handles what is there.
    virtual void turn() = 0;

    // How many of the timers are to expire next. Forgets those before.
    void expect_expiries(long count) {
        expiries_ = 0;
        expected_ = count;
    }
    long expiries() const { return expiries_; }
    Clock::time_point first_expiry() const { return first_; }
    Clock::time_point last_expiry() const { return last_; }

    long served;

protected:
    // Only the first and the last call read the clock.
    void expire() {
        if (++expiries_ == 1)
            first_ = Clock::now();
        if (expiries_ == expected_)
            last_ = Clock::now();
    }

private:
    Pipe wakes_;
    long expiries_ = 0;
    long expected_ = 0;
    Clock::time_point first_;
    Clock::time_point last_;
};

// From now until then in the loop's unit, rounded up, so that no timer is early; 0 when it has passed.
template <class Unit>
Unit until(Clock::time_point due) {
    return std::max(std::chrono::ceil<Unit>(due - Clock::now()), Unit::zero());
}

struct Entry {
    std::string name;
    std::unique_ptr<Loop> (*make)();
};

// The loops that this program was built with.
std::vector<Entry>& loops();

// Enters a loop under its name before main(). Results carry the version, unless it is empty.
struct Entered {
    Entered(std::string const& name, std::string const& version, std::unique_ptr<Loop> (*make)());
};

// For a file's entry of its loop.
template <class Made>
std::unique_ptr<Loop> make() {
    return std::make_unique<Made>();
}

} // namespace bench

#endif
