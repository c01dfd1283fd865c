// SPDX-License-Identifier: MIT
//
// The addresses of message queues, and what the kernel knows about the process at the other end of a
// connection. Internal. Connecting and accepting are left to the sender and the queue.
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

// Whether the queue that the connection leads to is the one that is meant by its name, and whoever created it
// may have the message. False with errno set when not.
bool is_meant(int connection, char const* name);

// Whether whoever made the connection may send to this process.
bool may_send_here(int connection);

} // namespace orn::os::msg

#endif
