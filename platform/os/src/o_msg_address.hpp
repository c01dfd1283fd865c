// SPDX-License-Identifier: MIT
//
// The addresses of message queues, and whether the process at the other end of a connection is to be trusted.
// Internal. Connecting and accepting are left to the sender and the queue.
#ifndef ORN_OS_O_MSG_ADDRESS_HPP
#define ORN_OS_O_MSG_ADDRESS_HPP

#include <sys/socket.h>
#include <sys/un.h>

namespace orn::os::msg {

struct Address {
    sockaddr_un name;
    socklen_t size;

    sockaddr const* generic() const { return reinterpret_cast<sockaddr const*>(&name); }
};

// False with errno set when no queue can have this name.
bool make_address(char const* name, Address& address);

// Asked by a sender: whether the creator of the queue is who the name says and may have the message. False
// with errno set.
bool may_be_sent_to(int connection, char const* name);

// Asked by a queue: whether the maker of the connection may send to this process.
bool may_send_here(int connection);

} // namespace orn::os::msg

#endif
