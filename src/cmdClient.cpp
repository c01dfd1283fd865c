// SPDX-License-Identifier: MIT
//
// The client side of the command channel.
#include <orn/zel/cmd.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <deque>

#include <unistd.h>

#include <orn/log.h>

#include "process.hpp"

namespace orn {
namespace zel {
namespace cmd {

namespace {

using detail::channel_signal;

void raise_channel_signal(int pid) {
    // Real-time signals are queued with a value; where this number is not one of them it is an ordinary
    // signal.
    if (SIGRTMIN < channel_signal + 1) {
        sigval value = {};
        sigqueue(pid, channel_signal, value);
    } else {
        kill(pid, channel_signal);
    }
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
    explicit Reader(boost::function<void(std::string const&)> const& line_function) : fn(line_function) {}

    void read_lines(int fd);

    boost::function<void(std::string const&)> fn;
    std::string partial;             // a line that has no end yet
    std::deque<std::string> lines;   // that fn has not been given yet
    std::atomic<bool> closed{false}; // the channel has been given up, maybe in another thread
};

void ChannelImpl::Reader::read_lines(int fd) {
    char buffer[1024];
    ssize_t const got = read(fd, buffer, sizeof buffer);
    if (got < 1) {
        if (got == 0 || (errno != EAGAIN && errno != EINTR))
            partial.clear();
        return;
    }
    char const* const end = buffer + got;
    for (char const* begin = buffer; begin != end;) {
        char const* const newline = std::find(begin, end, '\n');
        partial.append(begin, newline);
        if (newline == end)
            break;
        lines.push_back(std::string());
        lines.back().swap(partial);
        begin = newline + 1;
    }
    // Taken out one at a time: fn may throw, and may run the loop, which then comes back here for the next
    // one. It may also give the channel up, and then has seen its last line.
    while (!closed && !lines.empty()) {
        std::string line;
        line.swap(lines.front());
        lines.pop_front();
        fn(line);
    }
}

ChannelImpl::ChannelImpl(int pid, boost::function<void(std::string const&)> fn)
    : queue_name_(CmdQueueName(pid)), response_(false), reader_(new Reader(fn)),
      receptor_(response_.ReadFD(),
                [reader = reader_](fd::Event* event) { reader->read_lines(event->fd()); }) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: response_fd=%d", "ChannelImpl",
                  response_.ReadFD());
    raise_channel_signal(pid);
    int self;
    o_msg_t message = message_of(message_connect, self);
    message.fd = response_.WriteFD();
    ssize_t const size = o_msg_data_size(&message);
    // Until the target's loop has turned and its queue is there.
    while (o_msg_send(queue_name_.c_str(), &message, 0) != size)
        usleep(10000);
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

void ChannelImpl::ResponseHandler(fd::Event* event) {
    reader_->read_lines(event->fd());
}

Channel::~Channel() = default;

ssize_t Channel::Command(std::string const& command) {
    return impl_->Command(command);
}

} // namespace cmd

cmd::Channel Connect(int pid, boost::function<void(std::string const&)> fn) {
    return cmd::Channel(boost::shared_ptr<cmd::ChannelImpl>(new cmd::ChannelImpl(pid, fn)));
}

} // namespace zel
} // namespace orn
