// SPDX-License-Identifier: MIT
//
// What the tests of the library share: a fixture that shows that nothing is left behind, pipes, threads of
// the library's own kind, child processes, and waiting with a deadline.
#ifndef TESTS_SUPPORT_SUPPORT_HPP
#define TESTS_SUPPORT_SUPPORT_HPP

#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <string>

#include <signal.h>
#include <sys/types.h>

#include <gtest/gtest.h>
#include <orn/os/Pipe.hpp>
#include <orn/os/o_pthread.h>

namespace support {

/// ZEL_TEST_SCALE, 1 when it is not set.
int scale();

/// Whether the condition came true before the deadline, which is scaled.
bool wait_until(std::function<bool()> const& condition, int limitMs = 10000);

/// The same, turning the calling thread's loop meanwhile.
bool run_until(std::function<bool()> const& condition, int limitMs = 10000);

std::set<int> descriptors();
std::set<int> threads(); ///< the timers' service thread, which stays until exit(), is not counted
bool waits(int tid);     ///< true once the thread is in a system call that waits; false after 10 s, scaled

std::string text_of(std::string const& path);
void put(int fd, std::string const& text); ///< writes it whole, or fails the test
std::string take(int fd);                  ///< everything that a non-blocking descriptor has to offer

/// Without the "tid=<n> " at the beginning of each line, whose number is checked to be the caller's thread.
std::string without_tid(std::string const& lines, int tid = o_pthread_self());

/// Made by o_pthread_create, so a member of its creator's group; joined by the destructor.
class Thread {
public:
    explicit Thread(std::function<void()> body);
    ~Thread() { join(); }
    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

    int tid() const { return tid_; } ///< known once the constructor is done
    bool ended() const { return ended_; }
    bool waits() const { return support::waits(tid_); }
    void cancel() { o_pthread_cancel(handle_); }
    bool join(); ///< true when it was cancelled

private:
    static void* start(void* self);

    std::function<void()> body_;
    std::atomic<int> tid_{0};
    std::atomic<bool> ended_{false};
    bool joined_ = false;
    bool cancelled_ = false;
    o_pthread_t handle_{};
};

/// Runs the function in a forked process, which then ends with its result. Its wait status; a process that
/// has not ended after limitMs, scaled, is killed.
int in_child(std::function<int()> const& body, int limitMs = 20000);
int wait_for(pid_t child, int limitMs);
std::string describe(int status);

/// Brings threads, signals and alarms up before the test and takes them down after it, when the members of
/// derived fixtures are gone, and shows that the descriptors, the threads and the dispositions of signals are
/// then as they were.
class Loop : public ::testing::Test {
protected:
    Loop();
    ~Loop() override;

    static void settle();     ///< turns until there is nothing left to do; five turns at most
    static void settle_all(); ///< the same, however many turns that takes

private:
    std::set<int> descriptors_;
    std::set<int> threads_;
    std::map<int, struct sigaction> dispositions_;
};

} // namespace support

#endif
