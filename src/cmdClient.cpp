// SPDX-License-Identifier: MIT
//
// The client's side of the command channel: the signal, the messages to the target's queue, and the lines of
// the answers. The server's side is cmdServer.cpp.
#include <orn/zel/cmd.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <deque>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <orn/log.h>

#include "shared.hpp"

namespace orn::zel {
namespace cmd {

namespace {

void raise_channel_signal(int pid) {
    // On some systems this number is below the real-time signals, and so not one that is queued with a value.
    if (SIGRTMIN < channel_signal + 1) {
        sigval value = {};
        sigqueue(pid, channel_signal, value);
    } else {
        kill(pid, channel_signal);
    }
}

// The target writes an answer in one piece and does not wait for room, so the pipe should take all of a long
// listing. The kernel may refuse the full size to a user who has many large pipes.
void enlarge(int pipe) {
    int const usual = 65536;
    for (int size = 16 * usual; size > usual && fcntl(pipe, F_SETPIPE_SZ, size) == -1;)
        size /= 2;
}

// The part that every message begins with.
o_msg_t message_of(MessageType type, int& pid) {
    pid = getpid();
    o_msg_t message = {};
    message.type = type;
    message.count = 1;
    message.parts[0].data = &pid;
    message.parts[0].length = sizeof pid;
    return message;
}

} // namespace

struct ChannelImpl::Reader {
    Reader(boost::function<void(std::string const&)> const& line_function, int write_end)
        : fn(line_function), room(write_end), buffer(16384) {}

    void read_lines(int fd);
    bool full() const;

    boost::function<void(std::string const&)> fn;
    int const room; // the write end, which tells whether the pipe is full
    std::atomic<bool> counting{false};
    std::atomic<unsigned long> overflows{0}; // how often the pipe was full, while that is counted
    std::vector<char> buffer;
    std::string partial;             // the beginning of a line whose end has not come yet
    std::deque<std::string> lines;   // whole lines that fn has not been given yet
    std::atomic<bool> closed{false}; // the channel has been given up, maybe by another thread
};

// Only this side makes room in the pipe, by reading. So when one of the target's writes did not find room the
// pipe is still full just before the next read.
bool ChannelImpl::Reader::full() const {
    pollfd entry = {room, POLLOUT, 0};
    return poll(&entry, 1, 0) == 0;
}

void ChannelImpl::Reader::read_lines(int fd) {
    if (counting && full())
        ++overflows;
    ssize_t const got = read(fd, buffer.data(), buffer.size());
    if (got < 1) {
        if (got == 0 || (errno != EAGAIN && errno != EINTR))
            partial.clear();
        return;
    }
    char const* const end = buffer.data() + got;
    for (char const* begin = buffer.data(); begin != end;) {
        char const* const newline = std::find(begin, end, '\n');
        partial.append(begin, newline);
        if (newline == end)
            break;
        lines.push_back(std::string());
        lines.back().swap(partial);
        begin = newline + 1;
    }
    // Take the lines out one at a time, because fn may throw, and may run the loop, which comes back here for
    // the next line. fn may also give the channel up, and then gets no further line. No lock is held.
    while (!closed && !lines.empty()) {
        std::string line;
        line.swap(lines.front());
        lines.pop_front();
        fn(line);
    }
}

ChannelImpl::ChannelImpl(int pid, boost::function<void(std::string const&)> fn)
    : ChannelImpl(pid, fn, [] { usleep(10000); }) {}

ChannelImpl::ChannelImpl(int pid, boost::function<void(std::string const&)> fn, boost::function<void()> wait)
    : queue_name_(CmdQueueName(pid)), response_(false),
      reader_(detail::make_shared<Reader>(fn, response_.WriteFD())),
      receptor_(response_.ReadFD(),
                [reader = reader_](fd::Event* event) { reader->read_lines(event->fd()); }) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: response_fd=%d", "ChannelImpl",
                  response_.ReadFD());
    // The target opens the pipe anew, and when this process is root it may do so as another user.
    fchmod(response_.WriteFD(), S_IRUSR | S_IWUSR | S_IWGRP | S_IWOTH);
    enlarge(response_.WriteFD());
    raise_channel_signal(pid);
    int self;
    o_msg_t message = message_of(message_connect, self);
    message.fd = response_.WriteFD();
    ssize_t const size = o_msg_data_size(&message);
    // This fails until the target's loop has turned and its queue is there.
    while (o_msg_send(queue_name_.c_str(), &message, 0) != size)
        wait();
}

ChannelImpl::~ChannelImpl() {
    reader_->closed = true;
}

ssize_t ChannelImpl::Command(std::string const& command) {
    int self;
    o_msg_t message = message_of(message_command, self);
    message.count = 2;
    message.parts[1].data = const_cast<char*>(command.c_str()); // only read
    message.parts[1].length = command.size() + 1;
    return o_msg_send(queue_name_.c_str(), &message, 0);
}

void ChannelImpl::CountOverflows() {
    reader_->counting = true;
}

unsigned long ChannelImpl::Overflows() const {
    return reader_->overflows;
}

void ChannelImpl::ResponseHandler(fd::Event* event) {
    reader_->read_lines(event->fd());
}

Channel::~Channel() = default;

ssize_t Channel::Command(std::string const& command) {
    return impl_->Command(command);
}

void Channel::CountOverflows() {
    impl_->CountOverflows();
}

unsigned long Channel::Overflows() const {
    return impl_->Overflows();
}

} // namespace cmd

cmd::Channel Connect(int pid, boost::function<void(std::string const&)> fn) {
    return cmd::Channel(detail::make_shared<cmd::ChannelImpl>(pid, fn));
}

cmd::Channel ConnectWith(int pid, boost::function<void(std::string const&)> fn,
                         boost::function<void()> wait) {
    return cmd::Channel(detail::make_shared<cmd::ChannelImpl>(pid, fn, wait));
}

} // namespace orn::zel
