// SPDX-License-Identifier: MIT
//
// A library that contains a platform layer of its own. The layer is busy when the library is unloaded: a
// timer is armed, the service thread runs, and the log file is open.
#include <cstdlib>

#include <unistd.h>

#include <orn/log.h>
#include <orn/os/Pipe.hpp>
#include <orn/os/Timer.hpp>

namespace {

struct Busy {
    Busy() : fired(true), timer([this](orn::os::Timer*) { tell(); }) {
        Log_SpecEntry(logSpecForceInfo, "tests/module", __LINE__, "%s", "loaded");
        timer.Set(0, 1);
        char byte = 0;
        if (read(fired.ReadFD(), &byte, 1) != 1)
            std::abort();
    }
    void tell() {
        if (write(fired.WriteFD(), "x", 1) != 1)
            std::abort();
    }

    orn::os::Pipe fired;
    orn::os::Timer timer;
} busy;

} // namespace
