// SPDX-License-Identifier: MIT
//
// What the zelctls that use the monitors of one process tell each other. Internal to the tool. A process has
// one monitor of a kind and does not tell its user when another one takes it: that user's zelctl would just
// fall silent.
#ifndef ZELCTL_NOTICES_HPP
#define ZELCTL_NOTICES_HPP

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <orn/zel.hpp>

namespace zelctl {

enum Notice {
    taken = 1,        // the sender has it now, and keeps it
    switched_off = 2, // on request
    free_again = 3    // the sender had it for a moment
};

// Tells the zelctl that follows this monitor of the process, if there is one. Returns false when that one
// does not take its notices, and blocks for a second or more to find that out.
bool notify(int pid, std::string const& kind, Notice notice);

// Receives the notices about the monitors that this zelctl follows, from zelctls of the same user. There is
// one queue, the place, for each kind of monitor of a process, and one zelctl at a time has it.
class Notices {
public:
    using Handler = std::function<void(std::string const& kind, Notice notice)>;

    Notices(int pid, Handler handler) : pid_(pid), handler_(handler) {}
    Notices(Notices const&) = delete;
    Notices& operator=(Notices const&) = delete;

    // Begins to receive. Returns false while another zelctl does; that one stops when it is told that the
    // monitor is taken.
    bool open(std::string const& kind);
    bool has(std::string const& kind) const { return queues_.count(kind) != 0; }
    void close(std::string const& kind) { queues_.erase(kind); }

private:
    struct Queue;

    void receive(std::string const& kind);

    int const pid_;
    Handler handler_;
    std::map<std::string, std::shared_ptr<Queue>> queues_; // by kind
};

} // namespace zelctl

#endif
