// SPDX-License-Identifier: MIT
//
// A descriptor: what a child process prints is read as it comes, until the child closes its output.
#include <cstdio>

#include <unistd.h>

#include <orn/zel.hpp>

int main() {
    std::FILE* const child = popen("echo one; echo two", "r");
    if (!child) {
        std::perror("popen");
        return 1;
    }
    {
        // [use]
        bool open = true;
        orn::zel::fd::AutoReceptor output(fileno(child), [&open](orn::zel::fd::Event* event) {
            char buffer[4096];
            ssize_t const got = read(event->fd(), buffer, sizeof buffer);
            if (got > 0)
                std::fwrite(buffer, 1, static_cast<std::size_t>(got), stdout);
            else
                open = false; // end of file is readable, too
        });
        while (open)
            orn::zel::RunOnce(-1);
        // [/use]
    } // the watching ends here, before the descriptor is closed
    int const status = pclose(child);
    std::printf("the child ended with %d\n", status);
    return status == 0 ? 0 : 1;
}
