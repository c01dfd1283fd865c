// SPDX-License-Identifier: MIT
//
// One packet between two ends of a connection. What queues make of packets is in platform_msg_test.cpp.
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "../platform/os/src/o_msg_packet.hpp"

namespace {

int ends_to_report = 0; // by this many of the next calls of recvmsg()

} // namespace

extern "C" {

ssize_t __real_recvmsg(int, msghdr*, int);

ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags) {
    if (ends_to_report == 0)
        return __real_recvmsg(socket, message, flags);
    --ends_to_report;
    message->msg_controllen = 0; // as the kernel leaves it
    return 0;
}
}

namespace {

// The kernel does so when the sender sends and closes while the receiver looks: once in a million messages.
TEST(Packet, is_taken_although_the_end_of_its_connection_is_reported_before_it) {
    using namespace orn::os::msg;
    std::unique_ptr<unsigned char[]> const buffer(new unsigned char[O_MSG_MAX_SIZE]);
    for (int const ends : {0, 1, 2}) {
        int sockets[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets));
        o_msg_t message = {};
        int number = 7;
        message.fd = sockets[1];
        message.count = 1;
        message.parts[0] = {&number, sizeof number};
        ASSERT_TRUE(send_packet(sockets[0], message, sizeof number));
        close(sockets[0]);

        ends_to_report = ends;
        number = 0;
        message.fd = -1;
        Outcome const outcome = receive_packet(sockets[1], buffer.get(), message);
        EXPECT_EQ(ends < 2 ? Outcome::received : Outcome::dropped, outcome) << ends;
        EXPECT_EQ(ends < 2 ? 7 : 0, number);
        EXPECT_EQ(ends < 2, message.fd != -1) << "the descriptor came along";
        o_msg_release(&message);
        close(sockets[1]);
    }
}

} // namespace
