// SPDX-License-Identifier: MIT
//
// Message queues between real processes; most cases have a child at one end, or a bare socket.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <orn/os/Pipe.hpp>
#include <orn/os/o_msg.h>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {
using orn::os::Pipe;
using Clock = std::chrono::steady_clock;

constexpr uid_t nobody = 65534;
constexpr uid_t somebody = 65533;

int scaled(int ms) {
    char const* scale = std::getenv("ZEL_TEST_SCALE");
    return ms * (scale != nullptr ? std::max(1, static_cast<int>(std::strtol(scale, nullptr, 10))) : 1);
}

std::vector<int> open_descriptors() {
    std::vector<int> found;
    DIR* const directory = ::opendir("/proc/self/fd");
    while (dirent const* entry = ::readdir(directory)) {
        int const fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (entry->d_name[0] != '.' && fd != ::dirfd(directory)) {
            found.push_back(fd);
        }
    }
    ::closedir(directory);
    return found;
}

bool readable(int fd, int timeoutMs) {
    pollfd watched = {fd, POLLIN, 0};
    return ::poll(&watched, 1, timeoutMs) == 1; // at a hang-up, too
}

std::string name_of(pid_t process) {
    return "test." + std::to_string(process);
}

// A process that ends with status 0 when its body returns true, and in any case with this one.
class Child {
public:
    explicit Child(std::function<bool()> const& body) : pid_(::fork()) {
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::_exit(body() ? 0 : 1);
        }
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;

    pid_t pid() const { return pid_; }
    bool running() const { return ::waitpid(pid_, nullptr, WNOHANG) == 0; }
    bool succeeded() {
        int status = -1;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t pid_;
};

// One process waits for the other.
class Gate {
public:
    int fd() const { return pipe_.ReadFD(); }
    void open() const { EXPECT_EQ(::write(pipe_.WriteFD(), "x", 1), 1); }
    bool wait() const {
        char byte = 0;
        return readable(pipe_.ReadFD(), scaled(20000)) && ::read(pipe_.ReadFD(), &byte, 1) == 1;
    }

private:
    Pipe pipe_{true};
};

struct Message : o_msg_t {
    Message() : o_msg_t() {}
    Message(int aType, int const& number, std::string const& text, int aFd = 0) : o_msg_t() {
        type = aType;
        fd = aFd;
        count = 2;
        parts[0] = {const_cast<int*>(&number), sizeof number};
        parts[1] = {const_cast<char*>(text.data()), text.size()};
    }
    ~Message() { o_msg_release(this); }
    Message(Message const&) = delete;
    Message& operator=(Message const&) = delete;
};

bool send_to(std::string const& name, int type, int number, std::string const& text = "", int fd = 0) {
    Message const message(type, number, text, fd);
    return o_msg_send(name.c_str(), &message, 0) == o_msg_data_size(&message);
}

int refusal(std::string const& name, std::string const& text = "") {
    return send_to(name, 1, 0, text) ? 0 : errno;
}

// A queue that receives a number and a text.
class Inbox {
public:
    explicit Inbox(std::string const& name) : queue_(o_msg_create_queue(name.c_str(), O_MSG_EXCLUSIVE)) {}
    ~Inbox() { destroy(); }
    Inbox(Inbox const&) = delete;
    Inbox& operator=(Inbox const&) = delete;

    bool made() const { return queue_ != nullptr; }
    int fd() const { return o_msg_queue_fd(queue_); }
    void destroy() {
        if (queue_ != nullptr) {
            EXPECT_EQ(o_msg_destroy_queue(queue_), 0);
        }
        queue_ = nullptr;
    }

    bool take_waiting() {
        o_msg_release(&message);
        number = 0;
        message.count = 2;
        message.parts[0] = {&number, sizeof number};
        message.parts[1] = {nullptr, 0};
        return o_msg_recv(queue_, &message) >= 0;
    }
    bool take(int timeoutMs = scaled(20000)) {
        auto const end = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!take_waiting()) {
            if (errno != EAGAIN || Clock::now() > end || !readable(fd(), timeoutMs)) {
                return false;
            }
        }
        return true;
    }
    std::string text() const {
        return message.count < 2
                   ? "none"
                   : std::string(static_cast<char*>(message.parts[1].data), message.parts[1].length);
    }

