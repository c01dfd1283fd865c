// SPDX-License-Identifier: MIT
//
// The receiving end of message queues: listening, accepting, and choosing the next message. What passes over
// a connection is left to o_msg_packet.hpp, and who is trusted to o_msg_address.hpp.
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/descriptor.hpp>
#include <orn/forkHandlers.hpp>

#include "o_msg_address.hpp"
#include "o_msg_packet.hpp"

namespace {

using namespace orn::os::msg;
using orn::internal::Descriptor;
using orn::internal::unless_interrupted;

constexpr long accept_pause_ms = 100;
// Connections that may wait while the receiver is stopped. They take kernel memory, which any local user can
// fill.
constexpr int backlog = 64;
// Accepted connections that may wait for their packet. One more drops the oldest.
constexpr std::size_t pending_limit = 32;
// One call looks at this many connections. With a flood of useless ones it would otherwise never return, and
// the caller's loop would not turn.
constexpr int connections_per_call = 64;
// Strangers are dropped without being counted as looked at, because they must not come faster than they go.
// Dropping this many takes some milliseconds.
constexpr int strangers_per_call = 1024;

// Guards the list of queues, and keeps fork() waiting while descriptors are made that a child must not keep.
// It is a leaf: no other lock is taken under it.
std::mutex queues_mutex;
o_msg_queue* queues = nullptr;

} // namespace

// The caller polls an epoll instance. In it are the listener, the pending connections and the timer that ends
// a pause, which is everything that receive() has to look at.
struct o_msg_queue {
public:
    // The caller of these three holds queues_mutex.
    bool open(char const* name);
    ~o_msg_queue();
    static void close_all_in_child();

    int fd() const { return events_.get(); }
    ssize_t receive(o_msg_t& to);

private:
    struct Connection {
        Descriptor socket;
        bool watched = false; // in events_
    };

    bool watch(int fd);
    bool accept_one(int& strangers);
    void pause_accepting();
    void go_on_accepting();
    Outcome take_first(o_msg_t& to);
    void drop(std::size_t index);

    Descriptor events_;
    Descriptor listener_;
    Descriptor pause_timer_;
    bool paused_ = false;
    Connection pending_[pending_limit]; // in the order of acceptance
    std::size_t pending_count_ = 0;
    std::unique_ptr<unsigned char[]> buffer_;
    o_msg_queue* next_ = nullptr;
};

bool o_msg_queue::watch(int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    return epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// listen() comes last, because senders can connect from then on.
bool o_msg_queue::open(char const* name) {
    Address address;
    if (!make_address(name, address))
        return false;
    listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener_.open() || bind(listener_.get(), address.generic(), address.size) != 0)
        return false;
    events_.reset(epoll_create1(EPOLL_CLOEXEC));
    pause_timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!events_.open() || !pause_timer_.open())
        return false;
    // Pages of it that no message has reached yet take no memory.
    buffer_.reset(new (std::nothrow) unsigned char[O_MSG_MAX_SIZE]);
    if (!buffer_) {
        errno = ENOMEM;
        return false;
    }
    if (!watch(listener_.get()) || !watch(pause_timer_.get()) || listen(listener_.get(), backlog) != 0)
        return false;
    next_ = queues;
    queues = this;
    return true;
}

o_msg_queue::~o_msg_queue() {
    for (o_msg_queue** at = &queues; *at; at = &(*at)->next_) {
        if (*at == this) {
            *at = next_;
            break;
        }
    }
}

// A child that kept the listener would keep the name taken after its parent has ended, and senders would
// reach a queue that nobody receives from. The three descriptors are safe to touch here, whatever the queue's
// thread was doing at the time of the fork, because they never change while a queue lives.
void o_msg_queue::close_all_in_child() {
    for (o_msg_queue* queue = queues; queue; queue = queue->next_) {
        queue->listener_.reset();
        queue->events_.reset();
        queue->pause_timer_.reset();
    }
}

// Without descriptors or memory, a waiting connection can be neither accepted nor refused. The listener would
// stay readable and the loop would spin, so the listener is left alone for a while. Senders wait meanwhile.
void o_msg_queue::pause_accepting() {
    itimerspec after = {};
    after.it_value.tv_nsec = accept_pause_ms * 1000000;
    epoll_event nothing = {};
    if (timerfd_settime(pause_timer_.get(), 0, &after, nullptr) == 0 &&
        epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &nothing) == 0)
        paused_ = true;
}

void o_msg_queue::go_on_accepting() {
    std::uint64_t expired = 0;
    if (!paused_ || read(pause_timer_.get(), &expired, sizeof expired) < 0)
        return;
    epoll_event event = {};
    event.events = EPOLLIN;
    epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &event);
    paused_ = false;
}

