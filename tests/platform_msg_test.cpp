// SPDX-License-Identifier: MIT
//
// Message queues between real processes. Most cases have a child or a bare socket at one end.
#include <random>

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>

#include "support/Messages.hpp"

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

// ---- What is carried ------------------------------------------------------------------------------------

TEST_F(MsgQueue, carries_messages_whole_and_in_their_order_up_to_the_limit) {
    mallopt(M_PERTURB, 'p'); // no NUL byte by chance
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
    std::string const largest(O_MSG_MAX_SIZE - sizeof(int), 'x');
    struct {
        int type;
        std::string text;
    } const all[] = {{2, "no end"}, {-7, {"a\0b\0", 4}}, {2, ""}, {2, largest}};
    pid_t const child = child_that([&] {
        int self = getpid();
        o_msg_t one_part = {};
        one_part.type = one_part.count = 1;
        one_part.parts[0] = {&self, sizeof self};
        bool sent = o_msg_send(name.c_str(), &one_part, 0) == sizeof self;
        for (auto const& each : all)
            sent = sent && send_to(name, each.type, 7, each.text);
        return sent && refusal(name, largest + "x") == EMSGSIZE;
    });
    EXPECT_EQ(child, inbox->next());
    EXPECT_EQ(1u, inbox->message.count);
    EXPECT_EQ(1, inbox->message.type);
    EXPECT_EQ(-1, inbox->message.fd);
    for (auto const& each : all) {
        ASSERT_EQ(7, inbox->next());
        EXPECT_EQ(each.type, inbox->message.type);
        EXPECT_EQ(each.text, inbox->text());
        EXPECT_EQ('\0', static_cast<char*>(inbox->message.parts[1].data)[each.text.size()]);
    }
    EXPECT_EQ("exit 0", end_of(child));
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
}

TEST_F(MsgQueue, carries_one_descriptor_and_each_that_it_makes_is_close_on_exec) {
    pid_t const child = child_that([&] {
        Pipe const answers(true);
        char text[3] = "";
        return send_to(name, 1, 1, "", answers.WriteFD()) && send_to(name, 2, 2, "", 0) &&
               is_ready(answers.ReadFD(), POLLIN, 20000) && read(answers.ReadFD(), text, 2) == 2 &&
               std::string(text) == "hi";
    });
    int const parked = bare_socket(name);
    ASSERT_EQ(1, inbox->next());
    for (int const fd : descriptors())
        EXPECT_TRUE(without_queue.count(fd) != 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) << fd;
    int const answer = std::exchange(inbox->message.fd, -1); // taken over
    ASSERT_EQ(2, inbox->next());
    EXPECT_EQ(-1, inbox->message.fd) << "standard input was given away";
    support::put(answer, "hi");
    EXPECT_EQ("exit 0", end_of(child));
    close(answer);
    close(parked);
}

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
}

TEST(Msg, a_process_with_borrowed_rights_serves_and_trusts_root_alone) {
    bool const root = geteuid() == 0;
    auto const become_nobody = [](int dumpable) {
        return (geteuid() != 0 || become(nobody)) && prctl(PR_SET_DUMPABLE, dumpable) == 0;
    };
    Gate ready, sent;
    pid_t const other = child_that([&] {
        bool const plain = become_nobody(1);
        Inbox inbox(name_of(getpid()));
        ready.open();
        bool const served = plain && inbox.next() == 1 && become_nobody(0);
        ready.open();
        return served && sent.wait() && (root ? inbox.next() == 3 : !inbox.take_waiting());
    });
    std::string const name = name_of(other);
    pid_t const sender = child_that([&] {
        return become_nobody(1) && ready.wait() && send_to(name, 2, 1) && ready.wait() &&
               send_to(name, 2, 2) && become_nobody(0) && refusal(name) == EACCES;
    });
    EXPECT_EQ("exit 0", end_of(sender));
    EXPECT_TRUE(!root || send_to(name, 2, 3));
    sent.open();
    EXPECT_EQ("exit 0", end_of(other));
}