    Message message;
    int number = 0;

private:
    o_msg_queue_t* queue_;
};

// ---------------------------------------------------------------- the bare socket

// As the receiver expects it.
struct Header {
    std::uint32_t magic = 0x6f6d7367;
    std::uint16_t version = 1;
    std::uint8_t parts = 1;
    std::uint8_t descriptors = 0;
    std::int32_t type = 5;
    std::uint32_t lengths[4] = {4, 0, 0, 0};
};

int bare_socket(std::string const& name, bool listens = false, int flags = 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const path = "orn.msg." + name;
    std::memcpy(address.sun_path + 1, path.data(), path.size());
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
    auto const* generic = reinterpret_cast<sockaddr const*>(&address);
    int const fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
    bool const made =
        listens ? ::bind(fd, generic, size) == 0 && ::listen(fd, 5) == 0 : ::connect(fd, generic, size) == 0;
    if (!made) {
        ::close(fd);
    }
    return made ? fd : -1;
}

bool bare_send(int socket, std::string const& bytes, std::vector<int> const& descriptors = {}) {
    iovec piece = {const_cast<char*>(bytes.data()), bytes.size()};
    msghdr packet{};
    packet.msg_iov = &piece;
    packet.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
    if (!descriptors.empty()) {
        packet.msg_control = control.data();
        packet.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&packet);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
    }
    return ::sendmsg(socket, &packet, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string packet_of(Header const& header, std::size_t dataSize = 4) {
    return std::string(reinterpret_cast<char const*>(&header), sizeof header) + std::string(dataSize, 'd');
}

void send_bare_packet(std::string const& name, std::string const& bytes,
                      std::vector<int> const& descriptors = {}) {
    int const socket = bare_socket(name);
    ASSERT_GE(socket, 0);
    bare_send(socket, bytes, descriptors);
    ::close(socket);
}

// ---------------------------------------------------------------- what is carried

TEST(PlatformMsg, MessagesArriveWholeInTheirOrderUpToTheLimit) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    ASSERT_TRUE(inbox.made());
    ::mallopt(M_PERTURB, 'p'); // no NUL byte by chance
    EXPECT_FALSE(inbox.take_waiting());
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(readable(inbox.fd(), 0));

    std::string const largest(O_MSG_MAX_SIZE - sizeof(int), 'x');
    Child child([&] {
        int const self = ::getpid();
        Message onePart(1, self, "");
        onePart.count = 1;
        return o_msg_send(name.c_str(), &onePart, 0) == sizeof(int) && send_to(name, 2, 10, "no end") &&
               send_to(name, -7, 11, std::string("a\0b\0", 4)) && send_to(name, 2, 12) &&
               refusal(name, largest + "x") == EMSGSIZE && send_to(name, 2, 13, largest);
    });
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, child.pid());
    EXPECT_EQ(inbox.message.count, 1u);
    EXPECT_EQ(inbox.message.type, 1);
    EXPECT_EQ(inbox.message.fd, -1);
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 10);
    EXPECT_STREQ(static_cast<char*>(inbox.message.parts[1].data), "no end");
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.message.type, -7);
    EXPECT_EQ(inbox.text(), std::string("a\0b\0", 4));
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 12);
    EXPECT_EQ(inbox.text(), "");
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 13);
    EXPECT_EQ(inbox.text(), largest);
    EXPECT_TRUE(child.succeeded());
    EXPECT_FALSE(readable(inbox.fd(), 0));
}

