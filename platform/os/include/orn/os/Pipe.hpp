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
    // Both ends are close-on-exec, and non-blocking when blocking is false. Neither gets the number of a
    // standard descriptor, even where those are closed. Throws std::system_error (generic category, text
    // "pipe") when there is no descriptor to be had.
    explicit Pipe(bool blocking);

    // Closes both ends. Nobody may poll them any more.
    ~Pipe();

    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    // The pipe keeps owning its descriptors; do not close them.
    int ReadFD() const { return read_fd_; }
    int WriteFD() const { return write_fd_; }

private:
    int read_fd_;
    int write_fd_;
};

} // namespace orn::os

#endif
