// SPDX-License-Identifier: MIT
//
// The sending end of message queues: connecting in time and handing one packet over. The packet itself is
// left to o_msg_packet.hpp, and whom to trust to o_msg_address.hpp.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <orn/descriptor.hpp>

#include "o_msg_address.hpp"
#include "o_msg_packet.hpp"

namespace orn::os::msg {
namespace {

constexpr std::int64_t send_limit_ms = 1000;
// The limit while the queue takes connections of others. Without one, a flood of them would hold the caller's
// loop for ever.
constexpr std::int64_t crowded_limit_ms = 10000;

std::int64_t now_us() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// How often the calling thread has gone to sleep. Wraps where long has 32 bits, so only differences count.
unsigned long sleeps_so_far() {
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<unsigned long>(usage.ru_nvcsw);
}

// Waits while the queue's backlog is full. Signals do not make the wait longer. Places that become free do,
// because the queue is being served then, and others have only been quicker. The wait shows them: the kernel
// wakes connect() for each free place, and connect() goes back to sleep when the place is taken.
bool connect_in_time(int socket, Address const& address) {
    // The first try does not block and costs no measuring: mostly there is room.
    if (connect(socket, address.generic(), address.size) == 0)
        return true;
    if (errno != EAGAIN || fcntl(socket, F_SETFL, 0) != 0)
        return false;
    std::int64_t const last = now_us() + crowded_limit_ms * 1000;
    std::int64_t end = now_us() + send_limit_ms * 1000;
    for (;;) {
        std::int64_t const now = now_us();
        std::int64_t const left = std::min(end, last) - now;
        if (left <= 0) { // SO_SNDTIMEO takes 0 for ever
            errno = EAGAIN;
            return false;
        }
        timeval limit = {};
        limit.tv_sec = static_cast<time_t>(left / 1000000);
        limit.tv_usec = static_cast<suseconds_t>(left % 1000000);
        if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
            return false;
        unsigned long const sleeps = sleeps_so_far();
        if (connect(socket, address.generic(), address.size) == 0)
            return true;
        if (errno != EINTR && errno != EAGAIN)
            return false;
        if (sleeps_so_far() - sleeps > 1) // the first sleep is the wait itself
            end = now_us() + send_limit_ms * 1000;
    }
}

} // namespace
} // namespace orn::os::msg

extern "C" ssize_t o_msg_send(char const* name, o_msg_t const* message, int flags) {
    using namespace orn::os::msg;
    Address address;
    ssize_t const size = o_msg_data_size(message);
    if (size < 0 || !make_address(name, address))
        return -1;
    if (flags != 0 || size > O_MSG_MAX_SIZE) {
        errno = flags != 0 ? EINVAL : EMSGSIZE;
        return -1;
    }
    orn::internal::Descriptor const connection(
        socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool const sent = connection.open() && connect_in_time(connection.get(), address) &&
                      may_be_sent_to(connection.get(), name) && send_packet(connection.get(), *message, size);
    return sent ? size : -1;
}
