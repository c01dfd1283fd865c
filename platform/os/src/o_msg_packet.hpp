// SPDX-License-Identifier: MIT
//
// A message as it travels: one packet with a header and the data of all parts, and with the descriptor as
// SCM_RIGHTS. Internal. Who may send to whom, and waiting, are left to the sender and the queue.
//
// Each message has a connection of its own, since only connections show either side whom it talks to:
//
//     sender      connect, look at the listener's credentials, one packet, close
//     receiver    accept, look at the sender's credentials, one packet, close
#ifndef ORN_OS_O_MSG_PACKET_HPP
#define ORN_OS_O_MSG_PACKET_HPP

#include <orn/os/o_msg.h>

namespace orn::os::msg {

enum class Outcome { nothing_yet, dropped, out_of_memory, received };

// False with errno set when nothing has been sent. size is o_msg_data_size() of the message.
bool send_packet(int socket, o_msg_t const& message, ssize_t size);

// Takes the connection's packet without waiting for it. The buffer holds O_MSG_MAX_SIZE bytes.
Outcome receive_packet(int connection, unsigned char* buffer, o_msg_t& to);

} // namespace orn::os::msg

#endif
