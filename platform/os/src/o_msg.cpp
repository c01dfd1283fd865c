// SPDX-License-Identifier: MIT
//
// Message queues over local sockets that keep message boundaries. Internal: the interface and its promises
// are in o_msg.h.
//
// A queue listens in the abstract namespace. Each message has a connection of its own, since only connections
// show either side whom it talks to:
//
//     sender      connect, look at the listener's credentials, one packet, close
//     receiver    accept, look at the sender's credentials, one packet, close
//
// A packet is a WireHeader and the data of all parts, with the descriptor as SCM_RIGHTS. Accepted connections
// whose packet is not there yet are kept, few of them and the oldest for so long only as there is room.
#include <orn/os/o_msg.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <orn/cancel.hpp>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char address_prefix[] = "orn.msg.";
constexpr std::int64_t send_limit_ms = 1000;
// While others are let in. Were it for ever, a flood would hold the caller's loop for ever.
constexpr std::int64_t crowded_limit_ms = 10000;
constexpr long accept_pause_ms = 100;
// What a stopped receiver lets pile up: kernel memory that any local user can fill.
constexpr int backlog = 64;
constexpr std::size_t pending_limit = 32;
// Connections looked at by one call: a flood of useless ones must not keep the caller's loop from turning.
// Strangers are dropped in a row, since they must not come faster than they go, but no more than take some
// milliseconds.
constexpr int connections_per_call = 64;
constexpr int strangers_per_call = 1024;
// From here on it is worth asking for the room, which a small device's default may not have.
constexpr ssize_t large_size = 64 * 1024;

struct WireHeader {
    std::uint32_t magic;
    std::uint16_t version;
    std::uint8_t parts;
    std::uint8_t descriptors;
    std::int32_t type;
    std::uint32_t lengths[O_MSG_MAX_PARTS]; // 0 beyond parts
};
// Both sides are of one machine, but not always of one word size.
static_assert(sizeof(WireHeader) == 28, "no padding");

constexpr std::uint32_t wire_magic = 0x6f6d7367;
constexpr std::uint16_t wire_version = 1;
constexpr unsigned owned_fd = 1u << O_MSG_MAX_PARTS; // in o_msg_t::owned, above the bits of the parts

// ---------------------------------------------------------------- descriptors

// Closes what it holds and leaves errno alone: it goes out of scope on the way from a failure to its report.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    bool open() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        int const old = fd_;
        fd_ = fd;
        if (old >= 0) {
            orn::internal::CancelShield const shield;
            int const error = errno;
            close(old);
            errno = error;
        }
    }

private:
    int fd_;
};

template <typename Call>
auto unless_interrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// ---------------------------------------------------------------- names and who is behind them

struct Address {
    sockaddr_un name;
    socklen_t size;
};

bool make_address(char const* name, Address& address) {
    if (name == nullptr || *name == '\0') {
        errno = EINVAL;
        return false;
    }
    std::size_t const prefix = sizeof address_prefix - 1;
    std::size_t const length = std::strlen(name);
    address.name = {};
    if (length > sizeof address.name.sun_path - 1 - prefix) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.name.sun_family = AF_UNIX;
    // The leading NUL byte stays: the abstract namespace.
    std::memcpy(address.name.sun_path + 1, address_prefix, prefix);
    std::memcpy(address.name.sun_path + 1 + prefix, name, length);
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + prefix + length);
    return true;
}

sockaddr const* generic(Address const& address) {
    return reinterpret_cast<sockaddr const*>(&address.name);
}

// The number after the name's last dot. One too large for any process stays too large.
std::optional<std::int64_t> process_asked_for(char const* name) {
    char const* digit = std::strrchr(name, '.');
    if (digit == nullptr || *++digit == '\0')
        return std::nullopt;
    std::int64_t number = 0;
    for (; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9')
            return std::nullopt;
        number = number > INT32_MAX ? number : number * 10 + (*digit - '0');
    }
    return number;
}

std::optional<ucred> peer_of(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    return peer;
}

// Whether the process that has this id now runs as that user.
bool runs_as(pid_t process, uid_t user) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(process));
    Descriptor const status(open(path, O_RDONLY | O_CLOEXEC));
    char text[1024]; // the line is among the first ten
    ssize_t const size = unless_interrupted([&] { return read(status.get(), text, sizeof text - 1); });
    if (size < 0)
        return false;
    text[size] = '\0';
    char* at = std::strstr(text, "\nUid:\t"); // real, effective, ...
    if (at == nullptr)
        return false;
    std::strtoul(at + std::strlen("\nUid:\t"), &at, 10);
    return std::strtoul(at, nullptr, 10) == user;
}

