// SPDX-License-Identifier: MIT
//
// A module that adds a line to the file in ORDER_LOG when it is loaded and when it is unloaded: "up" when
// signal 55 is caught, so that the library is up. It does not need the library, and so does not keep it
// loaded. With LATE_CLIENT set it raises the signal at its end, as a client does that comes too late. When
// both are preloaded in this order, that is after the library's end.
#include <cstdlib>
#include <fstream>

#include <signal.h>

namespace {

void tell(char const* what) {
    char const* const log = std::getenv("ORDER_LOG");
    if (!log)
        return;
    struct sigaction action = {};
    sigaction(55, nullptr, &action);
    std::ofstream(log, std::ios::app)
        << what << MODULE_NAME << (action.sa_handler == SIG_DFL ? "" : " up") << '\n';
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
