// SPDX-License-Identifier: MIT
//
// A pipe that closes itself. Public: the library's event sources and applications use it. What travels
// through the pipe, and what happens when it is full, is left to the caller.
#ifndef ORN_OS_PIPE_HPP
#define ORN_OS_PIPE_HPP

#include <orn/api.h>

namespace orn::os {

class ORN_API Pipe {
public:
    // Both ends are close-on-exec and no standard descriptors, also where those are closed; with blocking
    // false both are non-blocking as well. Throws std::system_error (generic category, text "pipe") when the
    // system gives no pipe.
    explicit Pipe(bool blocking);

    // Closes both ends: whoever polls them must have stopped before.
    ~Pipe();

    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    // The descriptors stay the pipe's own.
    int ReadFD() const { return read_fd_; }
    int WriteFD() const { return write_fd_; }

private:
    int read_fd_;
    int write_fd_;
};

} // namespace orn::os

#endif