// Whether this process may do more than the user that it runs as: a set-user-ID or set-group-ID program, one
// with capabilities of its file's, one that has changed its user, or keeps others from looking into it. That
// user may not trace it, and must not steer it in any other way.
bool has_borrowed_rights() {
    return getauxval(AT_SECURE) != 0 || prctl(PR_GET_DUMPABLE) != 1;
}

// The kernel's word for who made the queue, which is not always who is meant: abstract names are anybody's to
// take. Nor is the id enough where users differ. A listener keeps the id of the process that made it after
// that has ended and the id has gone to another.
bool is_meant(int connection, char const* name) {
    auto const owner = peer_of(connection);
    if (!owner)
        return false;
    auto const process = process_asked_for(name);
    bool const found = process && *process > 0 && *process == owner->pid;
    uid_t const self = geteuid();
    bool const trusted =
        owner->uid == 0 || (!has_borrowed_rights() &&
                            (owner->uid == self || (self == 0 && found && runs_as(owner->pid, owner->uid))));
    if (trusted && (found || !process))
        return true;
    errno = EACCES;
    return false;
}

bool may_send_here(int connection) {
    auto const sender = peer_of(connection);
    return sender && (sender->uid == 0 || (sender->uid == geteuid() && !has_borrowed_rights()));
}

// ---------------------------------------------------------------- sending

std::int64_t now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// How often the calling thread has gone to sleep.
long sleeps_so_far() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

// Waits while the receiver's backlog is full. Signals do not lengthen the wait, but places that become free
// do, since the backlog then drains and others have merely been quicker: the system wakes a connect() for
// each, and sends it back to sleep when the place has gone.
bool connect_in_time(int socket, Address const& address) {
    // The socket does not block at first: mostly there is room, and nothing has to be waited for or measured.
    if (connect(socket, generic(address), address.size) == 0)
        return true;
    if (errno != EAGAIN || fcntl(socket, F_SETFL, 0) != 0)
        return false;
    std::int64_t const last = now_us() + crowded_limit_ms * 1000;
    std::int64_t end = now_us() + send_limit_ms * 1000;
    for (;;) {
        std::int64_t const now = now_us();
        std::int64_t const left = std::min(end, last) - now;
        if (left <= 0) { // as a time-out 0 would be for ever
            errno = EAGAIN;
            return false;
        }
        timeval limit{};
        limit.tv_sec = static_cast<time_t>(left / 1000000);
        limit.tv_usec = static_cast<suseconds_t>(left % 1000000);
        if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
            return false;
        long const sleeps = sleeps_so_far();
        if (connect(socket, generic(address), address.size) == 0)
            return true;
        if (errno != EINTR && errno != EAGAIN)
            return false;
        if (sleeps_so_far() > sleeps + 1) // one is the wait itself
            end = now_us() + send_limit_ms * 1000;
    }
}

bool send_packet(int socket, o_msg_t const& message, ssize_t size) {
    if (size > large_size) {
        int const room = 2 * O_MSG_MAX_SIZE;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room); // if it is refused, sending tells
    }
    WireHeader header{};
    header.magic = wire_magic;
    header.version = wire_version;
    header.parts = static_cast<std::uint8_t>(message.count);
    header.descriptors = message.fd > 0 ? 1 : 0;
    header.type = message.type;
    iovec pieces[1 + O_MSG_MAX_PARTS] = {{&header, sizeof header}};
    for (unsigned i = 0; i < message.count; ++i) {
        header.lengths[i] = static_cast<std::uint32_t>(message.parts[i].length);
        pieces[1 + i] = {message.parts[i].data, message.parts[i].length};
    }
    msghdr packet{};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 1 + message.count;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (message.fd > 0) {
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
        cmsghdr* const rights = CMSG_FIRSTHDR(&packet);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &message.fd, sizeof(int));
    }
    return unless_interrupted([&] { return sendmsg(socket, &packet, MSG_NOSIGNAL); }) >= 0;
}

// ---------------------------------------------------------------- receiving

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

enum class Outcome { nothing_yet, dropped, out_of_memory, received };

// Everything that came along is closed unless it is the one descriptor that is allowed. More than one may
// arrive: the room for one has padding that the kernel uses.
unsigned take_descriptors(msghdr& packet, Descriptor& first) {
    unsigned count = 0;
    for (cmsghdr* item = CMSG_FIRSTHDR(&packet); item != nullptr; item = CMSG_NXTHDR(&packet, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS)
            continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= item->cmsg_len; at += sizeof(int)) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(item) + at, sizeof fd);
            first.reset(fd);
            ++count;
        }
    }
    return count;
}

