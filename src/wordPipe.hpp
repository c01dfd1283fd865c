// SPDX-License-Identifier: MIT
//
// The pipes that carry identifiers and signal numbers into a loop. Internal.
#ifndef ZEL_SRC_WORDPIPE_HPP
#define ZEL_SRC_WORDPIPE_HPP

#include <climits>
#include <cstdint>
#include <ctime>

#include <sys/ioctl.h>
#include <sys/types.h>
#include <unistd.h>

namespace orn {
namespace zel {
namespace detail {

// Writes four bytes in host order, all or none, and never blocks. A pipe that is full is made larger, up to
// the system's limit for pipes, so that a burst which arrives before the loop turns loses nothing; beyond
// that limit the result is -1 with EAGAIN. Any thread; not a cancellation point.
ssize_t write_word(int fd, std::uint32_t word);

// The same for signal context: allocates nothing, takes no lock, and is no cancellation point either, so that
// a cancelled thread is not unwound out of a signal handler.
ssize_t write_word_in_signal(int fd, std::uint32_t word);

// Reads one word. False when there is none, the read end being non-blocking, or on an error.
inline bool read_word(int fd, std::uint32_t& word) {
    return read(fd, &word, sizeof word) == static_cast<ssize_t>(sizeof word);
}

// Takes out what is queued, one word at a time, but not what the handlers of these words go on to queue, and
// for some 20 ms at most: a handler that feeds its own pipe, or takes longer than its alarm's period, must
// not keep the loop from everything else. What is left keeps the pipe readable, and so makes the next turn.
class QueuedWords {
public:
    explicit QueuedWords(int fd) : fd_(fd), taken_(0), left_(1), begin_(0) {}

    bool next(std::uint32_t& word) {
        // Asked once one has been handled: a single word, the usual case, costs one call to read it and one
        // to see that it was the only one.
        if (taken_ == 1) {
            left_ = queued();
            begin_ = left_ > 0 ? now_ms() : 0;
        } else if (taken_ > 1 && now_ms() - begin_ >= most_ms) {
            return false;
        }
        if (left_ == 0)
            return false;
        --left_;
        ++taken_;
        return read_word(fd_, word);
    }

private:
    static constexpr std::uint32_t most_ms = 20;

    // Exact to one tick of the kernel's, some milliseconds: a fraction of what the exact time costs.
    static std::uint32_t now_ms() {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        return static_cast<std::uint32_t>(now.tv_sec) * 1000 +
               static_cast<std::uint32_t>(now.tv_nsec / 1000000);
    }

    unsigned long queued() const {
        int bytes = 0;
        return ioctl(fd_, FIONREAD, &bytes) == 0 ? static_cast<unsigned long>(bytes) / sizeof(std::uint32_t)
                                                 : ULONG_MAX;
    }

    int fd_;
    unsigned long taken_;
    unsigned long left_;
    std::uint32_t begin_; // of the second word; wraps, so only differences count
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
