// SPDX-License-Identifier: MIT
//
// Waits for one descriptor with a time limit, while the loop goes on serving everything else. The peer that
// answers lives in this very loop, and a plain poll() would never let it answer.
#include <cstdio>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <orn/zel.hpp>

int main() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        std::perror("socketpair");
        return 1;
    }
    int heard = 0;
    orn::zel::fd::AutoReceptor peer(ends[1], [&heard](orn::zel::fd::Event* event) {
        char question;
        if (read(event->fd(), &question, 1) == 1 && ++heard == 3 && write(event->fd(), "!", 1) != 1)
            std::perror("write");
    });

    for (int attempt = 1; attempt <= 5; ++attempt) {
        if (write(ends[0], "?", 1) != 1) {
            std::perror("write");
            return 1;
        }
        // Whatever the group does meanwhile starts the limit anew. Where a wait must end for certain, an
        // alarm makes the descriptor ready.
        short const events = orn::zel::RunUntilEventOnFd(ends[0], POLLIN, 50);
        if (events & POLLIN) {
            std::printf("attempt %d: answered\n", attempt);
            return 0;
        }
        std::printf("attempt %d: no answer within 50 ms\n", attempt);
    }
    std::puts("given up");
    return 1;
}