bool adds_up(WireHeader const& header, std::size_t data_size, unsigned descriptors) {
    if (header.magic != wire_magic || header.version != wire_version || header.parts > O_MSG_MAX_PARTS ||
        header.descriptors != descriptors || descriptors > 1)
        return false;
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < O_MSG_MAX_PARTS; ++i) {
        if (i >= header.parts && header.lengths[i] != 0)
            return false;
        sum += header.lengths[i];
    }
    return sum == data_size;
}

bool fits(WireHeader const& header, o_msg_t const& offer) {
    for (unsigned i = 0; i < offer.count; ++i) {
        bool const filled = i < header.parts && header.lengths[i] == offer.parts[i].length;
        if (offer.parts[i].data != nullptr && !filled)
            return false;
    }
    return header.parts <= offer.count;
}

Outcome deliver(WireHeader const& header, unsigned char const* data, Descriptor fd, o_msg_t& to) {
    std::unique_ptr<unsigned char, Free> allocated[O_MSG_MAX_PARTS];
    for (unsigned i = 0; i < header.parts; ++i) {
        if (to.parts[i].data == nullptr) {
            allocated[i].reset(static_cast<unsigned char*>(std::malloc(header.lengths[i] + std::size_t{1})));
            if (!allocated[i])
                return Outcome::out_of_memory;
            allocated[i].get()[header.lengths[i]] = 0;
        }
    }
    for (unsigned i = 0; i < header.parts; ++i) {
        if (allocated[i]) {
            to.parts[i].data = allocated[i].release();
            to.owned |= 1u << i;
        }
        std::memcpy(to.parts[i].data, data, header.lengths[i]);
        to.parts[i].length = header.lengths[i];
        data += header.lengths[i];
    }
    to.type = header.type;
    to.count = header.parts;
    if (fd.open()) {
        to.fd = fd.release();
        to.owned |= owned_fd;
    }
    return Outcome::received;
}

// buffer holds O_MSG_MAX_SIZE bytes.
Outcome receive_packet(int connection, unsigned char* buffer, o_msg_t& to) {
    WireHeader header{};
    iovec pieces[] = {{&header, sizeof header}, {buffer, O_MSG_MAX_SIZE}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr packet{};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 2;
    packet.msg_control = control;
    packet.msg_controllen = sizeof control;
    ssize_t const size =
        unless_interrupted([&] { return recvmsg(connection, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC); });
    if (size < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? Outcome::nothing_yet : Outcome::dropped;
    Descriptor fd;
    unsigned const descriptors = take_descriptors(packet, fd);
    auto const received = static_cast<std::size_t>(size);
    if ((packet.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || received < sizeof header ||
        !adds_up(header, received - sizeof header, descriptors) || !fits(header, to))
        return Outcome::dropped;
    return deliver(header, buffer, std::move(fd), to);
}

// Guards the list of queues, and holds fork() off while descriptors are made that a child must not keep. A
// leaf: nothing is called out to under it.
std::mutex queues_mutex;
o_msg_queue* queues = nullptr;

} // namespace

// What is polled is an epoll instance with all that recv() has to look at: the listener, the pending
// connections, and the timer that ends a pause.
struct o_msg_queue {
public:
    // All three under queues_mutex.
    bool open(char const* name);
    ~o_msg_queue();
    static void close_all_in_child();

    int fd() const { return events_.get(); }
    ssize_t receive(o_msg_t& to);

private:
    struct Connection {
        Descriptor socket;
        bool watched = false;
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
    epoll_event event{};
    event.events = EPOLLIN;
    return epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// Listens last, when messages can be received.
bool o_msg_queue::open(char const* name) {
    Address address;
    if (!make_address(name, address))
        return false;
    listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener_.open() || bind(listener_.get(), generic(address), address.size) != 0)
        return false;
    events_.reset(epoll_create1(EPOLL_CLOEXEC));
    pause_timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!events_.open() || !pause_timer_.open())
        return false;
    buffer_.reset(
        new (std::nothrow) unsigned char[O_MSG_MAX_SIZE]); // untouched, and so unmapped, beyond need
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
    for (o_msg_queue** at = &queues; *at != nullptr; at = &(*at)->next_) {
        if (*at == this) {
            *at = next_;
            break;
        }
    }
}

// A child that kept the listener would keep the name taken when its parent has ended, and with it messages
// that nobody receives. These descriptors never change while a queue lives, whatever its thread was doing.
void o_msg_queue::close_all_in_child() {
    for (o_msg_queue* queue = queues; queue != nullptr; queue = queue->next_) {
        queue->listener_.reset();
        queue->events_.reset();
        queue->pause_timer_.reset();
    }
}

// Without descriptors or memory the waiting connection can neither be taken nor sent away, and the listener
// stays readable: the loop would spin. It is looked at again after a while. Senders wait in the backlog.
void o_msg_queue::pause_accepting() {
    itimerspec after{};
    after.it_value.tv_nsec = accept_pause_ms * 1000000;
    epoll_event nothing{};
    if (timerfd_settime(pause_timer_.get(), 0, &after, nullptr) == 0 &&
        epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &nothing) == 0)
        paused_ = true;
}

void o_msg_queue::go_on_accepting() {
    std::uint64_t expired = 0;
    if (!paused_ || read(pause_timer_.get(), &expired, sizeof expired) < 0)
        return;
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &event);
    paused_ = false;
}

