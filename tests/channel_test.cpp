// SPDX-License-Identifier: MIT
//
// The command channel between real processes: what clients may do to a process, and what they may not.
#include <filesystem>
#include <set>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <orn/zel.hpp>

#include "support/Programs.hpp"

namespace {

using orn::zel::cmd::channel_signal;
using support::Client;
using support::joined;
using support::Program;
using support::wait_until;
using support::Words;

std::string const all_monitors = "zel monitor poll thread task alarm";

// Started, and ready to be signalled.
class Target : public Program {
public:
    explicit Target(Words const& options = {}, int standard_input = -1,
                    std::map<std::string, std::string> const& environment = {})
        : Program(joined({TARGET}, options), environment, standard_input) {
        EXPECT_EQ("ready", line());
    }

    std::size_t descriptors() const { return support::descriptors(pid()).size(); }
    // How many files are behind them.
    std::size_t files() const {
        std::set<std::string> all;
        std::error_code none;
        std::string const links = "/proc/" + std::to_string(pid()) + "/fd/";
        for (int const fd : support::descriptors(pid()))
            all.insert(std::filesystem::read_symlink(links + std::to_string(fd), none));
        return all.size();
    }
};

// A client in a process of its own that has had its commands taken.
class OtherClient : public Program {
public:
    OtherClient(Program const& target, char const* how, Words const& commands, uid_t user = 0)
        : Program(joined({CLIENT, std::to_string(target.pid()), how}, commands), {}, -1, user) {
        EXPECT_EQ("ready", line());
    }
};

// A message with the process id and the text, as far as they are wanted.
ssize_t send_raw(Program const& target, int type, int fd, bool with_pid, std::string const* text) {
    int self = getpid();
    o_msg_t message = {};
    message.type = type;
    message.fd = fd;
    if (with_pid)
        message.parts[message.count++] = {&self, sizeof self};
    if (text)
        message.parts[message.count++] = {const_cast<char*>(text->data()), text->size()};
    return o_msg_send(orn::zel::cmd::CmdQueueName(target.pid()).c_str(), &message, 0);
}

ssize_t connect_raw(Program const& target, int fd) {
    return send_raw(target, 1, fd, true, nullptr);
}

// With a client that has not said anything yet.
class Served : public ::testing::Test {
protected:
    Target target;
    Client client{target.pid()};
};

// Whether a busy process gets through so many more slices.
bool goes_on(Client& control, unsigned long count = 1) {
    auto const slices = [&] { return std::strtoul(control.ask_one("slices").c_str(), nullptr, 10); };
    unsigned long const enough = slices() + count;
    return wait_until([&] { return slices() >= enough; }, 20000);
}

TEST(Channel, a_process_that_merely_turns_its_loop_is_steered_from_outside) {
    Target target;
    EXPECT_EQ(0u, support::threads_named(target.pid(), "zel-command"));
    Client client(target.pid());
    EXPECT_EQ((Words{"1/2 2 x", "2/2 2 x"}), client.ask("2 x"));
    Client second(target.pid()); // of the same process, so the first one's answers go there now

    // Many commands are served in their order.
    Words expected;
    for (int i = 0; i < 300; ++i) {
        std::string const word = "w" + std::to_string(i);
        ASSERT_LT(0, second.send(word));
        expected.insert(expected.end(), {"received \"" + word + '"', "1/1 " + word});
    }
    expected.push_back("1/1 last");
    EXPECT_EQ(expected, second.ask("last"));
    second.send("quit 5");
    EXPECT_EQ("exit 5", target.end());
}

TEST(Channel,
     that_is_open_from_the_start_answers_for_a_process_whose_main_thread_turns_no_loop_or_has_ended) {
    for (std::string const how : {"stuck", "left"}) {
        Target target({how}, -1, {{"ZEL_CHANNEL", "1"}});
        EXPECT_TRUE(wait_until([&] { return support::threads_named(target.pid(), "zel-command") == 1; }));
        Client client(target.pid());
        EXPECT_EQ("FdMgrs:", client.ask("zel fds").at(0));
        std::string const process = client.ask("inspect process").at(0);
        EXPECT_NE(std::string::npos, process.find(R"("program":"/)")) << process;
        EXPECT_NE(std::string::npos, process.find(R"({"word":"zel","library":"/)")) << process;
        EXPECT_NE(std::string::npos, client.ask("inspect fds").at(0).find(R"("path":"pipe:)"));
        client.send("exit 5");
        EXPECT_EQ("exit 5", target.end());
    }
}

TEST(Channel, a_burst_of_signals_and_many_clients_make_one_thread_which_takes_none_of_the_applications) {
    Target target({"busy"});
    std::map<std::string, std::unique_ptr<Program>> clients;
    for (std::string const word : {"c0", "c1", "c2", "c3"})
        clients[word].reset(new Program({CLIENT, std::to_string(target.pid()), "follow", word}));
    for (int i = 0; i < 10000; ++i)
        sigqueue(target.pid(), channel_signal, sigval{});
    for (auto const& client : clients) {
        for (std::string const& line :
             {std::string("ready"), "received \"" + client.first + '"', "1/1 " + client.first})
            EXPECT_EQ(line, client.second->line());
    }
    for (int i = 0; i < 10000; ++i)
        kill(target.pid(), channel_signal);
    Client client(target.pid());
    EXPECT_TRUE(goes_on(client));
    int command_threads = 0;
    for (auto const& thread : support::threads(target.pid())) {
        if (thread.second != "zel-command")
            continue;
        ++command_threads;
        std::string const file = "task/" + std::to_string(thread.first) + "/status";
        for (int const signo : {SIGINT, SIGTERM, SIGUSR1, SIGPIPE, SIGALRM, SIGCHLD, channel_signal})
            EXPECT_TRUE(support::in_mask(support::proc(target.pid(), file), "SigBlk", signo)) << signo;
    }
    EXPECT_EQ(1, command_threads);
}

// ---- Observers ------------------------------------------------------------------------------------------

// CHANNEL_EXIT_RUNS raises the number of runs. The main thread ends the process, or the command thread.
TEST(Channel, clients_that_stop_flood_or_are_killed_keep_no_process_from_its_work_its_choice_and_its_end) {
    for (int run = support::number_from("CHANNEL_EXIT_RUNS", 4); run > 0; --run) {
        std::string const choice = run % 2 ? "caught" : "ignored";
        Target target({"busy", choice + "-sigpipe"});
        Client control(target.pid());
        OtherClient stopped(target, "follow", {all_monitors});
        stopped.line(); // lines come
        stopped.stop();
        EXPECT_TRUE(goes_on(control, 5000)); // their lines are more than any pipe takes
        stopped.signal(SIGCONT);
        EXPECT_NE("", stopped.line()) << "the client may come back";
        for (int i = 0; i < 3; ++i) {
            OtherClient killed(target, "follow", {all_monitors});
            killed.line();
            killed.signal(SIGKILL);
            EXPECT_EQ("signal 9", killed.end());
            EXPECT_TRUE(goes_on(control, 100)) << i;
        }
        EXPECT_EQ(choice, control.ask_one("sigpipe"));

        OtherClient const observer(target, "follow", {"zel monitor poll thread"});
        OtherClient const flood(target, "flood", {"zel fds", "100 x"});
        OtherClient const halted(target, "follow", {"zel monitor task alarm"});
        halted.stop();
        long const begin = support::milliseconds();
        control.send(run % 2 ? "quit 7" : "exit 7");
        EXPECT_EQ("exit 7", target.end()) << target.errors();
        EXPECT_LT(support::milliseconds() - begin, 1000 * support::scale());
    }
}

TEST(Channel, a_client_whose_pipe_blocks_and_is_full_blocks_nobody) {
    Target target({"busy"});
    OtherClient const installed(target, "follow", {"foo"});
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    std::string const many = "2000000000 x";
    ASSERT_LT(0, connect_raw(target, ends[1]));
    fcntl(ends[1], F_SETFL, 0); // the client has its say in it at any time
    for (std::string const& command : {all_monitors, many, many})
        ASSERT_LT(0, send_raw(target, 2, 0, true, &command));
    Client control(target.pid());
    EXPECT_TRUE(goes_on(control));
    close(ends[0]);
    close(ends[1]);
}

// INSPECTIONS raises the number of clients.
TEST(Channel, being_looked_into_again_and_again_uses_up_neither_the_descriptors_nor_what_pipes_may_take) {
    int const inspections = support::number_from("INSPECTIONS", 500);
    Target target;
    Client control(target.pid());
    std::size_t const before = target.descriptors();
    control.ask("zel monitor task");
    Words kept = {control.ask_one("where")};
    // The descriptor of the monitor is the oldest of those whose reader ends here. It has nothing to tell,
    // and so does not learn of that.
    auto watching = std::make_unique<Client>(target.pid());
    kept.push_back(watching->ask_one("where"));
    watching->ask("zel monitor thread");
    watching.reset();
    for (std::size_t const limit : {80u, 48u}) {
        for (int i = 0; i < inspections; ++i)
            ASSERT_LT(0, Client(target.pid()).send(i % 100 == 0 ? "zel fds" : "foo"));
        Client last(target.pid());
        EXPECT_EQ("1/1 foo", last.ask_one("foo"));
        EXPECT_LT(target.descriptors(), before + limit);
        EXPECT_LT(target.files(), before + 16) << "large pipes that nobody reads";
        for (std::string const& where : kept)
            EXPECT_EQ(where, last.ask_one("where " + where.substr(0, where.find(' '))));
        rlimit const few = {256, 256}; // of which an eighth is kept
        ASSERT_EQ(0, prlimit(target.pid(), RLIMIT_NOFILE, &few, nullptr));
    }
}

// ---- Bad input ------------------------------------------------------------------------------------------

TEST_F(Served, bad_messages_do_not_keep_the_next_command_from_being_served) {
    client.ask("foo");
    std::size_t const before = target.descriptors();
    orn::os::Pipe const pipe(false);
    std::string const* const no_text = nullptr;
    std::string const texts[] = {{"zel fds\0", 8}, "no end", ""};
    for (int const type : {1, 2, 0, 3, -1, 2147483647}) {
        for (int const fd : {0, -1, pipe.WriteFD()}) {
            for (bool const with_pid : {true, false}) {
                if (type == 1 && fd > 0 && with_pid) // connects
                    continue;
                for (std::string const* text : {&texts[0], &texts[1], &texts[2], no_text}) {
                    send_raw(target, type, fd, with_pid, text);
                    ASSERT_EQ("1/1 next", client.ask("next").back()) << type << ' ' << fd << ' ' << with_pid;
                }
            }
        }
    }
    EXPECT_EQ(before, target.descriptors());
}

TEST_F(Served, commands_and_lines_of_any_kind_and_length_arrive_whole_or_leave_the_next_one_alone) {
    for (std::string const command : {"", "   ", "\xff\xfe\x80 \x1b[2J\r\t"})
        EXPECT_EQ(Words{"1/1 " + command}, client.ask(command));
    EXPECT_EQ("1/1 cut", client.ask(std::string("cut\0off", 7)).back());
    EXPECT_EQ((Words{"received \"a", "b\"", "1/1 a", "b"}), client.ask("a\nb"));
    for (std::size_t const size : {65530u, 65536u, 65537u, 120000u}) {
        // The echo fills the pipe: what follows it is lost, but the command is not.
        client.ask("measure " + std::string(size, 'y'));
        EXPECT_EQ(std::to_string(size), client.ask("measured").back());
    }
    EXPECT_EQ(-1, client.send(std::string(O_MSG_MAX_SIZE, 'y')));
    EXPECT_EQ(EMSGSIZE, errno);
    EXPECT_EQ(Words{}, client.ask("throw"));
    EXPECT_EQ(Words{}, client.ask("throw-number"));
    for (std::size_t const size : {0u, 1022u, 1023u, 1024u, 1025u, 4096u, 300000u})
        EXPECT_EQ(Words{std::string(size, 'x')}, client.ask("line " + std::to_string(size)));
    // A last line without its end becomes the beginning of what comes next.
    client.send("tail ab");
    EXPECT_EQ("abreceived \"tail c\"", client.ask("tail c").at(1));
}

TEST(Channel, a_command_before_the_connection_is_carried_out_and_its_answer_goes_nowhere) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
    Target target({}, ends[1]); // a file of the application's, whatever it is
    OtherClient const connected(target, "follow", {"foo"});
    for (std::string const& early : Words{"foo", "zel fds", "3 x", "zel monitor poll", "measure four"})
        ASSERT_LT(0, send_raw(target, 2, 0, true, &early));
    Client client(target.pid());
    EXPECT_EQ("4", client.ask_one("measured"));
    EXPECT_EQ("", support::take(ends[0])) << "a line came to the application's standard input";
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Served, whoever_offers_anything_but_a_pipe_is_refused_in_words) {
    client.ask("foo");
    std::size_t const before = target.descriptors();
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    int const flags = fcntl(ends[1], F_GETFL);
    char text[200] = "";
    auto const refuse = [&] {
        ASSERT_LT(0, connect_raw(target, ends[1]));
        // This process's connection is the one that it had before.
        EXPECT_EQ("1/1 foo", client.ask_one("foo"));
    };
    refuse();
    EXPECT_LT(0, recv(ends[0], text, sizeof text - 1, MSG_DONTWAIT));
    EXPECT_STREQ("[zel] not connected: answers go to a pipe that this process can open anew: it is no pipe\n",
                 text);
    EXPECT_EQ(flags, fcntl(ends[1], F_GETFL)) << "the client's flags were changed";
    while (send(ends[1], text, sizeof text, MSG_DONTWAIT) > 0) {
    }
    refuse(); // takes nothing
    close(ends[0]);
    refuse(); // would be read by nobody
    close(ends[1]);
    support::TempFile const file;
    ends[1] = open(file.path().c_str(), O_WRONLY | O_CLOEXEC);
    timespec const after_2038 = {static_cast<time_t>(2208988800), 0};
    timespec const times[] = {after_2038, after_2038};
    ASSERT_EQ(0, futimens(ends[1], times)); // which 32-bit programs have to ask for, to be told of the file
    refuse();
    close(ends[1]);
    EXPECT_EQ(before, target.descriptors());
}

TEST(Channel, a_pipe_that_the_process_may_not_open_is_refused_in_words) {
    Program target({TARGET}, {}, -1, 65534); // nobody
    if (target.line() != "ready")
        GTEST_SKIP() << "only root can become another user, who can run the programs of this build tree";
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    Client control(target.pid());
    ASSERT_LT(0, connect_raw(target, ends[1]));
    EXPECT_EQ("1/1 foo", control.ask_one("foo"));
    EXPECT_NE(std::string::npos, support::take(ends[0]).find("can open anew: "));
    close(ends[0]);
    close(ends[1]);
}

// ---- The client's side ----------------------------------------------------------------------------------

TEST(Channel, the_function_for_lines_may_turn_the_loop_throw_and_give_its_channel_up) {
    Target target;
    auto const before = support::descriptors();
    auto const turn_until = [](std::function<bool()> const& condition) {
        return wait_until(condition, 10000, [] { orn::zel::RunOnce(20); });
    };
    Words lines;
    std::unique_ptr<orn::zel::cmd::Channel> channel;
    channel.reset(new orn::zel::cmd::Channel(orn::zel::Connect(target.pid(), [&](std::string const& line) {
        lines.push_back(line);
        if (line == "1/3 3 nest") {
            channel->Command("inner");
            EXPECT_TRUE(turn_until([&] { return lines.back() == "1/1 inner"; }));
        }
        if (line == "1/3 3 throw")
            throw std::runtime_error(line);
        if (line == "1/3 3 end") // the other two came along with it
            channel.reset();
    })));
    channel->Command("3 nest");
    ASSERT_TRUE(turn_until([&] { return lines.size() >= 6; }));
    channel->Command("3 throw");
    EXPECT_THROW(turn_until([] { return false; }), std::runtime_error);
    channel->Command("3 end");
    EXPECT_TRUE(turn_until([&] { return !channel; }));
    while (orn::zel::RunOnce(0) > 0) {
    }
    EXPECT_EQ((Words{"received \"3 nest\"", "1/3 3 nest", "2/3 3 nest", "3/3 3 nest", "received \"inner\"",
                     "1/1 inner", "received \"3 throw\"", "1/3 3 throw", "2/3 3 throw", "3/3 3 throw",
                     "received \"3 end\"", "1/3 3 end"}),
              lines);
    EXPECT_EQ(before, support::descriptors());
}

} // namespace
