// SPDX-License-Identifier: MIT
//
// The queues that the notices go through.
#include "Notices.hpp"

#include <cerrno>

#include <orn/os/o_msg.h>

namespace zelctl {

namespace {

// The name must not end with a number: o_msg_send() would take that for the process id of the receiver.
std::string queue_name(int pid, std::string const& kind) {
    return "zelctl." + std::to_string(pid) + '.' + kind;
}

} // namespace

bool notify(int pid, std::string const& kind, Notice notice) {
    o_msg_t message = {};
    message.type = notice;
    ssize_t const sent = o_msg_send(queue_name(pid, kind).c_str(), &message, 0);
    return sent >= 0 || errno != EAGAIN; // other errors mean as a rule that nobody is there
}

struct Notices::Queue {
    Queue(o_msg_queue_t* queue, std::function<void()> const& on_message)
        : messages(queue, o_msg_destroy_queue),
          receptor(o_msg_queue_fd(queue), [on_message](orn::zel::fd::Event*) { on_message(); }) {}

    std::unique_ptr<o_msg_queue_t, int (*)(o_msg_queue_t*)> messages;
    orn::zel::fd::AutoReceptor receptor; // destroyed before the queue that it watches
};

bool Notices::open(std::string const& kind) {
    if (has(kind))
        return true;
    o_msg_queue_t* const queue = o_msg_create_queue(queue_name(pid_, kind).c_str(), O_MSG_EXCLUSIVE);
    if (queue)
        queues_[kind] = std::make_shared<Queue>(queue, [this, kind] { receive(kind); });
    return queue != nullptr;
}

void Notices::receive(std::string const& kind) {
    std::shared_ptr<Queue> const queue = queues_.at(kind); // the handler may close it
    o_msg_t message = {};
    message.fd = -1;
    if (o_msg_recv(queue->messages.get(), &message) >= 0) {
        Notice const notice = static_cast<Notice>(message.type);
        o_msg_release(&message);
        handler_(kind, notice);
    }
}

} // namespace zelctl