TEST(Msg, goes_to_the_process_that_the_name_says_and_to_another_user_by_such_a_name_from_root_alone) {
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
        bool const dropped = become(nobody);
        Inbox numbered(name_of(getpid()));
        Inbox unnumbered(own + ".of-anybody");
        ready.open();
        return dropped && sent.wait() && numbered.next() == 0 && !numbered.take_waiting() &&
               !unnumbered.take_waiting();
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
        {"too much data", 5, 0, [](Header&) {}},
        {"another magic", 4, 0, [](Header& h) { h.magic = 1; }},
        {"another version", 4, 0, [](Header& h) { h.version = 2; }},
        {"too many parts", 4, 0, [](Header& h) { h.parts = 5; }},
        {"data beyond the parts", 7, 0, [](Header& h) { h.lengths[1] = 3; }},
        {"lengths that wrap", 0, 0, [](Header& h) { h.parts = 2, h.lengths[1] = 0xfffffffc; }},
        {"data beyond the limit", limit + 4, 0, [](Header& h) { h.parts = 2, h.lengths[1] = limit; }},
        {"data cut at the limit", limit + 4, 0, [](Header& h) { h.parts = 2, h.lengths[1] = limit - 4; }},
        {"a missing descriptor", 4, 0, [](Header& h) { h.descriptors = 1; }},
        {"an extra descriptor", 4, 1, [](Header&) {}},
        {"two descriptors", 4, 2, [](Header& h) { h.descriptors = 2; }},
        {"two descriptors for one", 4, 2, [](Header& h) { h.descriptors = 1; }},
        {"many descriptors", 4, 100, [](Header& h) { h.descriptors = 100; }},
        {"no parts", 0, 0, [](Header& h) { h.parts = 0, h.lengths[0] = 0; }},
        {"a short number", 3, 0, [](Header& h) { h.lengths[0] = 3; }},
        {"a long number", 5, 0, [](Header& h) { h.lengths[0] = 5; }},
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
    inbox->next();
    EXPECT_EQ(5, inbox->message.type);
}

TEST_F(MsgQueue, neither_leaks_nor_stops_at_random_packets) {
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
        o_msg_release(&inbox->message);
        ASSERT_EQ(before, descriptors());
        settled = round == 1000 ? mallinfo2().uordblks : settled;
    }
    EXPECT_LT(mallinfo2().uordblks, settled + 32768);
}

// ---- Slow, stopped and dead partners --------------------------------------------------------------------

TEST_F(MsgQueue, keeps_the_place_of_who_is_late_until_newer_ones_need_it) {
    auto const before = descriptors();
    std::vector<int> silent;
    auto const connect_silently = [&](int count) {
        for (int i = 0; i < count; ++i) {
            silent.push_back(bare_socket(name));
            EXPECT_FALSE(inbox->take_waiting());
        }
        EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
    };
    connect_silently(1);
    EXPECT_TRUE(bare_send(silent.front(), packet_of()));
    ASSERT_TRUE(send_to(name, 2, 2));
    EXPECT_TRUE(is_ready(inbox->fd(), POLLIN));
    ASSERT_TRUE(inbox->take_waiting());
    EXPECT_EQ(5, inbox->message.type);
    ASSERT_TRUE(inbox->take_waiting());
    EXPECT_EQ(2, inbox->number);

    connect_silently(100);
    EXPECT_LT(descriptors().size(), before.size() + 101 + 40);
    ASSERT_TRUE(send_to(name, 2, 3));
    EXPECT_EQ(3, inbox->next());
    connect_silently(1);
    auto const kept =
        std::count_if(silent.begin(), silent.end(), [](int fd) { return bare_send(fd, packet_of()); });
    EXPECT_FALSE(bare_send(silent[1], packet_of())) << "the oldest of them";
    EXPECT_GT(kept, 10);
    ASSERT_TRUE(send_to(name, 2, 4)); // no room for its connection, but none whose message is there may go
    for (auto i = kept; i > 0; --i) {
        ASSERT_NE(no_message, inbox->next());
        EXPECT_EQ(5, inbox->message.type);
    }
    EXPECT_EQ(4, inbox->next());
    connect_silently(10);
    for (int const fd : silent) // as when their processes die
        close(fd);
    EXPECT_TRUE(is_ready(inbox->fd(), POLLIN));
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN));
    EXPECT_EQ(before, descriptors());
}

