// SPDX-License-Identifier: MIT
//
// orn::os::Pipe over pipe2().
#include <orn/os/Pipe.hpp>

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/descriptor.hpp>

namespace orn::os {

Pipe::Pipe(bool blocking) : read_fd_(-1), write_fd_(-1) {
    int ends[2] = {-1, -1};
    bool const made = pipe2(ends, O_CLOEXEC | (blocking ? 0 : O_NONBLOCK)) == 0;
    internal::Descriptor reader(internal::above_standard(ends[0]));
    internal::Descriptor writer(internal::above_standard(ends[1]));
    if (!made || !reader.open() || !writer.open())
        throw std::system_error(errno, std::generic_category(), "pipe");
    read_fd_ = reader.release();
    write_fd_ = writer.release();
}

Pipe::~Pipe() {
    internal::CancelShield const shield;
    close(read_fd_);
    close(write_fd_);
}

} // namespace orn::os