TEST(PlatformMsg, OneDescriptorGoesAlongAndEveryOneIsCloseOnExec) {
    auto const before = open_descriptors();
    std::string const name = name_of(::getpid());
    {
        Inbox inbox(name);
        Child child([&] {
            Pipe answers(true);
            char text[3] = "";
            return send_to(name, 1, 0, "", answers.WriteFD()) && send_to(name, 2, 0, "", 0) &&
                   readable(answers.ReadFD(), scaled(20000)) && ::read(answers.ReadFD(), text, 2) == 2 &&
                   std::string(text) == "hi";
        });
        int const parked = bare_socket(name);
        ASSERT_TRUE(inbox.take());
        ASSERT_GT(inbox.message.fd, 2);
        for (int fd : open_descriptors()) {
            if (std::find(before.begin(), before.end(), fd) == before.end()) {
                EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << fd;
            }
        }
        int const answer = inbox.message.fd;
        inbox.message.fd = -1; // taken over
        ASSERT_TRUE(inbox.take());
        EXPECT_EQ(inbox.message.fd, -1) << "standard input was given away";
        EXPECT_EQ(::write(answer, "hi", 2), 2);
        EXPECT_TRUE(child.succeeded());
        ::close(answer);
        ::close(parked);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(PlatformMsg, TenThousandMessagesKeepTheirOrderAndLeaveMemoryFlat) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    Child child([&] {
        Pipe pipe(true);
        for (int i = 0; i < 10000; ++i) {
            if (!send_to(name, 2, i, std::string(static_cast<std::size_t>(i % 300), 'x'),
                         i % 2 == 0 ? pipe.WriteFD() : 0)) {
                return false;
            }
        }
        return true;
    });
    std::size_t settled = 0;
    std::size_t descriptors = 0;
    for (int i = 0; i < 10000; ++i) {
        ASSERT_TRUE(inbox.take()) << i;
        ASSERT_EQ(inbox.number, i);
        if (i % 1000 == 500) {
            descriptors = std::max(descriptors, open_descriptors().size());
            if (i == 500) {
                settled = ::mallinfo2().uordblks;
            }
        }
    }
    EXPECT_TRUE(child.succeeded());
    EXPECT_LT(::mallinfo2().uordblks, settled + 4096);
    EXPECT_LE(descriptors, open_descriptors().size() + 2);
}

// ---------------------------------------------------------------- who is trusted

TEST(PlatformMsg, ASenderOfAnotherUserIsTurnedAway) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    Gate taken;
    Child stranger([&] {
        Pipe pipe(true);
        bool sent = ::setuid(nobody) == 0 && send_to(name, 2, 666, "", pipe.WriteFD());
        taken.open();
        while (sent) {
            send_to(name, 2, 667); // which may find the other end closed already
        }
        return false;
    });
    ASSERT_TRUE(taken.wait());
    auto const before = open_descriptors();
    Child owner([&] {
        int sent = 0;
        while (sent < 50 && send_to(name, 2, sent)) {
            ++sent;
        }
        return sent == 50;
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(inbox.take());
        EXPECT_EQ(inbox.number, i);
    }
    EXPECT_TRUE(owner.succeeded());
    EXPECT_TRUE(stranger.running());
    EXPECT_EQ(open_descriptors(), before);
}

TEST(PlatformMsg, AProcessWithBorrowedRightsServesAndTrustsRootAlone) {
    bool const root = ::geteuid() == 0;
    auto const become = [](int dumpable) {
        return (::geteuid() != 0 || ::setuid(nobody) == 0) && ::prctl(PR_SET_DUMPABLE, dumpable) == 0;
    };
    Gate ready, sent;
    Child other([&] {
        bool const plain = become(1);
        Inbox inbox(name_of(::getpid()));
        ready.open();
        bool const served = plain && inbox.take() && inbox.number == 1 && become(0);
        ready.open();
        return served && sent.wait() && (root ? inbox.take() && inbox.number == 3 : !inbox.take_waiting());
    });
    std::string const name = name_of(other.pid());
    Child sender([&] {
        return become(1) && ready.wait() && send_to(name, 2, 1) && ready.wait() && send_to(name, 2, 2) &&
               become(0) && refusal(name) == EACCES;
    });
    EXPECT_TRUE(sender.succeeded());
    EXPECT_TRUE(!root || send_to(name, 2, 3));
    sent.open();
    EXPECT_TRUE(other.succeeded());
}

TEST(PlatformMsg, AQueueOfAnotherProcessUnderTheNameOfThisOneGetsNothing) {
    Gate ready;
    Gate sent;
    Child impostor([&, victim = ::getpid()] {
        Inbox inbox(name_of(victim));
        Inbox honest("test.x." + std::to_string(::getpid()));
        ready.open();
        return inbox.made() && honest.made() && sent.wait() && !inbox.take_waiting() && honest.take();
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_EQ(refusal(name_of(::getpid())), EACCES);
    EXPECT_EQ(refusal("test.x." + std::to_string(impostor.pid())), 0);
    EXPECT_EQ(refusal("test.99999999999999999999"), ECONNREFUSED);
    sent.open();
    EXPECT_TRUE(impostor.succeeded());
}

TEST(PlatformMsg, QueuesOfOtherUsersAreForRootAloneAndOnlyByProcess) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    std::string const unnumbered = "test.of-anybody-" + std::to_string(::getpid());
    Gate ready;
    Gate sent;
    Child other([&] {
        bool const dropped = ::setuid(nobody) == 0;
        Inbox inbox(name_of(::getpid()));
        Inbox anybody(unnumbered);
        ready.open();
        return dropped && sent.wait() && inbox.take() && !inbox.take_waiting() && !anybody.take_waiting();
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_EQ(refusal(name_of(other.pid())), 0);
    EXPECT_EQ(refusal(unnumbered), EACCES);
    Child third([&] { return ::setuid(somebody) == 0 && refusal(name_of(other.pid())) == EACCES; });
    EXPECT_TRUE(third.succeeded());
    sent.open();
    EXPECT_TRUE(other.succeeded());

    // A listener that outlives the process it carries the id of, which the system may give to another one.
    Child ended([&] {
        bool const dropped = ::setuid(nobody) == 0;
        int const listener = bare_socket(name_of(::getpid()), true);
        if (::fork() == 0) {
            ready.open();
            sent.wait();
            ::_exit(0);
        }
        return dropped && listener >= 0;
    });
    pid_t const id = ended.pid();
    ASSERT_TRUE(ready.wait());
    EXPECT_TRUE(ended.succeeded());
    EXPECT_EQ(refusal(name_of(id)), EACCES);
    sent.open();
}

// ---------------------------------------------------------------- what is no message

TEST(PlatformMsg, WhatIsNoMessageIsDroppedWholeAndTheNextOneIsServed) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    Pipe pipe(true);
    int const fd = pipe.WriteFD();
    auto const before = open_descriptors();
    auto const drops = [&](char const* what, std::string const& bytes,
                           std::vector<int> const& descriptors = {}) {
        send_bare_packet(name, bytes, descriptors);
        ASSERT_TRUE(send_to(name, 77, 1)) << what;
        ASSERT_TRUE(inbox.take()) << what;
        EXPECT_EQ(inbox.message.type, 77) << what;
        EXPECT_FALSE(readable(inbox.fd(), 0)) << what;
        EXPECT_EQ(open_descriptors(), before) << what;
    };
    auto const changed = [](auto change) {
        Header header;
        change(header);
        return header;
    };
    Header const good;

    drops("a connection that ends", "");
    drops("a cut header", packet_of(good).substr(0, sizeof good - 1), {fd});
    drops("no data", packet_of(good, 0));
    drops("too little data", packet_of(good, 3));
    drops("too much data", packet_of(good, 5));
    drops("another magic", packet_of(changed([](Header& h) { h.magic = 1; })));
    drops("another version", packet_of(changed([](Header& h) { h.version = 2; })));
    drops("too many parts", packet_of(changed([](Header& h) { h.parts = 5; })));
    drops("data beyond the parts", packet_of(changed([](Header& h) { h.lengths[1] = 3; }), 7));
    auto const twoParts = [&](std::uint32_t second) {
        return changed([&](Header& h) {
            h.parts = 2;
            h.lengths[1] = second;
        });
    };
    drops("lengths that wrap", packet_of(twoParts(0xfffffffc), 0));
    drops("data beyond the limit", packet_of(twoParts(O_MSG_MAX_SIZE), O_MSG_MAX_SIZE + 4));
    drops("data that is cut at the limit", packet_of(twoParts(O_MSG_MAX_SIZE - 4), O_MSG_MAX_SIZE + 4));
    drops("a missing descriptor", packet_of(changed([](Header& h) { h.descriptors = 1; })));
    drops("an extra descriptor", packet_of(good), {fd});
    for (std::size_t count : {2u, 3u, 100u}) {
        auto const claimed = changed([&](Header& h) { h.descriptors = static_cast<std::uint8_t>(count); });
        drops("several descriptors", packet_of(claimed), std::vector<int>(count, fd));
        drops("several descriptors for one", packet_of(changed([](Header& h) { h.descriptors = 1; })),
              std::vector<int>(count, fd));
    }
    drops("no parts", packet_of(changed([](Header& h) { h.parts = 0, h.lengths[0] = 0; }), 0));
    drops("a short number", packet_of(changed([](Header& h) { h.lengths[0] = 3; }), 3));
    drops("a long number", packet_of(changed([](Header& h) { h.lengths[0] = 5; }), 5));
    drops("more parts than offered", packet_of(changed([](Header& h) { h.parts = 3; })));

    send_bare_packet(name, packet_of(good)); // or none of the above would have shown anything
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.message.type, 5);
}

TEST(PlatformMsg, RandomPacketsNeitherLeakNorStopTheQueue) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    Pipe pipe(true);
    auto const before = open_descriptors();
    std::mt19937 random(20240607);
    auto const below = [&random](std::size_t limit) { return random() % limit; };
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = packet_of(Header(), below(3) == 0 ? below(3000) : 4);
        for (std::size_t changes = below(4); changes > 0; --changes) {
            bytes[below(8) == 0 ? below(bytes.size()) : below(sizeof(Header))] ^=
                static_cast<char>(1u << below(8));
        }
        bytes.resize(below(6) == 0 ? below(bytes.size()) : bytes.size());
        send_bare_packet(name, bytes, std::vector<int>(below(4) == 0 ? below(4) : 0, pipe.WriteFD()));
        ASSERT_TRUE(send_to(name, 77, round));
        do {
            ASSERT_TRUE(inbox.take());
        } while (inbox.message.type != 77);
        ASSERT_EQ(inbox.number, round);
        ASSERT_EQ(open_descriptors(), before);
    }
}

