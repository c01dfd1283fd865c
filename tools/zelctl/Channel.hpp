// SPDX-License-Identifier: MIT
//
// The client's end of a process's command channel: messages to its queue, and the lines of its answers.
// Internal to the tool. Raising the signal that opens the channel is left to Target, because Connect() of the
// library raises it by number, whoever has that number by then.
#ifndef ZELCTL_CHANNEL_HPP
#define ZELCTL_CHANNEL_HPP

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <orn/zel.hpp>

namespace zelctl {

class Channel {
public:
    // The loop of the calling thread gives each line to the function.
    Channel(int pid, std::function<void(std::string const&)> take_line);
    ~Channel();
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    // Hands the pipe for answers over, in one attempt. Returns false, with the reason in errno: see
    // o_msg_send(). The kernel is asked first whether the queue is that process's own.
    bool connect();
    bool connected() const { return write_end_ == -1; }

    // Sends one command, in one attempt; the same.
    bool command(std::string const& text) const;

    // The process has closed its end: it has ended, has unloaded the library, or refuses the pipe.
    bool closed() const { return closed_; }

    // How often the pipe was full. Lines may have been lost then, since the process waits for room for
    // a moment at most.
    unsigned long overflows() const { return overflows_; }

private:
    void read_lines();
    bool full() const;

    std::string const queue_;
    std::function<void(std::string const&)> const take_line_;
    int read_end_ = -1;
    int write_end_ = -1; // closed once the process has its own
    bool closed_ = false;
    unsigned long overflows_ = 0;
    std::vector<char> buffer_;
    std::string partial_; // the beginning of a line whose end has not come yet
    std::unique_ptr<orn::zel::fd::AutoReceptor> receptor_;
};

} // namespace zelctl

#endif
