// SPDX-License-Identifier: MIT
//
// Writes messages as packets, reads packets as messages, and gives received messages back.
#include "o_msg_packet.hpp"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <sys/socket.h>

#include <orn/descriptor.hpp>

namespace orn::os::msg {
namespace {

using internal::Descriptor;
using internal::unless_interrupted;

// A packet above this size may exceed a small device's default for the send buffer.
constexpr ssize_t large_size = 64 * 1024;

struct WireHeader {
    std::uint32_t magic;
    std::uint16_t version;
    std::uint8_t parts;
    std::uint8_t descriptors;
    std::int32_t type;
    std::uint32_t lengths[O_MSG_MAX_PARTS]; // 0 beyond parts
};
// Both sides run on one machine, but their words may differ in size.
static_assert(sizeof(WireHeader) == 28, "no padding");

constexpr std::uint32_t wire_magic = 0x6f6d7367;
constexpr std::uint16_t wire_version = 1;
constexpr unsigned owned_fd = 1u << O_MSG_MAX_PARTS; // in o_msg_t::owned, above the bits of the parts

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

// Returns how many descriptors came along, and closes all but the last. There may be more than one although
// there is room for one only: the kernel uses the padding behind it as well.
unsigned take_descriptors(msghdr& packet, Descriptor& last) {
    unsigned count = 0;
    for (cmsghdr* item = CMSG_FIRSTHDR(&packet); item; item = CMSG_NXTHDR(&packet, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS)
            continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= item->cmsg_len; at += sizeof(int)) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(item) + at, sizeof fd);
            last.reset(fd);
            ++count;
        }
    }
    return count;
}

bool adds_up(WireHeader const& header, std::size_t data_size, unsigned descriptors) {
    if (header.magic != wire_magic || header.version != wire_version || header.parts > O_MSG_MAX_PARTS ||
        header.descriptors != descriptors || descriptors > 1)
        return false;
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < O_MSG_MAX_PARTS; ++i) {
        if (i >= header.parts && header.lengths[i] != 0)
            return false;
        sum += header.lengths[i];
    }
    return sum == data_size;
}

bool fits(WireHeader const& header, o_msg_t const& offer) {
    for (unsigned i = 0; i < offer.count; ++i) {
        bool const filled = i < header.parts && header.lengths[i] == offer.parts[i].length;
        if (offer.parts[i].data && !filled)
            return false;
    }
    return header.parts <= offer.count;
}

Outcome deliver(WireHeader const& header, unsigned char const* data, Descriptor fd, o_msg_t& to) {
    std::unique_ptr<unsigned char, Free> allocated[O_MSG_MAX_PARTS];
    for (unsigned i = 0; i < header.parts; ++i) {
        if (!to.parts[i].data) {
            allocated[i].reset(static_cast<unsigned char*>(std::malloc(header.lengths[i] + std::size_t{1})));
            if (!allocated[i])
                return Outcome::out_of_memory;
            allocated[i].get()[header.lengths[i]] = 0;
        }
    }
    for (unsigned i = 0; i < header.parts; ++i) {
        if (allocated[i]) {
            to.parts[i].data = allocated[i].release();
            to.owned |= 1u << i;
        }
        std::memcpy(to.parts[i].data, data, header.lengths[i]);
        to.parts[i].length = header.lengths[i];
        data += header.lengths[i];
    }
    to.type = header.type;
    to.count = header.parts;
    if (fd.open()) {
        to.fd = fd.release();
        to.owned |= owned_fd;
    }
    return Outcome::received;
}

} // namespace

bool send_packet(int socket, o_msg_t const& message, ssize_t size) {
    if (size > large_size) {
        int const room = 2 * O_MSG_MAX_SIZE;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room); // sending fails if this was refused
    }
    WireHeader header = {};
    header.magic = wire_magic;
    header.version = wire_version;
    header.parts = static_cast<std::uint8_t>(message.count);
    header.descriptors = message.fd > 0 ? 1 : 0;
    header.type = message.type;
    iovec pieces[1 + O_MSG_MAX_PARTS] = {{&header, sizeof header}};
    for (unsigned i = 0; i < message.count; ++i) {
        header.lengths[i] = static_cast<std::uint32_t>(message.parts[i].length);
        pieces[1 + i] = {message.parts[i].data, message.parts[i].length};
    }
    msghdr packet = {};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 1 + message.count;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (message.fd > 0) {
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
        cmsghdr* const rights = CMSG_FIRSTHDR(&packet);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &message.fd, sizeof(int));
    }
    return unless_interrupted([&] { return sendmsg(socket, &packet, MSG_NOSIGNAL); }) >= 0;
}

Outcome receive_packet(int connection, unsigned char* buffer, o_msg_t& to) {
    WireHeader header = {};
    iovec pieces[] = {{&header, sizeof header}, {buffer, O_MSG_MAX_SIZE}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr packet = {};
    auto const look = [&] {
        packet.msg_iov = pieces;
        packet.msg_iovlen = 2;
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
        return unless_interrupted(
            [&] { return recvmsg(connection, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC); });
    };
    ssize_t size = look();
    if (size < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? Outcome::nothing_yet : Outcome::dropped;
    // The kernel looks for a packet first, and for the end of the connection after that. When the sender
    // sends and closes in between, it reports the end although the packet is there. So look again.
    if (size == 0 && packet.msg_controllen == 0)
        size = look();
    if (size < 0)
        return Outcome::dropped;
    Descriptor fd;
    unsigned const descriptors = take_descriptors(packet, fd);
    auto const received = static_cast<std::size_t>(size);
    if ((packet.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || received < sizeof header ||
        !adds_up(header, received - sizeof header, descriptors) || !fits(header, to))
        return Outcome::dropped;
    return deliver(header, buffer, std::move(fd), to);
}

} // namespace orn::os::msg

extern "C" {

ssize_t o_msg_data_size(o_msg_t const* message) {
    if (!message || message->count > O_MSG_MAX_PARTS) {
        errno = EINVAL;
        return -1;
    }
    std::size_t sum = 0;
    for (unsigned i = 0; i < message->count; ++i) {
        o_msg_part_t const& part = message->parts[i];
        if ((!part.data && part.length > 0) || part.length > static_cast<std::size_t>(SSIZE_MAX) - sum) {
            errno = EINVAL;
            return -1;
        }
        sum += part.length;
    }
    return static_cast<ssize_t>(sum);
}

void o_msg_release(o_msg_t* message) {
    for (unsigned i = 0; i < O_MSG_MAX_PARTS; ++i) {
        if ((message->owned & (1u << i)) != 0) {
            std::free(message->parts[i].data);
            message->parts[i] = {nullptr, 0};
        }
    }
    if ((message->owned & orn::os::msg::owned_fd) != 0) {
        orn::internal::Descriptor const unwanted(message->fd);
        message->fd = -1;
    }
    message->owned = 0;
}

} // extern "C"