extern "C" void* send_until_cancelled(void* name) {
    for (;;)
        send_to(*static_cast<std::string*>(name), 2, 0);
}

// One that waits for room, and leaves nothing behind.
void cancel_a_sender(std::string name) {
    auto const before = descriptors();
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
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(is_ready(inbox->fd(), POLLIN, 5000));
        EXPECT_FALSE(inbox->take_waiting());
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_FALSE(is_ready(inbox->fd(), POLLIN)) << "the loop would spin";
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_EQ(1, inbox->next());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN, 200)) << "the pause has ended";
}

// ---- Beginnings and ends --------------------------------------------------------------------------------

TEST_F(MsgQueue, is_closed_in_a_child_of_fork) {
    int const silent = bare_socket(name);
    EXPECT_FALSE(inbox->take_waiting());
    Gate checked, end;
    pid_t const child = child_that([&] {
        bool const closed = inbox->fd() == -1 && !inbox->take_waiting() && errno == EBADF;
        bool const own = Inbox(name_of(getpid())).made();
        close(silent);
        checked.open();
        bool const told = end.wait();
        inbox.reset();
        return closed && own && told;
    });
    ASSERT_TRUE(checked.wait());
    ASSERT_TRUE(send_to(name, 2, 1));
    EXPECT_EQ(1, inbox->next());
    close(silent);
    EXPECT_FALSE(inbox->take_waiting());
    EXPECT_FALSE(is_ready(inbox->fd(), POLLIN)) << "the child's copy of the connection hangs on";
    inbox.reset(new Inbox("test.other"));
    EXPECT_EQ(ECONNREFUSED, refusal(name)) << "the child keeps the name";
    end.open();
    EXPECT_EQ("exit 0", end_of(child));
}

TEST_F(MsgQueue, closes_what_waits_in_it_and_frees_its_name_when_it_is_destroyed) {
    auto const before = descriptors();
    for (int round = 0; round < 100; ++round) {
        EXPECT_FALSE(Inbox(name).made());
        EXPECT_EQ(EADDRINUSE, errno);
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        int const parked = bare_socket(name);
        ASSERT_TRUE(send_to(name, 1, 1, "", ends[1]));
        ASSERT_TRUE(send_to(name, 1, 2, "", ends[1]));
        ASSERT_EQ(1, inbox->next());
        inbox.reset();
        EXPECT_EQ(ECONNREFUSED, refusal(name));
        close(ends[1]);
        close(parked);
        char byte = 0;
        EXPECT_EQ(0, read(ends[0], &byte, 1)) << "somebody still holds the write end";
        close(ends[0]);
        inbox.reset(new Inbox(name));
    }
    EXPECT_EQ(before, descriptors());
}

TEST(Msg, calls_that_make_no_sense_are_refused) {
    EXPECT_EQ(nullptr, o_msg_create_queue("test.flags", 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_FALSE(Inbox("").made());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, o_msg_destroy_queue(nullptr));
    EXPECT_TRUE(Inbox(std::string(99, 'n')).made());
    EXPECT_FALSE(Inbox(std::string(100, 'n')).made());
    EXPECT_EQ(ENAMETOOLONG, errno);

    int number = 1;
    o_msg_t message = {};
    EXPECT_EQ(-1, o_msg_recv(nullptr, &message));
    message.count = 2;
    message.parts[0] = message.parts[1] = {&number, sizeof number};
    EXPECT_EQ(8, o_msg_data_size(&message));
    message.parts[1].data = nullptr;
    EXPECT_EQ(-1, o_msg_data_size(&message));
    message.parts[1] = {&message, SIZE_MAX};
    EXPECT_EQ(-1, o_msg_data_size(&message));
    message.count = O_MSG_MAX_PARTS + 1;
    EXPECT_EQ(-1, o_msg_data_size(&message));
    EXPECT_EQ(-1, o_msg_send("test.flags", &message, 0));
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
