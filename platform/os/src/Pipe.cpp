// SPDX-License-Identifier: MIT
//
// orn::os::Pipe over pipe2().
#include <orn/os/Pipe.hpp>

#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <system_error>
#include <unistd.h>

namespace orn::os {

Pipe::Pipe(bool blocking) : readFd_(-1), writeFd_(-1) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | (blocking ? 0 : O_NONBLOCK)) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    readFd_ = ends[0];
    writeFd_ = ends[1];
}

Pipe::~Pipe() {
    // close() is a cancellation point, and a destructor cannot let the unwinding of a cancelled thread out.
    int state = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    ::close(readFd_);
    ::close(writeFd_);
    ::pthread_setcancelstate(state, nullptr);
}

} // namespace orn::os
