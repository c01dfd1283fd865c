// SPDX-License-Identifier: MIT
//
// The station's TCP service. Internal to the station. Any number of clients may connect at once, and each
// line of theirs gets a line of answer.
#ifndef STATION_LINE_SERVICE_HPP
#define STATION_LINE_SERVICE_HPP

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <sys/socket.h>

#include <orn/zel.hpp>

#include "lines.hpp"

namespace station {

struct Traffic {
    unsigned long clients = 0;
    unsigned long cut_off = 0; // hung up in the middle of a line
    unsigned long lines = 0;
    unsigned long answers = 0;   // the kernel has taken them whole
    unsigned long dropped = 0;   // their client had gone before
    unsigned long held_back = 0; // how often a client did not take its answers at once
};

// One client. While it does not take its answers, nothing more is read from it, so it cannot fill the memory.
class Connection {
public:
    using Interpreter = boost::function<std::string(std::string const&)>;

    // done is called when the client has gone; it may destroy this object.
    Connection(int fd, Traffic& traffic, Interpreter const& answer, boost::function<void()> done)
        : socket_(fd, "accept"), traffic_(traffic), answer_(answer), done_(done),
          monitor_(orn::zel::Fd(socket_.get())) {
        watch(POLLIN);
    }

    bool pending() const { return !output_.empty(); }

private:
    // The events to wait for are part of the registration, so other events need another registration.
    void watch(short events) {
        receptor_.reset();
        monitor_->events(events);
        receptor_.emplace(*monitor_, [this](orn::zel::fd::Event* event) { ready(event->revents()); });
    }

    void ready(short revents) {
        bool const alive = pending() ? send_answers() : receive();
        // An error is delivered once, so there is no later event to close on.
        if (!alive || (revents & POLLERR)) {
            traffic_.dropped += answers_in(output_.size());
            boost::function<void()> const done = done_;
            done();
        }
    }

    bool receive() {
        char buffer[4096];
        ssize_t const got = recv(socket_.get(), buffer, sizeof buffer, 0);
        if (try_again(got))
            return true;
        if (got <= 0) {
            traffic_.cut_off += input_.rest().empty() ? 0 : 1;
            return false;
        }
        input_.append(buffer, static_cast<std::size_t>(got));
        for (std::string line; input_.take(line);) {
            ++traffic_.lines;
            output_ += answer_(line) + '\n';
        }
        return input_.rest().size() <= longest_line && send_answers();
    }

    bool send_answers() {
        ssize_t const sent = send(socket_.get(), output_.data(), output_.size(), MSG_NOSIGNAL);
        if (sent == -1 && !try_again(sent))
            return false;
        std::size_t const taken = sent > 0 ? static_cast<std::size_t>(sent) : 0;
        traffic_.answers += answers_in(taken);
        output_.erase(0, taken);
        short const wanted = pending() ? POLLOUT : POLLIN;
        if (monitor_->events() != wanted) {
            traffic_.held_back += pending() ? 1 : 0;
            watch(wanted);
        }
        return true;
    }

    unsigned long answers_in(std::size_t length) const {
        auto const end = output_.begin() + static_cast<std::ptrdiff_t>(length);
        return static_cast<unsigned long>(std::count(output_.begin(), end, '\n'));
    }

    static std::size_t const longest_line = 65536;

    Descriptor const socket_;
    Traffic& traffic_;
    Interpreter const answer_;
    boost::function<void()> const done_;
    LineBuffer input_;
    std::string output_;
    boost::shared_ptr<orn::zel::fd::Monitor> const monitor_;
    std::optional<orn::zel::AutoReceptor<orn::zel::fd::Event*>> receptor_;
};

// Listens on a port of 127.0.0.1 that the system chooses.
class LineService {
public:
    explicit LineService(Connection::Interpreter const& answer)
        : listener_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"),
          answer_(answer) {
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        int const buffer = 65536; // for each client, who inherits it: the kernel's buffers are memory as well
        setsockopt(listener_.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
        auto const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_.get(), generic, length) != 0 || listen(listener_.get(), SOMAXCONN) != 0 ||
            getsockname(listener_.get(), generic, &length) != 0)
            fail("listen");
        port_ = ntohs(address.sin_port);
        open();
    }

    void open() {
        receptor_.emplace(listener_.get(), [this](orn::zel::fd::Event*) { accept_all(); });
    }
    void close() {
        receptor_.reset();
        reopen_.reset();
    }

    unsigned short port() const { return port_; }
    Traffic const& traffic() const { return traffic_; }

    // Whether answers wait for clients that do not take them.
    bool pending() const {
        return std::any_of(connections_.begin(), connections_.end(),
                           [](auto const& item) { return item.second->pending(); });
    }

private:
    void accept_all() {
        for (;;) {
            int const fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd != -1) {
                ++traffic_.clients;
                connections_[fd] = std::make_unique<Connection>(fd, traffic_, answer_,
                                                                [this, fd] { connections_.erase(fd); });
            } else if (errno != EINTR && errno != ECONNABORTED) {
                // Without a free descriptor the next client stays in the queue and would wake the loop for
                // ever.
                if (errno != EAGAIN && errno != EWOULDBLOCK)
                    pause();
                return;
            }
        }
    }

    void pause() {
        receptor_.reset();
        reopen_.emplace(100, [this] { open(); });
    }

    Descriptor const listener_;
    Connection::Interpreter const answer_;
    unsigned short port_ = 0;
    Traffic traffic_;
    std::map<int, std::unique_ptr<Connection>> connections_;
    std::optional<orn::zel::fd::AutoReceptor> receptor_;
    std::optional<orn::zel::Alarm> reopen_;
};

} // namespace station

#endif
