// SPDX-License-Identifier: MIT
//
// What the station and its client share: a descriptor that closes itself, and a stream cut into lines.
// Internal to the station.
#ifndef STATION_LINES_HPP
#define STATION_LINES_HPP

#include <cerrno>
#include <string>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

namespace station {

[[noreturn]] inline void fail(char const* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Closes its descriptor. Declare it before the receptor that watches it, so that the watching ends first.
class Descriptor {
public:
    // Takes over what a system call returned; throws its error when that is -1.
    Descriptor(int fd, char const* what) : fd_(fd) {
        if (fd_ == -1)
            fail(what);
    }
    ~Descriptor() { close(fd_); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return fd_; }

private:
    int const fd_;
};

// Takes bytes and gives whole lines.
class LineBuffer {
public:
    void append(char const* bytes, std::size_t length) { bytes_.append(bytes, length); }

    bool take(std::string& line) {
        std::size_t const end = bytes_.find('\n', begin_);
        if (end == std::string::npos) {
            bytes_.erase(0, begin_);
            begin_ = 0;
            return false;
        }
        line.assign(bytes_, begin_, end - begin_);
        begin_ = end + 1;
        return true;
    }

    // The beginning of a line that is not complete. Valid after take() has returned false.
    std::string const& rest() const { return bytes_; }

private:
    std::string bytes_;
    std::size_t begin_ = 0;
};

inline bool try_again(ssize_t result) {
    return result == -1 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

inline sockaddr_in loopback(unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace station

#endif
