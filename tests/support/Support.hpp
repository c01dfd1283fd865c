// SPDX-License-Identifier: MIT
//
// What the tests of the library's loop share: a fixture that shows that nothing is left behind, threads of
// the library's own kind, and waiting that turns the loop. Common.hpp has what needs no
// loop.
#ifndef TESTS_SUPPORT_SUPPORT_HPP
#define TESTS_SUPPORT_SUPPORT_HPP

#include <algorithm>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <orn/os/Pipe.hpp>
#include <orn/os/o_pthread.h>
#include <orn/zel.hpp>

#include "Common.hpp"

namespace support {

// Has groups of any size ask an epoll set first, as large ones do. Tests with the fixture Loop go that way
// when ZEL_TEST_READINESS is in the environment.
void always_by_readiness();

// As wait_until(), turning the calling thread's loop meanwhile.
bool run_until(std::function<bool()> const& condition, int limit_ms = 10000);

// Turns the loop until the condition holds. False when a turn finds nothing to do for 10 s, scaled: what the
// condition waits for was to wake the loop.
bool woken_until(std::function<bool()> const& condition);

// True once the thread is in a system call that waits; false after 10 s, scaled.
bool waits(int tid);

// Those that the library has a record of.
std::size_t known_threads();

// Without the "tid=<n> " at the beginning of each line, whose number is checked to be the caller's thread.
std::string without_tid(std::string lines, int tid = o_pthread_self());

// What the call throws says: what() and, where there are any, the details behind it; "accepted" when it
// throws nothing. Of Exception, orn::zel::Exception unless given.
template <class Exception = orn::zel::Exception, class Call>
std::string refusal(Call const& call) {
    try {
        call();
    } catch (Exception const& refused) {
        return refused.what() + std::string(refused.details());
    }
    return "accepted";
}

// Bodies of tasks that complete in their first slice; once() counts it.
inline void complete(orn::zel::task::Controller* self) {
    self->Complete();
}
orn::zel::task::Body once(int& slices);

// A thread that is made by o_pthread_create(), and so a member of its creator's group. The destructor joins
// it.
class Member {
public:
    explicit Member(std::function<void()> body);
    ~Member() { join(); }
    Member(Member const&) = delete;
    Member& operator=(Member const&) = delete;

    int tid() const { return tid_; } // known once the constructor is done
    bool ended() const { return ended_; }
    bool waits() const { return support::waits(tid_); }
    void cancel() { o_pthread_cancel(handle_); }
    bool join(); // true when it was cancelled

private:
    static void* start(void* self);

    std::function<void()> body_;
    std::atomic<int> tid_{0};
    std::atomic<bool> ended_{false};
    bool joined_ = false;
    bool cancelled_ = false;
    o_pthread_t handle_{};
};

// A pipe that the loop of its maker watches. The handler is called when what was fed has been taken.
class WatchedPipe : public orn::os::Pipe {
public:
    explicit WatchedPipe(std::function<void()> const& handler = [] {});
    void feed(std::string const& text = "x") const { put(WriteFD(), text); }

    std::atomic<int> calls{0};
    std::string seen; // all that was fed and taken

private:
    orn::zel::fd::AutoReceptor receptor_;
};

using Dispositions = std::map<int, std::pair<void (*)(int), int>>; // by signal: handler and flags

// Brings the library up before the test, and takes it down when the members of derived fixtures are gone.
// Then it shows that the descriptors, the threads and the dispositions of signals are as they were.
class Loop : public ::testing::Test {
protected:
    Loop();
    ~Loop() override;

    static void settle();     // turns until there is nothing left to do; five turns at most
    static void settle_all(); // the same, however many turns that takes

private:
    std::set<int> descriptors_;
    std::set<int> threads_;
    Dispositions dispositions_;
};

} // namespace support

#endif