// The next connection of somebody who may send here; those of others on the way to it are dropped unread, up
// to the number that is left of them. False when nobody waits or nobody can be let in.
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

// Leaves the set first: where a child of fork() still has the socket, closing it here does not take it out,
// and a hung-up one would be reported for as long as the child lives.
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

// The oldest connection whose message is there. Of one sender's, an older message was there before a newer
// connection was, and that was accepted before the first look here: its messages keep their order.
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
    if (pending_count_ > 0) { // only the newest may not be watched yet
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
        if (pending_count_ == pending_limit) // or accepting would drop a message that is there
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

// Once, also when the loader runs constructors again during exit(): fork() would take the lock twice.
std::atomic<bool> fork_handled{false};

struct ForkHandlers {
    ForkHandlers() {
        if (fork_handled.exchange(true))
            return;
        pthread_atfork([] { queues_mutex.lock(); }, [] { queues_mutex.unlock(); },
                       [] {
                           o_msg_queue::close_all_in_child();
                           queues_mutex.unlock();
                       });
    }
};

ForkHandlers fork_handlers __attribute__((init_priority(101)));

} // namespace

extern "C" {

o_msg_queue_t* o_msg_create_queue(char const* name, int flags) {
    if (flags != O_MSG_EXCLUSIVE) {
        errno = EINVAL;
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(queues_mutex);
    std::unique_ptr<o_msg_queue> queue(new (std::nothrow) o_msg_queue);
    if (!queue) {
        errno = ENOMEM;
        return nullptr;
    }
    return queue->open(name) ? queue.release() : nullptr;
}

int o_msg_destroy_queue(o_msg_queue_t* queue) {
    if (queue == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::lock_guard<std::mutex> lock(queues_mutex);
    delete queue;
    return 0;
}

int o_msg_queue_fd(o_msg_queue_t const* queue) {
    return queue->fd();
}

ssize_t o_msg_data_size(o_msg_t const* message) {
    if (message == nullptr || message->count > O_MSG_MAX_PARTS) {
        errno = EINVAL;
        return -1;
    }
    std::size_t sum = 0;
    for (unsigned i = 0; i < message->count; ++i) {
        o_msg_part_t const& part = message->parts[i];
        if ((part.data == nullptr && part.length > 0) ||
            part.length > static_cast<std::size_t>(SSIZE_MAX) - sum) {
            errno = EINVAL;
            return -1;
        }
        sum += part.length;
    }
    return static_cast<ssize_t>(sum);
}

ssize_t o_msg_send(char const* name, o_msg_t const* message, int flags) {
    Address address;
    ssize_t const size = o_msg_data_size(message);
    if (size < 0 || !make_address(name, address))
        return -1;
    if (flags != 0 || size > O_MSG_MAX_SIZE) {
        errno = flags != 0 ? EINVAL : EMSGSIZE;
        return -1;
    }
    Descriptor const connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool const sent = connection.open() && connect_in_time(connection.get(), address) &&
                      is_meant(connection.get(), name) && send_packet(connection.get(), *message, size);
    return sent ? size : -1;
}

ssize_t o_msg_recv(o_msg_queue_t* queue, o_msg_t* message) {
    if (queue == nullptr || message == nullptr || message->count > O_MSG_MAX_PARTS) {
        errno = EINVAL;
        return -1;
    }
    orn::internal::CancelShield const shield;
    message->fd = -1;
    message->owned = 0;
    return queue->receive(*message);
}

void o_msg_release(o_msg_t* message) {
    for (unsigned i = 0; i < O_MSG_MAX_PARTS; ++i) {
        if ((message->owned & (1u << i)) != 0) {
            std::free(message->parts[i].data);
            message->parts[i] = {nullptr, 0};
        }
    }
    if ((message->owned & owned_fd) != 0) {
        Descriptor const unwanted(message->fd);
        message->fd = -1;
    }
    message->owned = 0;
}

} // extern "C"
