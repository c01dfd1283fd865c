// SPDX-License-Identifier: MIT
//
// A module that appends to the file in ORDER_LOG when it comes and when it goes, with what it finds then:
// whether signal 55 is caught, so the library still up, and whether the command thread lives. It needs
// nothing of the library, and so does not keep it loaded. With LATE_CLIENT set, a client of the command
// channel comes when it goes, which is after the library when both are preloaded in this order.
#include <cstdlib>
#include <fstream>
#include <string>

#include <dirent.h>
#include <signal.h>

namespace {

bool command_thread() {
    bool found = false;
    DIR* const tasks = opendir("/proc/self/task");
    while (dirent const* const entry = readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        found = found || (std::getline(comm, name) && name == "zel-command");
    }
    closedir(tasks);
    return found;
}

void tell(char const* what) {
    char const* const log = std::getenv("ORDER_LOG");
    if (!log)
        return;
    struct sigaction action = {};
    sigaction(55, nullptr, &action);
    std::ofstream(log, std::ios::app) << what << MODULE_NAME << (action.sa_handler == SIG_DFL ? "" : " up")
                                      << (command_thread() ? " served" : "") << '\n';
}

struct Presence {
    Presence() { tell("+"); }
    ~Presence() {
        tell("-");
        if (std::getenv("LATE_CLIENT"))
            raise(55);
    }
} presence;

} // namespace
