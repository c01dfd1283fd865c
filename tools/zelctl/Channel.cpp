// SPDX-License-Identifier: MIT
//
// The two messages of the channel, and reading answers. docs/protocol.md has the reasons behind each step.
#include "Channel.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Failure.hpp"

namespace zelctl {

namespace {

// A longer one comes in pieces: the process may never end it, and is not trusted with this one's memory.
std::size_t const longest_line = 16 << 20;

// The process writes an answer in one piece and does not wait for room, so the pipe should take all of a long
// listing. The kernel may refuse the full size to a user who has many large pipes, and allows only root more
// than 16 times the usual one.
void enlarge(int pipe) {
    int const usual = 65536;
    for (int size = 128 * usual; size > usual && fcntl(pipe, F_SETPIPE_SZ, size) == -1;)
        size /= 2;
}

bool send(std::string const& queue, o_msg_t& message, int& sender) {
    sender = getpid();
    message.parts[0].data = &sender;
    message.parts[0].length = sizeof sender;
    return o_msg_send(queue.c_str(), &message, 0) == o_msg_data_size(&message);
}

} // namespace

Channel::Channel(int pid, std::function<void(std::string const&)> take_line)
    : queue_(orn::zel::cmd::CmdQueueName(pid)), take_line_(take_line), buffer_(65536) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw Failure(refused, std::string("no pipe for answers: ") + strerror(errno));
    read_end_ = ends[0];
    write_end_ = ends[1];
    // The process opens the pipe anew, and when this one is root it may do so as another user.
    fchmod(write_end_, S_IRUSR | S_IWUSR | S_IWGRP | S_IWOTH);
    enlarge(write_end_);
    receptor_.reset(
        new orn::zel::fd::AutoReceptor(read_end_, [this](orn::zel::fd::Event*) { read_lines(); }));
}

Channel::~Channel() {
    receptor_.reset(); // before its descriptor goes
    close(read_end_);
    if (write_end_ != -1)
        close(write_end_);
}

bool Channel::connect() {
    o_msg_t message = {};
    message.type = orn::zel::cmd::message_connect;
    message.count = 1;
    // Number 0 would not go along, and is always taken: main() opens what is closed of the standard ones.
    message.fd = write_end_;
    int sender;
    if (!send(queue_, message, sender))
        return false;
    close(write_end_); // from now on the end of the stream tells that the process has closed its own
    write_end_ = -1;
    return true;
}

bool Channel::command(std::string const& text) const {
    o_msg_t message = {};
    message.type = orn::zel::cmd::message_command;
    message.count = 2;
    message.parts[1].data = const_cast<char*>(text.c_str()); // only read
    message.parts[1].length = text.size() + 1;
    int sender;
    return send(queue_, message, sender);
}

// Only this side makes room in the pipe, by reading. So when one of the writes did not find room the pipe is
// still full just before the next read. A write end that was kept would hide the end of the stream.
bool Channel::full() const {
    int const end =
        open(("/proc/self/fd/" + std::to_string(read_end_)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    pollfd entry = {end, POLLOUT, 0};
    bool const no_room = end != -1 && poll(&entry, 1, 0) == 0;
    if (end != -1)
        close(end);
    return no_room;
}

void Channel::read_lines() {
    if (full())
        ++overflows_;
    ssize_t const got = read(read_end_, buffer_.data(), buffer_.size());
    if (got < 0)
        return; // interrupted
    if (got == 0) {
        closed_ = true;
        receptor_.reset(); // the descriptor stays readable
        if (!partial_.empty())
            take_line_(partial_); // the end of it never comes
        return;
    }
    char const* const end = buffer_.data() + got;
    for (char const* begin = buffer_.data(); begin != end;) {
        char const* const newline = std::find(begin, end, '\n');
        partial_.append(begin, newline);
        bool const whole = newline != end;
        if (!whole && partial_.size() < longest_line)
            break;
        std::string line;
        line.swap(partial_);
        take_line_(line);
        begin = newline + (whole ? 1 : 0);
    }
}

} // namespace zelctl
