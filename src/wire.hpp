// SPDX-License-Identifier: MIT
//
// The pipes that carry identifiers and signal numbers into a loop. Internal.
#ifndef ZEL_SRC_WIRE_HPP
#define ZEL_SRC_WIRE_HPP

#include <cstdint>

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

// Reads one of them. False when there is none (the read end does not block), or on an error.
inline bool read_word(int fd, std::uint32_t& word) {
    return read(fd, &word, sizeof word) == static_cast<ssize_t>(sizeof word);
}

} // namespace detail
} // namespace zel
} // namespace orn

#endif
