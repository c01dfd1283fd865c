// SPDX-License-Identifier: MIT
//
// orn::os::Pipe over pipe2().
#include <orn/os/Pipe.hpp>

#include <cerrno>
#include <fcntl.h>
#include <orn/cancel.hpp>
#include <system_error>
#include <unistd.h>

namespace orn::os {
namespace {

// A program that was started without standard descriptors must not find a pipe under their numbers: it would
// read from the library's own pipes, or print into them.
int above_standard(int fd) {
    if (fd > STDERR_FILENO)
        return fd;
    int const moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int const error = errno;
    close(fd);
    errno = error;
    return moved;
}

} // namespace

Pipe::Pipe(bool blocking) : read_fd_(-1), write_fd_(-1) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | (blocking ? 0 : O_NONBLOCK)) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    read_fd_ = above_standard(ends[0]);
    write_fd_ = above_standard(ends[1]);
    if (read_fd_ == -1 || write_fd_ == -1) {
        int const error = errno;
        close(read_fd_);
        close(write_fd_);
        throw std::system_error(error, std::generic_category(), "pipe");
    }
}

Pipe::~Pipe() {
    internal::CancelShield const shield;
    close(read_fd_);
    close(write_fd_);
}

} // namespace orn::os
