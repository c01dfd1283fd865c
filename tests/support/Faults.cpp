// SPDX-License-Identifier: MIT
//
// System calls that fail when a test says so; see Faults.hpp. The linker names the system's own __real_.
#include "Faults.hpp"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace support {
namespace {

thread_local Call failing = Call::read;
thread_local int failing_with = 0;
thread_local int times_left = 0;

bool fails(Call call) {
    if (times_left == 0 || call != failing)
        return false;
    --times_left;
    errno = failing_with;
    return true;
}

} // namespace

Fault::Fault(Call call, int error, int times) {
    failing = call;
    failing_with = error;
    times_left = times;
}

Fault::~Fault() {
    times_left = 0;
}

} // namespace support

extern "C" {

ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, void const*, size_t);
int __real_poll(pollfd*, nfds_t, int);
int __real_pipe2(int*, int);

ssize_t __wrap_read(int fd, void* data, size_t length) {
    return support::fails(support::Call::read) ? -1 : __real_read(fd, data, length);
}

ssize_t __wrap_write(int fd, void const* data, size_t length) {
    return support::fails(support::Call::write) ? -1 : __real_write(fd, data, length);
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeout_ms) {
    if (!support::fails(support::Call::poll))
        return __real_poll(fds, count, timeout_ms);
    for (nfds_t i = 0; i < count; ++i) // as the kernel does when it is interrupted
        fds[i].revents = 0;
    return -1;
}

int __wrap_pipe2(int* ends, int flags) {
    return support::fails(support::Call::pipe2) ? -1 : __real_pipe2(ends, flags);
}
}
