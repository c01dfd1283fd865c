// SPDX-License-Identifier: MIT
//
// Both ends of message queues for platform_msg_test.cpp: processes that wait for one another, a queue and its
// messages, and the bare socket, on which a packet may be anything.
#ifndef TESTS_SUPPORT_MESSAGES_HPP
#define TESTS_SUPPORT_MESSAGES_HPP

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <orn/os/Pipe.hpp>
#include <orn/os/o_msg.h>

#include "Common.hpp"

namespace messages {

inline std::string name_of(pid_t process) {
    return "test." + std::to_string(process);
}

// A process that ends with status 0 when its body returns true, and with this process at the latest.
inline pid_t child_that(std::function<bool()> const& body) {
    pid_t const child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(body() ? 0 : 1);
    }
    return child;
}

// For a child that has begun as root: a change of the user also ends its tie to its parent's life.
inline bool become(uid_t user) {
    return setuid(user) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

// One process waits for the other.
class Gate {
public:
    void open() const { support::put(pipe_.WriteFD(), "x"); }
    bool wait() const {
        char byte = 0;
        return support::is_ready(pipe_.ReadFD(), POLLIN, 20000) && read(pipe_.ReadFD(), &byte, 1) == 1;
    }

private:
    orn::os::Pipe pipe_{true};
};

inline bool send_to(std::string const& name, int type, int number, std::string const& text = "", int fd = 0) {
    o_msg_t message = {};
    message.type = type;
    message.fd = fd;
    message.count = 2;
    message.parts[0] = {&number, sizeof number};
    message.parts[1] = {const_cast<char*>(text.data()), text.size()};
    return o_msg_send(name.c_str(), &message, 0) == o_msg_data_size(&message);
}

inline int refusal(std::string const& name, std::string const& text = "") {
    return send_to(name, 1, 0, text) ? 0 : errno;
}

int const no_message = -99;

// A queue whose messages are a number and a text.
class Inbox {
public:
    explicit Inbox(std::string const& name) : queue_(o_msg_create_queue(name.c_str(), O_MSG_EXCLUSIVE)) {}
    ~Inbox() {
        o_msg_release(&message);
        if (queue_)
            o_msg_destroy_queue(queue_);
    }
    Inbox(Inbox const&) = delete;
    Inbox& operator=(Inbox const&) = delete;

    bool made() const { return queue_ != nullptr; }
    int fd() const { return o_msg_queue_fd(queue_); }
    bool take_waiting() {
        o_msg_release(&message);
        message.count = 2;
        message.parts[0] = {&number, sizeof number};
        message.parts[1] = {nullptr, 0};
        return o_msg_recv(queue_, &message) >= 0;
    }
    // Its number, or no_message when none comes.
    int next() {
        while (!take_waiting()) {
            if (errno != EAGAIN || !support::is_ready(fd(), POLLIN, 20000))
                return no_message;
        }
        return number;
    }
    std::string text() const { return {static_cast<char*>(message.parts[1].data), message.parts[1].length}; }

    o_msg_t message = {};
    int number = 0;

private:
    o_msg_queue_t* queue_;
};

// ---- The bare socket ------------------------------------------------------------------------------------

// As the receiver expects it.
struct Header {
    std::uint32_t magic = 0x6f6d7367;
    std::uint16_t version = 1;
    std::uint8_t parts = 1;
    std::uint8_t descriptors = 0;
    std::int32_t type = 5;
    std::uint32_t lengths[4] = {4, 0, 0, 0};
};

int const bare = 0x64646464; // the number in a bare packet

// With so many bytes of data; fewer than none cut the header.
inline std::string packet_of(Header const& header = {}, int data = 4) {
    std::string bytes(reinterpret_cast<char const*>(&header), sizeof header);
    bytes.resize(sizeof header + static_cast<std::size_t>(data), 'd');
    return bytes;
}

inline int bare_socket(std::string const& name, bool listens = false, int flags = 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const path = "orn.msg." + name;
    std::memcpy(address.sun_path + 1, path.data(), path.size());
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
    auto const* generic = reinterpret_cast<sockaddr const*>(&address);
    int const fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
    if (listens ? bind(fd, generic, size) == 0 && listen(fd, 5) == 0 : connect(fd, generic, size) == 0)
        return fd;
    close(fd);
    return -1;
}

// Takes every place that is free in the backlog of the queue.
inline void crowd(std::string const& name) {
    while (bare_socket(name, false, SOCK_NONBLOCK) >= 0) {
    }
}

inline bool bare_send(int socket, std::string const& bytes, std::vector<int> const& fds = {}) {
    iovec piece = {const_cast<char*>(bytes.data()), bytes.size()};
    std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
    msghdr packet{};
    packet.msg_iov = &piece;
    packet.msg_iovlen = 1;
    packet.msg_control = control.data();
    packet.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&packet);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    std::copy(fds.begin(), fds.end(), reinterpret_cast<int*>(CMSG_DATA(rights)));
    return sendmsg(socket, &packet, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

inline void send_bare_packet(std::string const& name, std::string const& bytes,
                             std::vector<int> const& fds = {}) {
    int const socket = bare_socket(name);
    bare_send(socket, bytes, fds);
    close(socket);
}

} // namespace messages

#endif
