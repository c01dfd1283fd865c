// SPDX-License-Identifier: MIT
//
// Sending messages: reaching the queue in time and handing over one packet. What a packet is, is left to
// o_msg_packet.hpp.
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
// While others are let in. Were it for ever, a flood would hold the caller's loop for ever.
constexpr std::int64_t crowded_limit_ms = 10000;

std::int64_t now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// How often the calling thread has gone to sleep.
long sleeps_so_far() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

// Waits while the receiver's backlog is full. Signals do not lengthen the wait, but places that become free
// do, since the backlog then drains and others have merely been quicker: the system wakes a connect() for
// each, and sends it back to sleep when the place has gone.
bool connect_in_time(int socket, Address const& address) {
    // The socket does not block at first: mostly there is room, and nothing has to be waited for or measured.
    if (connect(socket, address.generic(), address.size) == 0)
        return true;
    if (errno != EAGAIN || fcntl(socket, F_SETFL, 0) != 0)
        return false;
    std::int64_t const last = now_us() + crowded_limit_ms * 1000;
    std::int64_t end = now_us() + send_limit_ms * 1000;
    for (;;) {
        std::int64_t const now = now_us();
        std::int64_t const left = std::min(end, last) - now;
        if (left <= 0) { // as a time-out 0 would be for ever
            errno = EAGAIN;
            return false;
        }
        timeval limit{};
        limit.tv_sec = static_cast<time_t>(left / 1000000);
        limit.tv_usec = static_cast<suseconds_t>(left % 1000000);
        if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
            return false;
        long const sleeps = sleeps_so_far();
        if (connect(socket, address.generic(), address.size) == 0)
            return true;
        if (errno != EINTR && errno != EAGAIN)
            return false;
        if (sleeps_so_far() > sleeps + 1) // one is the wait itself
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
                      is_meant(connection.get(), name) && send_packet(connection.get(), *message, size);
    return sent ? size : -1;
}
