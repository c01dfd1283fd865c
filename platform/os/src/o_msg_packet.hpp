// SPDX-License-Identifier: MIT
//
// How messages travel. Internal. Connecting and accepting are left to the sender and the queue, and deciding
// whom to trust to o_msg_address.hpp.
//
// A queue listens in the abstract namespace. Each message has a connection of its own, because the kernel
// tells only for a connection who is at its other end:
//
//     sender                                       queue
//     connects                                     (the connection waits in the backlog)
//     checks who made the queue                    accepts, checks who made the connection
//     sends one packet and closes                  (the connection is pending until the packet is there)
//                                                  takes the packet and closes
//
// The queue drops a connection without a message when a stranger made it, when its packet is none that the
// receiver asked for, and when it is the oldest of too many that are pending.
//
// A packet is a header and the data of all parts, with the descriptor as SCM_RIGHTS.
#ifndef ORN_OS_O_MSG_PACKET_HPP
#define ORN_OS_O_MSG_PACKET_HPP

#include <orn/os/o_msg.h>

namespace orn::os::msg {

enum class Outcome { nothing_yet, dropped, out_of_memory, received };

// The size is o_msg_data_size() of the message. False with errno set when nothing has been sent.
bool send_packet(int socket, o_msg_t const& message, ssize_t size);

// Takes the connection's packet into the parts that are offered, without waiting for it. The buffer is for
// the call only and holds O_MSG_MAX_SIZE bytes.
Outcome receive_packet(int connection, unsigned char* buffer, o_msg_t& to);

} // namespace orn::os::msg

#endif
