// SPDX-License-Identifier: MIT
//
// Message queues between real processes. Most cases have a child or a bare socket at one end.
#include <chrono>
#include <random>

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>

#include "support/Messages.hpp"

namespace {

int ends_to_report = 0; // by this many of the next calls of recvmsg()

ssize_t receive(decltype(recvmsg)* real, int socket, msghdr* message, int flags) {
    if (ends_to_report == 0)
        return real(socket, message, flags);
    --ends_to_report;
    message->msg_controllen = 0; // as the kernel leaves it
    return 0;
}

} // namespace

// The linker has the receiver's calls of recvmsg() come here. On 32 bits they have another name.
extern "C" {
decltype(recvmsg) __real_recvmsg;
[[gnu::weak]] decltype(recvmsg) __real___recvmsg64;

ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags) {
    return receive(__real_recvmsg, socket, message, flags);
}

ssize_t __wrap___recvmsg64(int socket, msghdr* message, int flags) {
    return receive(__real___recvmsg64, socket, message, flags);
}
}

namespace {

using namespace messages;
using orn::os::Pipe;
using support::descriptors;
using support::end_of;
using support::is_ready;
using support::scale;

uid_t const nobody = 65534;
uid_t const somebody = 65533;

// With a queue of its own, whose end leaves no descriptor behind.
class MsgQueue : public ::testing::Test {
protected:
    ~MsgQueue() override {
        inbox.reset();
        EXPECT_EQ(without_queue, descriptors());
    }

    std::set<int> const without_queue = descriptors();
    std::string const name = name_of(getpid());
    std::unique_ptr<Inbox> inbox{new Inbox(name)};
};

// ---- Who is trusted -------------------------------------------------------------------------------------

TEST_F(MsgQueue, drops_strangers_in_a_row_although_they_fill_it_and_keeps_the_order_of_its_owners_messages) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    Gate full, more;
    pid_t const stranger = child_that([&] {
        bool const sent = become(nobody) && send_to(name, 2, 666, "", STDOUT_FILENO);
        crowd(name);
        full.open();
        if (!sent || !more.wait())
            return false;
        for (;;)
            send_to(name, 2, 667); // which may find the other end closed already
    });
    ASSERT_TRUE(full.wait());
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN)) << "some are left for the next turn of the loop";
    more.open();
    pid_t const owner = child_that([&] {
        int sent = 0;
        while (sent < 1000 && send_to(name, 2, sent, std::string(static_cast<std::size_t>(sent), 'x')))
            ++sent;
        return sent == 1000;
    });
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(i, inbox->next());
    EXPECT_EQ("exit 0", end_of(owner));
    EXPECT_EQ(0, waitpid(stranger, nullptr, WNOHANG)) << "it had ended before the owner came";
    kill(stranger, SIGKILL); // before other cases are run in this process
}

