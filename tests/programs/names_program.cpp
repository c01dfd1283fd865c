// SPDX-License-Identifier: MIT
//
// Ends with 0 when a signal and a thread arrive, although names_program.c has functions of the same names.
#include <sys/types.h>

#include <csignal>

#include <orn/zel.hpp>

int main() {
    bool arrived = false;
    orn::zel::signal::AutoReceptor const receptor(SIGTERM, [&](int) { arrived = true; });
    raise(SIGTERM);
    while (!arrived)
        orn::zel::RunOnce(-1);
    orn::zel::Thread thread([] { return 7; });
    thread.Start();
    thread.Join();
    return thread.Status().value() == 7 ? 0 : 1;
}