// Accepts the next connection of somebody who may send here. Drops those of strangers that come before it,
// unread, and counts them down. False when nobody waits, nobody can be let in, or strangers has come to 0.
bool o_msg_queue::accept_one(int& strangers) {
    while (!paused_) {
        Descriptor socket(unless_interrupted(
            [this] { return accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }));
        if (!socket.open()) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED)
                pause_accepting();
            return false;
        }
        if (may_send_here(socket.get())) {
            if (pending_count_ == pending_limit)
                drop(0);
            pending_[pending_count_++].socket = std::move(socket);
            return true;
        }
        if (--strangers == 0)
            return false;
    }
    return false;
}

// Removes the socket from the epoll set explicitly: closing does not remove it while a child of fork() still
// has a copy, and a socket that has hung up would be reported for as long as the child lives.
void o_msg_queue::drop(std::size_t index) {
    if (pending_[index].watched)
        epoll_ctl(events_.get(), EPOLL_CTL_DEL, pending_[index].socket.get(), nullptr);
    --pending_count_;
    for (; index < pending_count_; ++index) {
        pending_[index].socket = std::move(pending_[index + 1].socket);
        pending_[index].watched = pending_[index + 1].watched;
    }
    pending_[index].socket.reset();
    pending_[index].watched = false;
}

// Scans in order of acceptance and returns the first message found. The messages of one sender stay in order:
// it sends a message before it makes its next connection, so the earlier connection is readable first.
Outcome o_msg_queue::take_first(o_msg_t& to) {
    Outcome outcome = Outcome::nothing_yet;
    for (std::size_t i = 0; i < pending_count_ && outcome == Outcome::nothing_yet;) {
        Outcome const one = receive_packet(pending_[i].socket.get(), buffer_.get(), to);
        if (one == Outcome::nothing_yet) {
            ++i;
            continue;
        }
        drop(i);
        if (one != Outcome::dropped)
            outcome = one;
    }
    if (pending_count_ > 0) { // every connection but the newest is already in the epoll set
        Connection& newest = pending_[pending_count_ - 1];
        newest.watched = newest.watched || watch(newest.socket.get());
        if (!newest.watched)
            drop(pending_count_ - 1);
    }
    return outcome;
}

ssize_t o_msg_queue::receive(o_msg_t& to) {
    if (!listener_.open()) {
        errno = EBADF;
        return -1;
    }
    go_on_accepting();
    bool more = true;
    int strangers = strangers_per_call;
    for (int i = 0; more && i < connections_per_call; ++i) {
        Outcome outcome = Outcome::nothing_yet;
        if (pending_count_ == pending_limit) // accepting would drop the oldest, whose message may be there
            outcome = take_first(to);
        if (outcome == Outcome::nothing_yet) {
            more = accept_one(strangers);
            outcome = take_first(to);
        }
        if (outcome == Outcome::received)
            return o_msg_data_size(&to);
        if (outcome == Outcome::out_of_memory) {
            errno = ENOMEM;
            return -1;
        }
    }
    errno = EAGAIN;
    return -1;
}

namespace {

orn::internal::ForkHandlers const fork_handlers
    __attribute__((init_priority(101))) = {[] { queues_mutex.lock(); }, [] { queues_mutex.unlock(); },
                                           [] {
                                               o_msg_queue::close_all_in_child();
                                               queues_mutex.unlock();
                                           }};

} // namespace

extern "C" {

o_msg_queue_t* o_msg_create_queue(char const* name, int flags) {
    if (flags != O_MSG_EXCLUSIVE) {
        errno = EINVAL;
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(queues_mutex);
    std::unique_ptr<o_msg_queue> queue(new (std::nothrow) o_msg_queue);
    if (!queue) {
        errno = ENOMEM;
        return nullptr;
    }
    return queue->open(name) ? queue.release() : nullptr;
}

int o_msg_destroy_queue(o_msg_queue_t* queue) {
    if (!queue) {
        errno = EINVAL;
        return -1;
    }
    std::lock_guard<std::mutex> const lock(queues_mutex);
    delete queue;
    return 0;
}

int o_msg_queue_fd(o_msg_queue_t const* queue) {
    return queue->fd();
}

ssize_t o_msg_recv(o_msg_queue_t* queue, o_msg_t* message) {
    if (!queue || !message || message->count > O_MSG_MAX_PARTS) {
        errno = EINVAL;
        return -1;
    }
    orn::internal::CancelShield const shield;
    message->fd = -1;
    message->owned = 0;
    return queue->receive(*message);
}

} // extern "C"
