// SPDX-License-Identifier: MIT
//
// What all tests share, whether they link the library or not: waiting with a deadline, what /proc tells about
// a process, and child processes. Includes what nearly all of them use. Fixtures for the library's own loop
// are in Support.hpp, programs that are started in Programs.hpp.
#ifndef TESTS_SUPPORT_COMMON_HPP
#define TESTS_SUPPORT_COMMON_HPP

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support {

using Words = std::vector<std::string>;

// Whether this build runs under ThreadSanitizer, and whether under that or AddressSanitizer.
#if defined(__SANITIZE_THREAD__)
bool const has_thread_sanitizer = true;
#else
bool const has_thread_sanitizer = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
bool const is_sanitized = true;
#else
bool const is_sanitized = has_thread_sanitizer;
#endif

// ---- Waiting --------------------------------------------------------------------------------------------

// The positive number in an environment variable, or the other one.
int number_from(char const* variable, int otherwise);

// ZEL_TEST_SCALE, by which every deadline is multiplied; 1 when it is not set.
int scale();

// Of a clock that does not jump.
long milliseconds();

// Whether the condition came true before the deadline, which is scaled. Between two looks it calls meanwhile,
// or sleeps for a millisecond when that is empty.
bool wait_until(std::function<bool()> const& condition, int limit_ms = 10000,
                std::function<void()> const& meanwhile = {});

// Whether poll() reports the events on the descriptor before the deadline, which is scaled.
bool is_ready(int fd, short events, int limit_ms = 0);

// Lets one thread wait until others have counted far enough.
class Count {
public:
    void up();
    std::size_t value();
    bool reaches(std::size_t value); // false after 20 s, scaled

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t value_ = 0;
};

// Gives a variable another value for as long as it lives.
template <class T>
class Replaced {
public:
    Replaced(T& variable, T value) : variable_(variable), before_(variable) { variable = value; }
    ~Replaced() { variable_ = before_; }
    Replaced(Replaced const&) = delete;
    Replaced& operator=(Replaced const&) = delete;

private:
    T& variable_;
    T before_;
};

template <class T, class U>
Replaced(T&, U) -> Replaced<T>;

// ---- Files and descriptors ------------------------------------------------------------------------------

std::string text_of(std::string const& path);
void put(int fd, std::string const& text); // writes it whole, or fails the test
std::string take(int fd);                  // everything that a non-blocking descriptor has to offer

// An empty file of its own, removed by the destructor.
class TempFile {
public:
    TempFile();
    ~TempFile();
    TempFile(TempFile const&) = delete;
    TempFile& operator=(TempFile const&) = delete;

    std::string const& path() const { return path_; }
    std::string text() const { return text_of(path_); }

private:
    std::string path_;
};

// ---- Processes ------------------------------------------------------------------------------------------

// Those that the process has open.
std::set<int> descriptors(pid_t pid = getpid());
// Whether the timers' thread sleeps on this one. It stays while the thread does.
bool is_timer_clock(int fd);

// Name by id. A thread that has been joined may be listed for a moment longer.
std::map<int, std::string> threads(pid_t pid = getpid());

// Whether a thread of this process is in a system call that waits.
bool is_asleep(int tid);

// What this process holds, to compare before and after something that must leave nothing behind.
struct Footprint {
    Footprint();

    std::size_t descriptors;
    std::size_t threads;  // but the caller's and a sanitizer's; those that are ending have up to 1 s
    std::size_t mappings; // of any file
    std::size_t ours;     // mappings of the library, of copies of it, and of the tests' modules
    double bytes;         // allocated
};

// Runs the function in a forked process, which then ends with its result. The process is killed when it has
// not ended after the deadline, which is scaled. The result is its end as end_of() tells it.
std::string in_child(std::function<int()> const& body, int limit_ms = 20000);

// "exit <n>" or "signal <n>". A child that has not ended after the deadline, which is scaled, is killed:
// "hung".
std::string end_of(pid_t child, int limit_ms = 20000);

} // namespace support

#endif
