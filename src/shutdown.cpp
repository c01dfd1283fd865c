// SPDX-License-Identifier: MIT
//
// Which way the library goes, and what it keeps on that way.
#include "shutdown.hpp"

#include <atomic>

#include <dlfcn.h>
#include <sys/stat.h>

namespace orn::zel::detail {

namespace {

enum Way { by_call, by_unmapping, by_exit };

std::atomic<Way> way(by_call);
std::atomic<bool> kept(false);

// The timer thread counts as well: its callbacks are the application's, and may hold a task or an alarm as
// any other thread may. A thread that has been joined is still listed for a moment and counts, too, which
// costs nothing in a process that ends.
bool others_live() {
    struct stat tasks;
    // A directory has one link for each thread, and two of its own.
    return stat("/proc/self/task", &tasks) != 0 || tasks.st_nlink != 3;
}

} // namespace

void Shutdown::put_off_until_exit() {
    Dl_info self = {};
    if (dladdr(reinterpret_cast<void*>(&Shutdown::put_off_until_exit), &self) == 0)
        return;
    void* const library = dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    if (library)
        dlclose(library);
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

} // namespace orn::zel::detail
