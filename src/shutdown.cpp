// SPDX-License-Identifier: MIT
#include "shutdown.hpp"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include <orn/cancel.hpp>

namespace orn {
namespace zel {
namespace detail {

namespace {

enum Way { by_call, by_unmapping, by_exit };

std::atomic<Way> way(by_call);
std::atomic<bool> kept(false);

// The timer thread counts as well: its callbacks are the application's, and may hold a task or an alarm as
// any other thread may. So does a thread that has been joined and is still listed for a moment. Keeping what
// nobody needs costs nothing in a process that ends.
bool others_live() {
    struct stat tasks;
    // A directory's links: one for each thread, and two of its own.
    return stat("/proc/self/task", &tasks) != 0 || tasks.st_nlink != 3;
}

// What a thread has run so far, in nanoseconds. The number is how the kernel names another thread's clock.
// Negative when the thread has ended.
long long run_time(int tid) {
    clockid_t const clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6U);
    timespec spent = {};
    return clock_gettime(clock, &spent) == 0 ? spent.tv_sec * 1000000000LL + spent.tv_nsec : -1;
}

// In a system call, so that it stands in no code of this library's.
bool sleeps(int tid) {
    char status[512] = "";
    int const fd = open(("/proc/self/task/" + std::to_string(tid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return errno == ENOENT;
    ssize_t const length = read(fd, status, sizeof status - 1);
    close(fd);
    // The name in parentheses may hold anything. Behind it: the state.
    char const* const name_end = length > 0 ? std::strrchr(status, ')') : nullptr;
    return !name_end || name_end[1] != ' ' || name_end[2] == 'S';
}

// Whether the thread left the place where it stood within so many milliseconds, which are counted down: it
// sleeps, or has run for a thousand times as long as a signal's handler takes.
void let_get_on(int tid, int& left_ms) {
    long long const way_ns = 1000000;
    long long const start = run_time(tid);
    for (; left_ms > 0; --left_ms) {
        long long const now = run_time(tid);
        if (now < 0 || now > start + way_ns || sleeps(tid))
            return;
        poll(nullptr, 0, 1);
    }
}

} // namespace

void Shutdown::let_threads_get_on() {
    internal::CancelShield const shield;
    boost::shared_ptr<DIR> const tasks(opendir("/proc/self/task"), [](DIR* opened) {
        if (opened)
            closedir(opened);
    });
    int const self = static_cast<int>(syscall(SYS_gettid));
    int left_ms = 1000; // a host must not wait for ever for a thread that gets no processor
    while (dirent const* const entry = tasks ? readdir(tasks.get()) : nullptr) {
        int const tid = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (tid > 0 && tid != self)
            let_get_on(tid, left_ms);
    }
}

void Shutdown::begin(bool unmapped) {
    way = unmapped ? by_unmapping : by_exit;
}

bool Shutdown::unmapping() {
    return way == by_unmapping;
}

bool Shutdown::exiting() {
    return way == by_exit;
}

void Shutdown::look_for_threads() {
    kept = exiting() && others_live();
}

bool Shutdown::keeps() {
    return kept;
}

} // namespace detail
} // namespace zel
} // namespace orn
