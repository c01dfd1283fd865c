// SPDX-License-Identifier: MIT
//
// Making lines printable, and writing them without being held up by a slow reader.
#include "Output.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "Failure.hpp"

namespace zelctl {

namespace {

unsigned char byte(std::string const& text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

// Whether the character takes no place, or turns the direction of what follows: a line with it may look like
// another one.
bool misleads(unsigned char first, unsigned char second, unsigned char third) {
    bool const general = first == 0xe2 && second == 0x80 && // U+200B to U+200F, U+2028 to U+202E
                         ((third >= 0x8b && third <= 0x8f) || (third >= 0xa8 && third <= 0xae));
    bool const more = first == 0xe2 && second == 0x81 && third >= 0xa0 && third < 0xb0; // U+2060 to U+206F
    bool const arabic_mark = first == 0xd8 && second == 0x9c;
    bool const byte_order_mark = first == 0xef && second == 0xbb && third == 0xbf;
    return general || more || arabic_mark || byte_order_mark;
}

// The length of the character at this place if a terminal shows it. 0 for control characters, and for bytes
// that are not UTF-8, overlong forms and surrogates included.
std::size_t shown(std::string const& text, std::size_t at) {
    unsigned char const first = byte(text, at);
    unsigned char const second = byte(text, at + 1);
    if (first < 0x80)
        return first == '\t' || (first >= ' ' && first != 0x7f) ? 1 : 0;
    std::size_t const length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(text, at + i) & 0xc0) != 0x80)
            return 0;
    }
    bool const control = first == 0xc2 && second < 0xa0;
    bool const overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    bool const beyond = (first == 0xed && second >= 0xa0) || (first == 0xf4 && second >= 0x90);
    return control || overlong || beyond || misleads(first, second, byte(text, at + 2)) ? 0 : length;
}

} // namespace

std::string printable(std::string const& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const length = shown(text, at);
        if (length > 0) {
            result.append(text, at, length);
        } else {
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02x", byte(text, at));
            result += code;
        }
        at += std::max<std::size_t>(length, 1);
    }
    return result;
}

namespace {

bool is_dumb() {
    char const* const kind = std::getenv("TERM");
    return kind && std::strcmp(kind, "dumb") == 0;
}

} // namespace

Output::Output(std::function<int()> caught)
    : caught_(caught), terminal_(isatty(STDOUT_FILENO) != 0), dumb_(is_dumb()), error_(0) {}

void Output::line(std::string const& text) {
    kept_ += terminal_ ? printable(text) : text;
    kept_ += '\n';
}

void Output::flush() {
    while (!kept_.empty() && error_ == 0 && caught_() == 0)
        write_kept(100);
}

void Output::write_kept(int wait_ms) {
    std::size_t done = 0;
    // Write small pieces, and only when there is room: a pipe that nobody reads must not keep a signal
    // waiting.
    for (pollfd room = {STDOUT_FILENO, POLLOUT, 0}; done < kept_.size() && poll(&room, 1, wait_ms) > 0;) {
        ssize_t const written =
            write(STDOUT_FILENO, kept_.data() + done, std::min<std::size_t>(kept_.size() - done, PIPE_BUF));
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR && errno != EAGAIN) {
            error_ = errno;
            kept_.clear();
            return;
        }
    }
    kept_.erase(0, done);
}

void Output::check() {
    int const signo = caught_();
    if (signo != 0)
        throw Interrupted{signo};
    // Look at the reader even when nothing has been written yet.
    pollfd entry = {STDOUT_FILENO, 0, 0};
    if (error_ == 0 && poll(&entry, 1, 0) > 0 && (entry.revents & POLLERR) != 0)
        error_ = EPIPE;
    if (error_ == EPIPE)
        throw Interrupted{SIGPIPE};
    if (error_ != 0)
        throw Failure(refused, std::string("standard output: ") + strerror(error_));
}

} // namespace zelctl