TEST(Msg, goes_to_the_process_that_its_name_says_and_across_users_or_to_borrowed_rights_from_root_alone) {
    Gate ready, sent;
    std::string const own = name_of(getpid());
    pid_t const impostor = child_that([&] {
        Inbox inbox(own);
        Inbox honest(name_of(getpid()));
        ready.open();
        return inbox.made() && sent.wait() && !inbox.take_waiting() && honest.next() == 0;
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_EQ(EACCES, refusal(own));
    EXPECT_EQ(0, refusal(name_of(impostor)));
    EXPECT_EQ(ECONNREFUSED, refusal("test.99999999999999999999"));
    sent.open();
    EXPECT_EQ("exit 0", end_of(impostor));

    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    pid_t const other = child_that([&] {
        bool const dropped = become(nobody); // which makes this a process with borrowed rights
        std::string const name = name_of(getpid());
        Inbox numbered(name);
        Inbox unnumbered(own + ".of-anybody");
        ready.open();
        return dropped && sent.wait() && numbered.next() == 0 && !numbered.take_waiting() &&
               !unnumbered.take_waiting() && refusal(name) == EACCES && prctl(PR_SET_DUMPABLE, 1) == 0 &&
               refusal(name) == 0 && prctl(PR_SET_DUMPABLE, 0) == 0 && !numbered.take_waiting();
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_EQ(0, refusal(name_of(other)));
    EXPECT_EQ(EACCES, refusal(own + ".of-anybody"));
    pid_t const third = child_that([&] { return become(somebody) && refusal(name_of(other)) == EACCES; });
    EXPECT_EQ("exit 0", end_of(third));
    sent.open();
    EXPECT_EQ("exit 0", end_of(other));

    // A listener may outlive the process whose id it carries, and the system may give the id to another one.
    pid_t const ended = child_that([&] {
        bool const listens = become(nobody) && bare_socket(name_of(getpid()), true) >= 0;
        if (fork() == 0) {
            ready.open();
            sent.wait();
            _exit(0);
        }
        return listens;
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_EQ("exit 0", end_of(ended));
    EXPECT_EQ(EACCES, refusal(name_of(ended)));
    sent.open();
}

// ---- What is no message ---------------------------------------------------------------------------------

TEST_F(MsgQueue, drops_what_is_no_message_whole_and_serves_the_next_one) {
    auto const before = descriptors();
    int const limit = O_MSG_MAX_SIZE;
    struct {
        char const* what;
        int data;
        std::size_t descriptors;
        void (*change)(Header&);
    } const cases[] = {
        {"an empty packet", -static_cast<int>(sizeof(Header)), 0, [](Header&) {}},
        {"a cut header", -1, 1, [](Header&) {}},
        {"too little data", 3, 0, [](Header&) {}},
        {"another magic", 4, 0, [](Header& h) { h.magic = 1; }},
        {"another version", 4, 0, [](Header& h) { h.version = 2; }},
        {"too many parts", 4, 0, [](Header& h) { h.parts = 5; }},
        {"data beyond the parts", 7, 0, [](Header& h) { h.lengths[1] = 3; }},
        {"lengths that wrap", 0, 0, [](Header& h) { h.parts = 2, h.lengths[1] = 0xfffffffc; }},
        {"data cut at the limit", limit + 4, 0, [](Header& h) { h.parts = 2, h.lengths[1] = limit - 4; }},
        {"a missing descriptor", 4, 0, [](Header& h) { h.descriptors = 1; }},
        {"an extra descriptor", 4, 1, [](Header&) {}},
        {"two descriptors", 4, 2, [](Header& h) { h.descriptors = 2; }},
        {"two descriptors for one", 4, 2, [](Header& h) { h.descriptors = 1; }},
        {"many descriptors", 4, 100, [](Header& h) { h.descriptors = 100; }},
        {"no parts", 0, 0, [](Header& h) { h.parts = 0, h.lengths[0] = 0; }},
        {"a short number", 3, 0, [](Header& h) { h.lengths[0] = 3; }},
        {"more parts than offered", 4, 0, [](Header& h) { h.parts = 3; }},
    };
    for (auto const& each : cases) {
        Header header;
        each.change(header);
        send_bare_packet(name, packet_of(header, each.data), std::vector<int>(each.descriptors, 1));
        ASSERT_TRUE(send_to(name, 77, 1)) << each.what;
        ASSERT_EQ(1, inbox->next()) << each.what;
        EXPECT_EQ(77, inbox->message.type) << each.what;
        EXPECT_FALSE(is_ready(inbox->fd(), POLLIN)) << each.what;
        EXPECT_EQ(before, descriptors()) << each.what;
    }
    send_bare_packet(name, packet_of()); // or none of the above would have shown anything
    EXPECT_EQ(bare, inbox->next());
}

TEST_F(MsgQueue, neither_leaks_nor_stops_at_random_packets_and_carries_messages_whole) {
    mallopt(M_PERTURB, 'p'); // no NUL byte by chance
    auto const before = descriptors();
    std::mt19937 random(20240607);
    auto const below = [&random](std::size_t limit) { return random() % limit; };
    std::size_t settled = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = packet_of({}, below(3) == 0 ? static_cast<int>(below(3000)) : 4);
        for (std::size_t changes = below(4); changes > 0; --changes)
            bytes[below(below(8) == 0 ? bytes.size() : sizeof(Header))] ^= static_cast<char>(1u << below(8));
        bytes.resize(below(6) == 0 ? below(bytes.size()) : bytes.size());
        send_bare_packet(name, bytes, std::vector<int>(below(4) == 0 ? below(4) : 0, 1));
        ASSERT_TRUE(send_to(name, 77, round, bytes, round % 2));
        do
            ASSERT_NE(no_message, inbox->next());
        while (inbox->message.type != 77);
        ASSERT_EQ(round, inbox->number);
        ASSERT_EQ(bytes, inbox->text());
        ASSERT_EQ('\0', static_cast<char*>(inbox->message.parts[1].data)[bytes.size()]);
        int const fd = inbox->message.fd; // close-on-exec, and not this process's standard input
        ASSERT_EQ(round % 2 ? FD_CLOEXEC : -1, fcntl(fd, F_GETFD));
        o_msg_release(&inbox->message);
        ASSERT_EQ(before, descriptors());
        settled = round == 1000 ? mallinfo2().uordblks : settled;
    }
    EXPECT_LT(mallinfo2().uordblks, settled + 32768);
}

// The kernel does so when the sender sends and closes while the receiver looks: once in a million messages.
TEST_F(MsgQueue, takes_a_message_although_the_end_of_its_connection_is_reported_before_it) {
    ASSERT_TRUE(send_to(name, 2, 7, "", STDOUT_FILENO));
    ends_to_report = 1;
    EXPECT_EQ(7, inbox->next());
    EXPECT_NE(-1, inbox->message.fd) << "the descriptor came along";
    ASSERT_TRUE(send_to(name, 2, 8));
    ends_to_report = 2;
    EXPECT_FALSE(inbox->take_waiting()) << "an end that is reported twice is one";
}

// ---- Slow, stopped and dead partners --------------------------------------------------------------------

TEST_F(MsgQueue, keeps_the_place_of_who_is_late_until_newer_ones_need_it) {
    auto const before = descriptors();
    std::vector<int> silent;
    auto const connect_silently = [&](int count) {
        while (count-- > 0) {
            silent.push_back(bare_socket(name));
            EXPECT_FALSE(inbox->take_waiting());
        }
        EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
    };
    connect_silently(1);
    EXPECT_TRUE(bare_send(silent.front(), packet_of()));
    ASSERT_TRUE(send_to(name, 2, 2));
    EXPECT_TRUE(is_ready(inbox->fd(), POLLIN));
    EXPECT_EQ(bare, inbox->next());
    EXPECT_EQ(2, inbox->next());

    connect_silently(100);
    EXPECT_LT(descriptors().size(), before.size() + 101 + 40);
    EXPECT_FALSE(bare_send(silent[1], packet_of())) << "the oldest of them";
    auto const kept =
        std::count_if(silent.begin(), silent.end(), [](int fd) { return bare_send(fd, packet_of()); });
    EXPECT_GT(kept, 10);
    ASSERT_TRUE(send_to(name, 2, 4)); // no room for its connection, but none whose message is there may go
    for (auto i = kept; i > 0; --i)
        ASSERT_EQ(bare, inbox->next());
    EXPECT_EQ(4, inbox->next());
    connect_silently(10);
    for (int const fd : silent) // as when their processes die
        close(fd);
    EXPECT_TRUE(is_ready(inbox->fd(), POLLIN));
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
    EXPECT_EQ(before, descriptors());
}

// One that waits for room, and leaves nothing behind.
void cancel_a_sender(std::string name) {
    auto const before = descriptors();
    auto const send_until_cancelled = [](void* to) -> void* {
        for (;;)
            send_to(*static_cast<std::string*>(to), 2, 0);
    };
    pthread_t thread{};
    void* result = nullptr;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, send_until_cancelled, &name));
    EXPECT_TRUE(support::wait_until([&] { return descriptors() != before; })) << "it has no socket";
    // EAGAIN while others of this user have all room for waiting signals.
    EXPECT_TRUE(support::wait_until([&] { return pthread_cancel(thread) == 0; }));
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_EQ(before, descriptors());
}

TEST(Msg, waits_about_a_second_for_a_receiver_that_has_stopped) {
    pid_t const receiver = child_that([] {
        Inbox inbox(name_of(getpid()));
        raise(SIGSTOP);
        int expected = 0;
        while (inbox.next() == expected)
            ++expected;
        return inbox.number == -1 && expected > 0;
    });
    int status = 0;
    ASSERT_EQ(receiver, waitpid(receiver, &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
    std::string const name = name_of(receiver);

    // Signals come all the time, and must neither fail the call nor make it wait afresh.
    struct sigaction quiet = {};
    quiet.sa_handler = [](int) {};
    sigaction(SIGALRM, &quiet, nullptr);
    itimerval const often = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    int sent = 0;
    long start = support::milliseconds();
    for (; send_to(name, 2, sent); ++sent)
        start = support::milliseconds();
    EXPECT_EQ(EAGAIN, errno);
    long const waited = support::milliseconds() - start;
    itimerval const never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(waited, 900);
    EXPECT_LE(waited, 3000 * scale());
    EXPECT_GT(sent, 10);
    EXPECT_LT(sent, 1000) << "what piles up is bounded";

    for (int i = 0; i < 3; ++i)
        cancel_a_sender(name);
    kill(receiver, SIGCONT);
    EXPECT_TRUE(send_to(name, 2, -1));
    EXPECT_EQ("exit 0", end_of(receiver));
    EXPECT_EQ(ECONNREFUSED, refusal(name));
}

TEST(Msg, outlasts_a_backlog_in_which_others_are_quicker) {
    std::string const name = name_of(getpid());
    int const listener = bare_socket(name, true);
    crowd(name);
    // A place becomes free again and again, and is gone before the sender runs: both have one processor,
    // which a batch process does not take from another when it wakes up.
    cpu_set_t here{};
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &here);
    sched_setaffinity(0, sizeof here, &here);
    pid_t const sender = child_that([&] {
        sched_param const none = {};
        sched_setscheduler(0, SCHED_BATCH, &none);
        return send_to(name, 2, 7);
    });
    for (int i = 0; i < 32; ++i) { // longer than a sender waits for a receiver that has stopped
        EXPECT_LT(0, accept(listener, nullptr, nullptr));
        crowd(name);
        poll(nullptr, 0, 50);
    }
    while (is_ready(listener, POLLIN))
        EXPECT_LT(0, accept(listener, nullptr, nullptr)); // stays open: it may be the sender's
    EXPECT_EQ("exit 0", end_of(sender));
}

TEST_F(MsgQueue, is_quiet_while_there_are_no_descriptors_and_loses_nothing) {
    ASSERT_TRUE(send_to(name, 2, 1));
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    rlimit none = limit;
    int const lowest_free = fcntl(inbox->fd(), F_DUPFD, 0);
    close(lowest_free);
    none.rlim_cur = static_cast<rlim_t>(lowest_free);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    auto const began = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(is_ready(inbox->fd(), POLLIN, 5000));
        EXPECT_FALSE(inbox->take_waiting());
        EXPECT_EQ(EAGAIN, errno);
    }
    EXPECT_LE(std::chrono::milliseconds(200), std::chrono::steady_clock::now() - began)
        << "the loop would spin: between two attempts is a pause of 100 ms";
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_EQ(1, inbox->next());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN, 200)) << "the pause has ended";
}

// ---- Beginnings and ends --------------------------------------------------------------------------------

TEST_F(MsgQueue, keeps_its_name_to_itself_and_is_closed_in_a_child_of_fork) {
    EXPECT_FALSE(Inbox(name).made());
    EXPECT_EQ(EADDRINUSE, errno);
    int const silent = bare_socket(name);
    EXPECT_FALSE(inbox->take_waiting());
    Gate checked, end;
    pid_t const child = child_that([&] {
        bool const closed = inbox->fd() == -1 && !inbox->take_waiting() && errno == EBADF;
        close(silent);
        checked.open();
        bool const told = end.wait();
        inbox.reset();
        return closed && told;
    });
    ASSERT_TRUE(checked.wait());
    close(silent);
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN)) << "the child's copy of the connection hangs on";
    inbox.reset(new Inbox("test.other"));
    EXPECT_EQ(ECONNREFUSED, refusal(name)) << "the child keeps the name";
    end.open();
    EXPECT_EQ("exit 0", end_of(child));
}

TEST(Msg, calls_that_make_no_sense_are_refused) {
    EXPECT_EQ(nullptr, o_msg_create_queue("test.flags", 0));
    EXPECT_FALSE(Inbox("").made());
    EXPECT_TRUE(Inbox(std::string(99, 'n')).made());
    EXPECT_FALSE(Inbox(std::string(100, 'n')).made());
    EXPECT_EQ(ENAMETOOLONG, errno);
    o_msg_t message = {};
    EXPECT_EQ(-1, o_msg_destroy_queue(nullptr));
    EXPECT_EQ(-1, o_msg_recv(nullptr, &message));
    message.count = O_MSG_MAX_PARTS + 1;
    EXPECT_EQ(-1, o_msg_send("test.flags", &message, 0));
    message.count = 2;
    message.parts[0] = {&message, 4};
    for (o_msg_part_t const part : {o_msg_part_t{nullptr, 4}, {&message, SIZE_MAX}}) {
        message.parts[1] = part;
        EXPECT_EQ(-1, o_msg_data_size(&message));
    }
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
