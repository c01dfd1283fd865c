// SPDX-License-Identifier: MIT
#include "process.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <dirent.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include "observer.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::atomic<pid_t> current(0);

void note() {
    current = getpid();
    renew_observers();
}

// Withdrawn by the C library when this library is unmapped.
int const registered = pthread_atfork(nullptr, nullptr, note);

std::atomic<void (*)()> hook(nullptr);
std::atomic<pid_t> hooked(0); // where it has been run, or set

enum Finding { alive, harmless, unknown };

// A thread that is on its way out, or one of the platform's service threads, whose names begin so, comes for
// nothing of the library's. From /proc/self/task/<tid>/stat.
Finding look_at(char const* tid) {
    unsigned long const exiting = 0x4; // the kernel's PF_EXITING
    errno = 0;
    std::ifstream file(std::string("/proc/self/task/") + tid + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return errno == ENOENT || errno == ESRCH ? harmless : unknown;
    if (line.find(" (orn-timer) ") != std::string::npos)
        return harmless;
    // The name in parentheses may hold anything; behind it: state, five numbers, flags.
    std::istringstream fields(line.substr(std::min(line.rfind(')'), line.size() - 1) + 1));
    std::string skipped;
    unsigned long flags = 0;
    for (int i = 0; i < 6; ++i)
        fields >> skipped;
    if (!(fields >> flags))
        return unknown;
    return (flags & exiting) != 0 ? harmless : alive;
}

} // namespace

bool other_threads(std::vector<int>& tids) {
    boost::shared_ptr<DIR> const tasks(opendir("/proc/self/task"), [](DIR* opened) {
        if (opened)
            closedir(opened);
    });
    if (!tasks)
        return false;
    std::string const self = std::to_string(syscall(SYS_gettid));
    while (dirent const* const entry = readdir(tasks.get())) {
        if (entry->d_name[0] == '.' || self == entry->d_name)
            continue;
        switch (look_at(entry->d_name)) {
        case unknown:
            return false;
        case alive:
            tids.push_back(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
            break;
        case harmless:
            break;
        }
    }
    return true;
}

void set_child_hook(void (*fn)()) {
    hook = fn;
    hooked = process_id();
}

void run_child_hook() {
    pid_t const before = hooked.exchange(process_id());
    if (before != process_id() && hook)
        hook.load()();
}

pid_t process_id() {
    pid_t known = current.load(std::memory_order_relaxed);
    if (known == 0) {
        static_cast<void>(registered);
        known = getpid();
        current.store(known, std::memory_order_relaxed);
    }
    return known;
}

} // namespace detail
} // namespace zel
} // namespace orn
