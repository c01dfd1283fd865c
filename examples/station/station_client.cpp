// SPDX-License-Identifier: MIT
//
// Clients of the station, all in one loop. Each sends numbered lines and checks that every answer comes, in
// order. One more asks a great deal before it reads the first answer, and another hangs up in the middle of a
// line.
//
//     station_client PORT CLIENTS SECONDS
//
// Prints how many lines were sent and answered; the exit status is 0 when these are the same.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>

#include <orn/zel.hpp>

#include "lines.hpp"

namespace {

class Client {
public:
    Client(unsigned short port, std::string const& name, int receive_buffer)
        : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"), prefix_(name + '-') {
        sockaddr_in const address = station::loopback(port);
        if (receive_buffer > 0)
            setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        if (connect(socket_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
            fcntl(socket_.get(), F_SETFL, O_NONBLOCK) != 0)
            station::fail("connect");
    }

    void listen() {
        receptor_.emplace(socket_.get(), [this](orn::zel::fd::Event*) { receive(); });
    }

    void ask(unsigned long lines) {
        while (lines-- > 0)
            output_ += "echo " + prefix_ + std::to_string(++asked_) + '\n';
        flush();
    }

    void raw(std::string const& text) {
        output_ += text;
        flush();
    }

    unsigned long asked() const { return asked_; }
    unsigned long answered() const { return answered_; }

private:
    void flush() {
        ssize_t const sent = send(socket_.get(), output_.data(), output_.size(), MSG_NOSIGNAL);
        if (sent > 0)
            output_.erase(0, static_cast<std::size_t>(sent));
        else if (sent == -1 && !station::try_again(sent))
            station::fail("send");
    }

    void receive() {
        char buffer[65536];
        ssize_t const got = recv(socket_.get(), buffer, sizeof buffer, 0);
        if (station::try_again(got))
            return;
        if (got <= 0)
            throw std::runtime_error("the station hung up");
        input_.append(buffer, static_cast<std::size_t>(got));
        for (std::string line; input_.take(line);) {
            if (line != prefix_ + std::to_string(++answered_))
                throw std::runtime_error("answer " + std::to_string(answered_) + " is \"" + line + '"');
        }
        if (!output_.empty())
            flush(); // the station takes more now that its answers have been read
    }

    station::Descriptor const socket_;
    std::string const prefix_;
    std::string output_;
    station::LineBuffer input_;
    unsigned long asked_ = 0, answered_ = 0;
    std::optional<orn::zel::fd::AutoReceptor> receptor_;
};

int run(unsigned short port, unsigned long clients, unsigned long seconds) {
    std::vector<std::unique_ptr<Client>> all;
    for (unsigned long number = 1; number <= clients; ++number) {
        all.push_back(std::make_unique<Client>(port, std::to_string(number), 0));
        all.back()->listen();
    }
    Client(port, "gone", 0).raw("echo and gone before the end of the li");

    Client lazy(port, std::string(1000, 'x'), 65536); // a receive buffer that cannot hold the answers
    lazy.ask(2000);
    orn::zel::SetAlarm(500, [&lazy] { lazy.listen(); });

    unsigned long asked = 0, answered = 0;
    bool asking = true, late = false;
    orn::zel::Alarm pace(10, 10, [&all] {
        for (auto const& client : all) {
            if (client->asked() - client->answered() < 100)
                client->ask(10);
        }
    });
    orn::zel::SetAlarm(1000 * seconds, [&] {
        asking = false;
        pace.Cancel();
    });
    orn::zel::Alarm const deadline(1000 * (seconds + 30), [&late] { late = true; });
    while (asking || (answered < asked && !late)) {
        if (orn::zel::RunOnce(-1) == -1 && errno != EINTR)
            station::fail("poll");
        asked = lazy.asked();
        answered = lazy.answered();
        for (auto const& client : all) {
            asked += client->asked();
            answered += client->answered();
        }
    }
    std::cout << asked << " lines sent, " << answered << " answered in order" << std::endl;
    return asked == answered ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: station_client PORT CLIENTS SECONDS\n";
        return 2;
    }
    try {
        return run(static_cast<unsigned short>(std::stoul(argv[1])), std::stoul(argv[2]),
                   std::stoul(argv[3]));
    } catch (std::exception const& error) {
        std::cerr << "station_client: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