// ---------------------------------------------------------------- slow, stopped and dead partners

TEST(PlatformMsg, AMessageThatComesLateKeepsItsPlaceAndOldSilenceGivesWay) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    auto const before = open_descriptors();
    int const late = bare_socket(name);
    EXPECT_FALSE(inbox.take_waiting());
    EXPECT_FALSE(readable(inbox.fd(), 0));
    bare_send(late, packet_of(Header()));
    ::close(late);
    ASSERT_TRUE(send_to(name, 2, 2));
    EXPECT_TRUE(readable(inbox.fd(), 0));
    ASSERT_TRUE(inbox.take_waiting());
    EXPECT_EQ(inbox.message.type, 5);
    ASSERT_TRUE(inbox.take_waiting());
    EXPECT_EQ(inbox.number, 2);

    std::vector<int> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(bare_socket(name));
        EXPECT_FALSE(inbox.take_waiting());
    }
    EXPECT_FALSE(readable(inbox.fd(), 0));
    EXPECT_LT(open_descriptors().size(), before.size() + 100 + 40);
    ASSERT_TRUE(send_to(name, 2, 3));
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 3);
    silent.push_back(bare_socket(name));
    EXPECT_FALSE(inbox.take_waiting());
    EXPECT_FALSE(bare_send(silent.front(), packet_of(Header())));
    auto const kept = std::count_if(silent.begin() + 1, silent.end(),
                                    [](int fd) { return bare_send(fd, packet_of(Header())); });
    EXPECT_GT(kept, 10);
    ASSERT_TRUE(send_to(name, 2, 4)); // no room for its connection, but none whose message is there may go
    for (auto i = kept; i > 0; --i) {
        ASSERT_TRUE(inbox.take());
        EXPECT_EQ(inbox.message.type, 5);
    }
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 4);
    for (int i = 0; i < 10; ++i) {
        silent.push_back(bare_socket(name));
        EXPECT_FALSE(inbox.take_waiting());
    }
    for (int fd : silent) { // as when their processes die
        ::close(fd);
    }
    EXPECT_TRUE(readable(inbox.fd(), 0));
    EXPECT_FALSE(inbox.take_waiting());
    EXPECT_FALSE(readable(inbox.fd(), 0));
    EXPECT_EQ(open_descriptors(), before);
}

