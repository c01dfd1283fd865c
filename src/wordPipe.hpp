// SPDX-License-Identifier: MIT
//
// The pipes that carry identifiers and signal numbers into a loop, a word of four bytes each. Internal. The
// alarms, the signals and the tasks write and read them; what a word means is theirs.
#ifndef ZEL_SRC_WORDPIPE_HPP
#define ZEL_SRC_WORDPIPE_HPP

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>

#include <sys/ioctl.h>
#include <sys/types.h>
#include <unistd.h>

#include <orn/clock.hpp>
#include <orn/zel/fd.hpp>

namespace orn::zel::detail {

// Writes a word in host order, whole or not at all, and never blocks. A full pipe is made larger, up to the
// system's limit for pipes, so that a burst which arrives before the loop turns loses nothing. Beyond that
// limit the result is -1 with EAGAIN. For any thread; not a cancellation point.
ssize_t write_word(int fd, std::uint32_t word);

// Writes words in their order with as few calls as it can, and otherwise like write_word(). Returns how many
// the pipe has taken.
std::size_t write_words(int fd, std::uint32_t const* words, std::size_t count);

// How many words one call writes: as many as a pipe takes whole or not at all.
std::size_t const words_at_once = PIPE_BUF / sizeof(std::uint32_t);

// The same as write_word() for signal context. It takes no lock, and makes its system calls without the C
// library's wrappers, which are cancellation points: a cancelled thread must not be unwound out of a signal
// handler.
ssize_t write_word_in_signal(int fd, std::uint32_t word);

// Reads one word from a non-blocking read end. False when there is none, or on an error.
inline bool read_word(int fd, std::uint32_t& word) {
    return read(fd, &word, sizeof word) == static_cast<ssize_t>(sizeof word);
}

// How many words have gone into a pipe and come out of it, kept by those who write and read it. It tells a
// reader without a system call that it has taken the last word. A writer counts a word when it is in the
// pipe, so a count that lags makes the reader leave the word to the next turn, as one that came just after.
// In a child of fork() the counts differ for ever, or are equal at a wrong time, which does no more harm.
class WordCount {
public:
    void written() { written_.fetch_add(1, std::memory_order_relaxed); } // signal-safe
    void taken() { taken_.fetch_add(1, std::memory_order_relaxed); }
    bool all_taken() const {
        return written_.load(std::memory_order_relaxed) == taken_.load(std::memory_order_relaxed);
    }

private:
    std::atomic<unsigned> written_{0};
    std::atomic<unsigned> taken_{0};
};

// Takes out the words that were in the pipe when its turn came, one at a time, and for some 20 ms at most.
// Words that the handlers go on to write are left, and so is the rest after that time: a handler that feeds
// its own pipe, or that takes longer than its alarm's period, must not keep the loop from everything else.
// What is left keeps the pipe readable, and so makes the next turn.
class QueuedWords {
public:
    explicit QueuedWords(fd::Event const& event, WordCount* count = nullptr)
        : fd_(event.fd()), count_(count), taken_(0), left_(event.revents() & POLLIN ? 1 : 0), begin_(0) {}

    bool next(std::uint32_t& word) {
        // Count the words after the first has been handled. So a single word, which is the usual case, costs
        // one call to read it, and where nobody keeps a count one to see that it was alone.
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
        if (!read_word(fd_, word))
            return false;
        if (count_)
            count_->taken();
        return true;
    }

private:
    static constexpr std::uint32_t most_ms = 20;

    static std::uint32_t now_ms() { return static_cast<std::uint32_t>(internal::coarse_ms()); }

    unsigned long queued() const {
        if (count_ && count_->all_taken())
            return 0;
        int bytes = 0;
        return ioctl(fd_, FIONREAD, &bytes) == 0 ? static_cast<unsigned long>(bytes) / sizeof(std::uint32_t)
                                                 : ULONG_MAX;
    }

    int fd_;
    WordCount* count_;
    unsigned long taken_;
    unsigned long left_;
    std::uint32_t begin_; // when the second word was taken, in ms; wraps, so only differences count
};

} // namespace orn::zel::detail

#endif
