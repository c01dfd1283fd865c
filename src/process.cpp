// SPDX-License-Identifier: MIT
#include "process.hpp"

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>

#include <dirent.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

namespace orn {
namespace zel {
namespace detail {

namespace {

std::atomic<pid_t> current(0);

void note() {
    current = getpid();
}

// Withdrawn by the C library when this library is unmapped.
int const registered = pthread_atfork(nullptr, nullptr, note);

// Whether a thread is none that could come for anything of the library's: it is on its way out, or one of the
// platform's service threads, whose names begin so. From /proc/self/task/<tid>/stat; true when it cannot be
// told.
bool harmless(char const* tid) {
    unsigned long const exiting = 0x4; // the kernel's PF_EXITING
    std::ifstream file(std::string("/proc/self/task/") + tid + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return true;
    if (line.find("(orn-") != std::string::npos)
        return true;
    // The name in parentheses may hold anything; behind it: state, five numbers, flags.
    std::string::size_type const name_end = line.rfind(')');
    if (name_end == std::string::npos)
        return true;
    std::istringstream fields(line.substr(name_end + 1));
    std::string skipped;
    unsigned long flags = 0;
    for (int i = 0; i < 6; ++i)
        fields >> skipped;
    return !(fields >> flags) || (flags & exiting) != 0;
}

} // namespace

bool other_threads_alive() {
    boost::shared_ptr<DIR> const tasks(opendir("/proc/self/task"), [](DIR* opened) {
        if (opened)
            closedir(opened);
    });
    if (!tasks)
        return false;
    std::string const self = std::to_string(syscall(SYS_gettid));
    while (dirent const* const entry = readdir(tasks.get())) {
        if (entry->d_name[0] != '.' && self != entry->d_name && !harmless(entry->d_name))
            return true;
    }
    return false;
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
