// SPDX-License-Identifier: MIT
//
// Writing words without blocking, and making room in a pipe that is full.
#include "wordPipe.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <sys/syscall.h>

#include <orn/cancel.hpp>

namespace orn::zel::detail {

namespace {

// What /proc/sys/fs/pipe-max-size says, read when a pipe is full for the first time. It holds for a
// privileged process as well, which could go beyond: a loop that does not turn must not take all the memory
// there is.
[[gnu::cold]] int pipe_limit() {
    static std::atomic<int> known(0);
    int limit = known.load(std::memory_order_relaxed);
    if (limit != 0)
        return limit;
    limit = 1 << 20; // the kernel's own default, for a system without /proc
    // The bare system calls, because their wrappers are cancellation points.
    long const fd = syscall(SYS_openat, AT_FDCWD, "/proc/sys/fs/pipe-max-size", O_RDONLY | O_CLOEXEC);
    if (fd != -1) {
        char text[16];
        long const length = syscall(SYS_read, fd, text, sizeof text);
        syscall(SYS_close, fd);
        int value = 0;
        for (long i = 0; i < length && text[i] >= '0' && text[i] <= '9' && value < (1 << 27); ++i)
            value = 10 * value + (text[i] - '0');
        if (value > 0)
            limit = value;
    }
    known.store(limit, std::memory_order_relaxed);
    return limit;
}

// False when the pipe cannot hold more than it did when its size was read.
[[gnu::cold]] bool grow(int fd) {
    int const size = fcntl(fd, F_GETPIPE_SZ);
    if (size < 0 || size >= pipe_limit())
        return false;
    if (fcntl(fd, F_SETPIPE_SZ, std::min(2 * size, pipe_limit())) != -1)
        return true;
    // Another writer may have made it larger meanwhile.
    return fcntl(fd, F_GETPIPE_SZ) > size;
}

template <class Write>
ssize_t write_or_grow(int fd, std::uint32_t const* words, std::size_t count, Write write_once) {
    for (;;) {
        ssize_t const written = write_once(fd, words, count * sizeof *words);
        if (written >= 0)
            return written;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return written;
        if (!grow(fd)) {
            errno = EAGAIN;
            return -1;
        }
    }
}

} // namespace

ssize_t write_word(int fd, std::uint32_t word) {
    internal::CancelShield const shield;
    return write_or_grow(fd, &word, 1, write);
}

std::size_t write_words(int fd, std::uint32_t const* words, std::size_t count) {
    internal::CancelShield const shield;
    std::size_t most = words_at_once;
    std::size_t written = 0;
    while (written < count) {
        std::size_t const block = std::min(count - written, most);
        if (write_or_grow(fd, words + written, block, write) > 0)
            written += block;
        else if (block == 1)
            break;
        else
            most = block / 2; // what is left of the pipe takes a part of it
    }
    return written;
}

ssize_t write_word_in_signal(int fd, std::uint32_t word) {
    return write_or_grow(fd, &word, 1, [](int to, void const* data, std::size_t length) {
        return static_cast<ssize_t>(syscall(SYS_write, to, data, length));
    });
}

} // namespace orn::zel::detail
