// SPDX-License-Identifier: MIT
//
// A descriptor that closes itself, and calls that a signal may interrupt. Internal to the platform; not
// installed. Making descriptors is left to those who use them.
#ifndef ORN_DESCRIPTOR_HPP
#define ORN_DESCRIPTOR_HPP

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <orn/cancel.hpp>

namespace orn::internal {

// Closes what it holds and leaves errno alone: it goes out of scope on the way from a failure to its report.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    bool open() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        int const old = fd_;
        fd_ = fd;
        if (old >= 0) {
            CancelShield const shield;
            int const error = errno;
            close(old);
            errno = error;
        }
    }

private:
    int fd_;
};

template <class Call>
auto unless_interrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// Moves a new descriptor away from the numbers of the standard ones. In a program that was started without
// them, its own input and output would otherwise be read from and written to what was opened here.
inline int above_standard(int fd) {
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    Descriptor const low(fd);
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

} // namespace orn::internal

#endif