extern "C" void* send_until_cancelled(void* name) {
    for (;;) {
        send_to(*static_cast<std::string*>(name), 2, 0);
    }
}

TEST(PlatformMsg, AStoppedReceiverHoldsSendersForAboutASecond) {
    Child receiver([] {
        Inbox inbox(name_of(::getpid()));
        ::raise(SIGSTOP);
        int expected = 0;
        while (inbox.take() && inbox.number == expected) {
            ++expected;
        }
        return inbox.number == -1 && expected > 0;
    });
    int status = 0;
    ASSERT_EQ(::waitpid(receiver.pid(), &status, WUNTRACED), receiver.pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    std::string name = name_of(receiver.pid());

    // Signals come all the time, and must neither fail the call nor make it wait afresh.
    struct sigaction quiet {};
    quiet.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &quiet, nullptr);
    itimerval const often = {{0, 20000}, {0, 20000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    int sent = 0;
    auto start = Clock::now();
    while (send_to(name, 2, sent)) {
        ++sent;
        start = Clock::now();
    }
    EXPECT_EQ(errno, EAGAIN);
    auto const waited = Clock::now() - start;
    itimerval const never = {};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(refusal(name), EAGAIN);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LE(waited, std::chrono::milliseconds(scaled(3000)));
    EXPECT_GT(sent, 10);
    EXPECT_LT(sent, 1000) << "what piles up is bounded";

    auto const before = open_descriptors();
    for (int i = 0; i < 3; ++i) {
        pthread_t thread{};
        void* result = nullptr;
        ASSERT_EQ(::pthread_create(&thread, nullptr, send_until_cancelled, &name), 0);
        while (open_descriptors() == before) { // until it has its socket
            ::sched_yield();
        }
        int error = EAGAIN; // while others of this user have all room for waiting signals
        while (error == EAGAIN) {
            error = ::pthread_cancel(thread);
        }
        ASSERT_EQ(error, 0);
        ASSERT_EQ(::pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(open_descriptors(), before);
    }

    ::kill(receiver.pid(), SIGCONT);
    EXPECT_TRUE(send_to(name, 2, -1));
    EXPECT_TRUE(receiver.succeeded());
    EXPECT_EQ(refusal(name), ECONNREFUSED);
}

TEST(PlatformMsg, ASenderOutlastsABacklogInWhichOthersAreQuicker) {
    std::string const name = name_of(::getpid());
    int const listener = bare_socket(name, true);
    auto const crowd = [&] { // takes every place that is free
        while (bare_socket(name, false, SOCK_NONBLOCK) >= 0) {
        }
    };
    crowd();
    // A place becomes free again and again, and is gone before the sender runs: both have one processor,
    // which a batch process does not take from another when it wakes up.
    cpu_set_t here{};
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &here);
    ::sched_setaffinity(0, sizeof here, &here);
    Child sender([&] {
        sched_param const none = {};
        ::sched_setscheduler(0, SCHED_BATCH, &none);
        return send_to(name, 2, 7);
    });
    for (int i = 0; i < 32; ++i) { // longer than a sender waits for a receiver that has stopped
        EXPECT_LT(0, ::accept(listener, nullptr, nullptr));
        crowd();
        ::poll(nullptr, 0, 50);
    }
    while (readable(listener, 0)) {
        EXPECT_LT(0, ::accept(listener, nullptr, nullptr)); // not closed: it may be the sender's
    }
    EXPECT_TRUE(sender.succeeded());
}

TEST(PlatformMsg, WithoutDescriptorsTheQueueIsQuietAndLosesNothing) {
    std::string const name = name_of(::getpid());
    Inbox inbox(name);
    ASSERT_TRUE(send_to(name, 2, 1));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(::fcntl(inbox.fd(), F_DUPFD, 0)); // the lowest that is free
    ::close(static_cast<int>(none.rlim_cur));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(readable(inbox.fd(), scaled(5000)));
        EXPECT_FALSE(inbox.take_waiting());
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_FALSE(readable(inbox.fd(), 0)) << "the loop would spin";
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_TRUE(inbox.take());
    EXPECT_EQ(inbox.number, 1);
    EXPECT_FALSE(readable(inbox.fd(), 200)) << "the pause has ended";
}

// ---------------------------------------------------------------- beginnings and ends

TEST(PlatformMsg, AChildOfForkHasNoneOfItsParentsQueues) {
    std::string const name = name_of(::getpid());
    auto inbox = std::make_unique<Inbox>(name);
    int const silent = bare_socket(name);
    EXPECT_FALSE(inbox->take_waiting());
    Gate checked;
    Gate end;
    Child child([&] {
        Message message;
        bool const closed = inbox->fd() == -1 && o_msg_recv(nullptr, &message) == -1 &&
                            !inbox->take_waiting() && errno == EBADF;
        bool const own = Inbox(name_of(::getpid())).made();
        ::close(silent);
        checked.open();
        bool const told = end.wait();
        inbox->destroy();
        return closed && own && told;
    });
    ASSERT_TRUE(checked.wait());
    ASSERT_TRUE(send_to(name, 2, 1));
    EXPECT_TRUE(inbox->take());
    ::close(silent);
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(readable(inbox->fd(), 0)) << "the child's copy of the connection hangs on";
    inbox = std::make_unique<Inbox>("test.other");
    EXPECT_EQ(refusal(name), ECONNREFUSED) << "the child keeps the name";
    end.open();
    EXPECT_TRUE(child.succeeded());
}

TEST(PlatformMsg, DestroyingAQueueClosesWhatWaitsInItAndFreesItsName) {
    std::string const name = name_of(::getpid());
    auto const before = open_descriptors();
    for (int round = 0; round < 100; ++round) {
        Inbox inbox(name);
        ASSERT_TRUE(inbox.made());
        EXPECT_FALSE(Inbox(name).made());
        EXPECT_EQ(errno, EADDRINUSE);
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        int const parked = bare_socket(name);
        ASSERT_TRUE(send_to(name, 1, 1, "", ends[1]));
        ASSERT_TRUE(send_to(name, 1, 2, "", ends[1]));
        ASSERT_TRUE(inbox.take());
        o_msg_release(&inbox.message);
        inbox.destroy();
        ::close(ends[1]);
        ::close(parked);
        char byte = 0;
        ASSERT_TRUE(readable(ends[0], 0)) << "somebody still holds the write end";
        EXPECT_EQ(::read(ends[0], &byte, 1), 0);
        ::close(ends[0]);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(refusal(name), ECONNREFUSED);
}

TEST(PlatformMsg, CallsThatMakeNoSenseAreRefused) {
    EXPECT_EQ(o_msg_create_queue("test.flags", 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(Inbox("").made());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(Inbox(std::string(99, 'n')).made());
    EXPECT_FALSE(Inbox(std::string(100, 'n')).made());
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(o_msg_destroy_queue(nullptr), -1);

    std::string const text = "text";
    int const number = 1;
    Message message(1, number, text);
    EXPECT_EQ(o_msg_data_size(&message), 8);
    message.parts[1].data = nullptr;
    EXPECT_EQ(o_msg_data_size(&message), -1);
    message.parts[1] = {&message, SIZE_MAX};
    EXPECT_EQ(o_msg_data_size(&message), -1);
    message.count = O_MSG_MAX_PARTS + 1;
    EXPECT_EQ(o_msg_data_size(&message), -1);
    EXPECT_EQ(o_msg_send("test.flags", &message, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
