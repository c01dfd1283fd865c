// SPDX-License-Identifier: MIT
//
// The command channel between real processes: what clients may do to a process, and what they may not.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <orn/zel.hpp>

#include "support/Programs.hpp"

namespace {

using programs::Client;
using programs::Program;
using programs::wait_until;
using programs::Words;

std::string const all_monitors = "zel monitor poll thread task alarm";

// Started, and ready to be signalled.
class Target : public Program {
public:
    explicit Target(Words const& options = {}, int standardInput = -1)
        : Program(command(options), {}, standardInput) {
        EXPECT_EQ("ready", line());
    }

    std::string proc(std::string const& entry) const {
        return "/proc/" + std::to_string(pid()) + '/' + entry;
    }
    std::size_t descriptors() const { return programs::entries_of(proc("fd")); }

private:
    static Words command(Words words) {
        words.insert(words.begin(), TARGET);
        return words;
    }
};

// A client in a process of its own that has had its commands taken.
class OtherClient : public Program {
public:
    OtherClient(Target const& target, std::string const& how, Words const& commands)
        : Program(command(target, how, commands)) {
        EXPECT_EQ("ready", line());
    }

private:
    static Words command(Target const& target, std::string const& how, Words words) {
        Words const first = {CLIENT, std::to_string(target.pid()), how};
        words.insert(words.begin(), first.begin(), first.end());
        return words;
    }
};

class Raw {
public:
    explicit Raw(pid_t pid) : name_(orn::zel::cmd::CmdQueueName(pid)) {}

    // Parts: the process id, then the text, as far as they are wanted.
    ssize_t send(int type, int fd, bool with_pid, std::string const* text) {
        int self = static_cast<int>(::getpid());
        o_msg_t message = {};
        message.type = type;
        message.fd = fd;
        if (with_pid)
            message.parts[message.count++] = {&self, sizeof self};
        if (text)
            message.parts[message.count++] = {const_cast<char*>(text->data()), text->size()};
        return o_msg_send(name_.c_str(), &message, 0);
    }

private:
    std::string name_;
};

TEST(Channel, a_process_that_merely_turns_its_loop_is_steered_from_outside) {
    Target target;
    EXPECT_EQ(0u, programs::threads_named(target.pid(), "zel-command"));
    Client client(target.pid());
    EXPECT_EQ(Words{"1/1 foo"}, client.ask("foo"));
    EXPECT_EQ(Words{}, client.ask("0 x"));
    EXPECT_EQ((Words{"1/2 2 x", "2/2 2 x"}), client.ask("2 x"));
    EXPECT_EQ(Words{"[zel] nothing: no such command"}, client.ask("zel nothing"));
    EXPECT_EQ("TaskMgrs:", client.ask("zel tasks").at(0));

    std::string const module = WORD_MODULE;
    EXPECT_EQ(Words{module + ": loaded"}, client.ask("zel load " + module));
    Client second(target.pid()); // of the same process, so the first one's answers go there now
    EXPECT_EQ(Words{"hello you"}, second.ask("greet you"));
    EXPECT_EQ(Words{module + ": unloaded"}, second.ask("zel unload " + module));
    EXPECT_EQ(Words{"1/1 greet you"}, second.ask("greet you"));

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

TEST(Channel, a_burst_of_signals_and_many_clients_make_one_thread_and_one_queue) {
    Target target({"busy"});
    std::vector<std::unique_ptr<Program>> clients;
    for (int i = 0; i < 4; ++i)
        clients.emplace_back(
            new Program({CLIENT, std::to_string(target.pid()), "follow", "c" + std::to_string(i)}));
    for (int i = 0; i < 10000; ++i)
        ::sigqueue(target.pid(), 55, sigval{});
    for (int i = 0; i < 4; ++i) {
        Words lines;
        while (lines.size() < 3 && (lines.empty() || !lines.back().empty()))
            lines.push_back(clients[static_cast<std::size_t>(i)]->line());
        std::string const word = "c" + std::to_string(i);
        EXPECT_EQ((Words{"ready", "received \"" + word + '"', "1/1 " + word}), lines);
    }
    for (int i = 0; i < 10000; ++i)
        ::kill(target.pid(), 55);
    Client client(target.pid());
    EXPECT_EQ(Words{"1/1 foo"}, client.ask("foo"));
    EXPECT_EQ(1u, programs::threads_named(target.pid(), "zel-command"));
    EXPECT_EQ(1u, programs::listening_queues(target.pid()));
    std::string const before = client.ask_one("slices");
    EXPECT_TRUE(wait_until([&] { return client.ask_one("slices") != before; })) << "its loop goes on";
}

TEST(Channel, the_command_thread_takes_none_of_the_applications_signals) {
    Target target({"take-sigusr2"});
    Client client(target.pid());
    EXPECT_EQ("0", client.ask_one("taken"));
    Words const command = programs::threads_of(target.pid(), "zel-command");
    ASSERT_EQ(1u, command.size());
    unsigned long long const blocked = programs::mask_of(programs::text_of(command[0] + "/status"), "SigBlk");
    for (int const signo : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGCHLD, 55})
        EXPECT_TRUE(blocked >> (signo - 1) & 1) << signo;
    // It would end the process, did any thread have it open.
    for (int i = 1; i <= 20; ++i) {
        target.signal(SIGUSR2);
        ASSERT_TRUE(wait_until([&] { return client.ask_one("taken") == std::to_string(i); }));
    }
}

// ---- Observers ------------------------------------------------------------------------------------------

class Observed : public ::testing::Test {
protected:
    Observed() : target({"busy"}), control(target.pid()) {}

    // Slices in a millisecond of the processor's time, which others on the machine do not change, from a
    // tenth of a second or more.
    double rate() {
        unsigned long const before = slices();
        long const begin = programs::cpu_milliseconds(target.pid());
        EXPECT_TRUE(wait_until([&] {
            return slices() > before + 20 && programs::cpu_milliseconds(target.pid()) > begin + 100;
        }));
        return static_cast<double>(slices() - before) /
               static_cast<double>(programs::cpu_milliseconds(target.pid()) - begin);
    }

    unsigned long slices() { return std::strtoul(control.ask_one("slices").c_str(), nullptr, 10); }

    Target target;
    Client control;
};

TEST_F(Observed, by_a_client_that_has_stopped_it_goes_on_as_before) {
    double const alone = rate();
    OtherClient client(target, "follow", {all_monitors});
    client.line(); // lines come
    client.stop();
    // More than any pipe takes.
    unsigned long const enough = slices() + 5000;
    ASSERT_TRUE(wait_until([&] { return slices() > enough; }, 20000));
    EXPECT_GT(rate(), alone / 40);
    client.signal(SIGCONT);
    EXPECT_NE("", client.line()) << "and the client may come back";
    EXPECT_TRUE(target.alive());
}

TEST_F(Observed, by_a_slow_client_it_goes_on_as_before) {
    double const alone = rate();
    OtherClient client(target, "slow", {all_monitors});
    unsigned long const enough = slices() + 2000;
    ASSERT_TRUE(wait_until([&] { return slices() > enough; }, 20000));
    EXPECT_GT(rate(), alone / 40);
}

TEST_F(Observed, by_clients_that_are_killed_it_survives_with_every_thread_writing) {
    double const alone = rate();
    for (int i = 0; i < 5; ++i) {
        OtherClient client(target, "follow", {all_monitors});
        client.line();
        client.signal(SIGKILL);
        EXPECT_EQ("signal 9", client.end());
        unsigned long const enough = slices() + 100;
        ASSERT_TRUE(wait_until([&] { return slices() > enough; })) << i;
    }
    EXPECT_GT(rate(), alone / 4) << "nothing is written to nobody any more";
    EXPECT_EQ("caught", control.ask_one("sigpipe"));
    EXPECT_EQ("default", control.ask_one("sigpipe-after-exec"));
}

TEST(Channel, a_client_whose_pipe_blocks_and_is_full_blocks_nobody) {
    Target target({"busy"});
    OtherClient const installed(target, "follow", {"foo"});
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    Raw raw(target.pid());
    std::string const many = "2000000000 x";
    ASSERT_LT(0, raw.send(1, ends[1], true, nullptr));
    ::fcntl(ends[1], F_SETFL, 0); // the client has its say in it at any time
    for (std::string const& command : {all_monitors, many, many})
        ASSERT_LT(0, raw.send(2, 0, true, &command));
    Client control(target.pid());
    std::string const before = control.ask_one("slices");
    EXPECT_TRUE(wait_until([&] { return control.ask_one("slices") != before; }));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Channel, the_applications_own_choice_about_sigpipe_is_kept) {
    for (std::string const choice : {"own", "ignore"}) {
        Target target({"busy", choice + "-sigpipe"});
        Client control(target.pid());
        OtherClient client(target, "follow", {all_monitors});
        client.line();
        client.signal(SIGKILL);
        client.end();
        EXPECT_EQ(choice == "own" ? "own" : "ignored", control.ask_one("sigpipe"));
        EXPECT_EQ(choice == "own" ? "default" : "ignored", control.ask_one("sigpipe-after-exec"));
    }
}

// INSPECTIONS raises the number of clients.
TEST(Channel, being_looked_into_again_and_again_does_not_use_up_the_descriptors) {
    char const* const given = std::getenv("INSPECTIONS");
    int const inspections = given ? std::atoi(given) : 500;
    Target target;
    Client control(target.pid());
    std::size_t const before = target.descriptors();
    std::string const at = control.ask_one("where");
    control.ask("zel monitor task");
    // The descriptor of the monitor is the oldest of those whose reader ends here. It has nothing to tell,
    // and so does not learn of that.
    std::unique_ptr<Client> watching(new Client(target.pid()));
    std::string const watched = watching->ask_one("where");
    watching->ask("zel monitor thread");
    watching.reset();
    for (std::size_t const limit : {80u, 48u}) {
        for (int i = 0; i < inspections; ++i) {
            Client client(target.pid());
            if (i % 100 == 0)
                EXPECT_EQ("FdMgrs:", client.ask("zel fds").at(0));
            else
                ASSERT_LT(0, client.send("foo"));
        }
        Client last(target.pid());
        EXPECT_EQ("1/1 foo", last.ask_one("foo"));
        EXPECT_LT(target.descriptors(), before + limit);
        for (std::string const& kept : {at, watched})
            EXPECT_EQ(kept, last.ask_one("where " + kept.substr(0, kept.find(' '))));
        rlimit const few = {256, 256}; // of which an eighth is kept
        ASSERT_EQ(0, ::prlimit(target.pid(), RLIMIT_NOFILE, &few, nullptr));
    }
}

// ---- Bad input ------------------------------------------------------------------------------------------

TEST(Channel, bad_messages_do_not_keep_the_next_command_from_being_served) {
    Target target;
    Client client(target.pid());
    ASSERT_EQ("1/1 foo", client.ask_one("foo"));
    std::size_t const before = target.descriptors();
    orn::os::Pipe const pipe(false);
    std::string const text("zel fds\0", 8);
    std::string const short_text("no end", 6);
    std::string const empty;
    Raw raw(target.pid());
    struct {
        int type;
        int fd;
        bool with_pid;
        std::string const* text;
    } const bad[] = {{1, 0, true, nullptr},
                     {1, -1, true, &text},
                     {1, 0, false, nullptr},
                     {2, 0, true, nullptr},
                     {2, 0, false, &text},
                     {2, 0, false, nullptr},
                     {2, 0, true, &empty},
                     {2, 0, true, &short_text},
                     {0, 0, true, &text},
                     {3, 0, true, &text},
                     {-1, 0, true, &text},
                     {2147483647, 0, true, nullptr},
                     {1, pipe.WriteFD(), false, nullptr},
                     {3, pipe.WriteFD(), true, &text},
                     {2, pipe.WriteFD(), true, &short_text}};
    for (auto const& message : bad) {
        raw.send(message.type, message.fd, message.with_pid, message.text);
        ASSERT_EQ("1/1 next", client.ask("next").back()) << message.type << ' ' << &message - bad;
    }
    EXPECT_EQ(before, target.descriptors());
    EXPECT_EQ("1/1 next", client.ask("next").back());
}

TEST(Channel, bad_commands_do_not_keep_the_next_one_from_being_served) {
    Target target;
    Client client(target.pid());
    EXPECT_EQ(Words{"1/1 "}, client.ask(""));
    EXPECT_EQ(Words{"1/1    "}, client.ask("   "));
    EXPECT_EQ(Words{"1/1 \xff\xfe\x80 \x1b[2J\r\t"}, client.ask("\xff\xfe\x80 \x1b[2J\r\t"));
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
    EXPECT_EQ(Words{"1/1 next"}, client.ask("next"));
    EXPECT_TRUE(target.alive());
}

TEST(Channel, a_command_before_the_connection_is_carried_out_and_its_answer_goes_nowhere) {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
    Target target({}, ends[1]); // a file of the application's, whatever it is
    OtherClient const connected(target, "follow", {"foo"});
    for (std::string const& early : Words{"foo", "zel fds", "3 x", "zel monitor poll", "measure four"})
        ASSERT_LT(0, Raw(target.pid()).send(2, 0, true, &early));
    Client client(target.pid());
    EXPECT_EQ("4", client.ask_one("measured"));
    char byte;
    EXPECT_EQ(-1, ::read(ends[0], &byte, 1)) << "a line came to the application's standard input";
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Channel, whoever_offers_anything_but_a_pipe_is_refused_in_words) {
    Target target;
    Client control(target.pid());
    control.ask("foo");
    std::size_t const before = target.descriptors();
    Raw raw(target.pid());
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    int const flags = ::fcntl(ends[1], F_GETFL);
    ASSERT_LT(0, raw.send(1, ends[1], true, nullptr));
    // This process's connection is the one that it had before.
    EXPECT_EQ("1/1 foo", control.ask_one("foo"));
    char text[200] = "";
    EXPECT_LT(0, ::recv(ends[0], text, sizeof text - 1, MSG_DONTWAIT));
    EXPECT_STREQ("[zel] not connected: answers go to a pipe that this process can open anew: it is no pipe\n",
                 text);
    EXPECT_EQ(flags, ::fcntl(ends[1], F_GETFL)) << "the client's flags were changed";

    // One that takes nothing, and one that would be read by nobody.
    while (::send(ends[1], text, sizeof text, MSG_DONTWAIT) > 0) {
    }
    ASSERT_LT(0, raw.send(1, ends[1], true, nullptr));
    EXPECT_EQ("1/1 foo", control.ask_one("foo"));
    ::close(ends[0]);
    ASSERT_LT(0, raw.send(1, ends[1], true, nullptr));
    EXPECT_EQ("1/1 foo", control.ask_one("foo"));
    ::close(ends[1]);
    EXPECT_EQ(before, target.descriptors());
}

// ---- Rights ---------------------------------------------------------------------------------------------

uid_t const nobody = 65534;
gid_t const some_group = 65533;

// A target that runs as nobody, from a file that may be given a group's rights.
class Guarded : public ::testing::Test {
protected:
    Guarded() {
        char directory[] = "/tmp/zel_test_XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(directory));
        directory_ = directory;
        EXPECT_EQ(0, ::chmod(directory, 0755));
        file_ = directory_ + "/target";
        std::ofstream(file_, std::ios::binary) << programs::text_of(TARGET);
    }
    ~Guarded() override {
        ::unlink(file_.c_str());
        ::rmdir(directory_.c_str());
    }

    // Null where the machine does not let the program run like this.
    std::unique_ptr<Program> start(mode_t mode) {
        EXPECT_EQ(0, ::chown(file_.c_str(), 0, some_group));
        EXPECT_EQ(0, ::chmod(file_.c_str(), mode));
        std::unique_ptr<Program> target(new Program({file_}, {}, -1, nobody));
        if (target->line() != "ready")
            target.reset();
        return target;
    }

    // What the target has measured of a command of nobody's, as it tells root.
    std::string measured_for_nobody(Program& target) {
        Program client({CLIENT, std::to_string(target.pid()), "follow", "measure four"}, {}, -1, nobody);
        EXPECT_EQ("ready", client.line()) << "the command was not handed over";
        return Client(target.pid()).ask_one("measured");
    }

private:
    std::string directory_;
    std::string file_;
};

TEST_F(Guarded, a_program_with_the_rights_of_its_files_group_is_steered_by_root_alone) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give a program another group's rights";
    std::unique_ptr<Program> const plain = start(0755);
    if (!plain)
        GTEST_SKIP() << "other users cannot run the programs of this build tree";
    EXPECT_EQ("4", measured_for_nobody(*plain));
    std::unique_ptr<Program> const guarded = start(02755);
    ASSERT_TRUE(guarded);
    std::string const status = programs::text_of("/proc/" + std::to_string(guarded->pid()) + "/status");
    if (status.find("\t" + std::to_string(some_group) + "\t") == std::string::npos)
        GTEST_SKIP() << "/tmp is mounted so that files there give no rights";
    EXPECT_EQ("0", measured_for_nobody(*guarded));

    // Root's own pipe is not this user's to open, unless root lets it.
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    Client control(guarded->pid());
    ASSERT_LT(0, Raw(guarded->pid()).send(1, ends[1], true, nullptr));
    EXPECT_EQ("1/1 foo", control.ask_one("foo"));
    char text[200] = "";
    EXPECT_LT(0, ::read(ends[0], text, sizeof text - 1));
    EXPECT_NE(nullptr, std::strstr(text, "can open anew: ")) << text;
    ::close(ends[0]);
    ::close(ends[1]);
}

// ---- The client's side ----------------------------------------------------------------------------------

TEST(Channel, lines_of_any_length_reach_the_client_whole) {
    Target target;
    Client client(target.pid());
    for (std::size_t const size : {0u, 1022u, 1023u, 1024u, 1025u, 4096u, 300000u})
        EXPECT_EQ(Words{std::string(size, 'x')}, client.ask("line " + std::to_string(size)));
    // A last line without its end becomes the beginning of what comes next.
    client.send("tail ab");
    EXPECT_EQ("abreceived \"tail c\"", client.ask("tail c").at(1));
    EXPECT_EQ("1/1 next", client.ask("next").back());
}

bool turn_until(std::function<bool()> const& condition) {
    return wait_until(condition, 10000, [] { orn::zel::RunOnce(20); });
}

TEST(Channel, the_function_for_lines_may_give_its_channel_up_and_is_not_called_again) {
    Target target;
    std::size_t const before = programs::entries_of("/proc/self/fd");
    Words lines;
    std::unique_ptr<orn::zel::cmd::Channel> channel;
    channel.reset(new orn::zel::cmd::Channel(orn::zel::Connect(target.pid(), [&](std::string const& line) {
        lines.push_back(line);
        if (line == "1/3 3 x") // the other two came along with it
            channel.reset();
    })));
    channel->Command("3 x");
    EXPECT_TRUE(turn_until([&] { return !channel; }));
    EXPECT_EQ("1/3 3 x", lines.back());
    while (orn::zel::RunOnce(0) > 0) {
    }
    EXPECT_EQ("1/3 3 x", lines.back());
    EXPECT_EQ(before, programs::entries_of("/proc/self/fd"));
}

TEST(Channel, the_function_for_lines_may_turn_the_loop_and_may_throw) {
    Target target;
    Words lines;
    orn::zel::cmd::Channel channel = orn::zel::Connect(target.pid(), [&](std::string const& line) {
        lines.push_back(line);
        if (line == "1/3 3 nest") {
            channel.Command("inner");
            EXPECT_TRUE(turn_until([&] { return lines.back() == "1/1 inner"; }));
        }
        if (line == "1/3 3 throw")
            throw std::runtime_error(line);
    });
    channel.Command("3 nest");
    ASSERT_TRUE(turn_until([&] { return lines.size() >= 6; }));
    EXPECT_EQ((Words{"received \"3 nest\"", "1/3 3 nest", "2/3 3 nest", "3/3 3 nest", "received \"inner\"",
                     "1/1 inner"}),
              lines);

    lines.clear();
    channel.Command("3 throw");
    EXPECT_THROW(turn_until([] { return false; }), std::runtime_error);
    channel.Command("next");
    ASSERT_TRUE(turn_until([&] { return lines.back() == "1/1 next"; }));
    EXPECT_EQ((Words{"received \"3 throw\"", "1/3 3 throw", "2/3 3 throw", "3/3 3 throw", "received \"next\"",
                     "1/1 next"}),
              lines);

    orn::zel::cmd::Channel dumb = orn::zel::Connect(target.pid(), {});
    dumb.Command("foo");
    EXPECT_THROW(turn_until([] { return false; }), boost::bad_function_call);
}

// ---- fork() ---------------------------------------------------------------------------------------------

TEST(Fork, a_child_gets_back_what_was_there_before_its_parent_watched_a_signal) {
    Program program({FORK_PROGRAM, "signal"});
    EXPECT_EQ("signal 15\nexit 2\nexit 3\n1\n", program.rest());
    EXPECT_EQ("exit 0", program.end());
}

TEST(Fork, no_signal_to_a_child_is_told_to_its_parent_at_whatever_moment_it_comes) {
    Program program({FORK_PROGRAM, "group"});
    std::string const surplus = program.line(20000);
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer itself merges signals that arrive outside of system calls.
    EXPECT_TRUE(!surplus.empty() && std::atoi(surplus.c_str()) <= 0) << surplus;
#else
    EXPECT_EQ("0", surplus);
#endif
    EXPECT_EQ("exit 0", program.end());
}

TEST(Fork, a_child_finds_no_signal_caught_while_another_thread_begins_and_ends_to_watch) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer's own locks and threads do not survive fork() beside other threads";
#endif
    Program program({FORK_PROGRAM, "threads"});
    EXPECT_EQ("0", program.line(20000));
    EXPECT_EQ("exit 0", program.end());
}

TEST(Fork, a_child_that_exits_does_not_wait_for_threads_that_it_has_not_got) {
    Program program({FORK_PROGRAM, "exit"});
    EXPECT_EQ("exit 7", program.line());
}

TEST(Fork, a_daemon_whose_first_act_is_to_watch_a_signal_is_steered_and_served) {
    Program parent({FORK_PROGRAM, "fresh"});
    int const child = std::atoi(parent.line().c_str());
    ASSERT_LT(0, child);
    Client client(child);
    EXPECT_EQ("0", client.ask_one("watched"));
    ::kill(child, SIGTERM);
    EXPECT_TRUE(wait_until([&] { return client.ask_one("watched") == "1"; }));
    client.send("exit 0");
    EXPECT_TRUE(
        wait_until([&] { return programs::text_of("/proc/" + std::to_string(child) + "/cmdline").empty(); }));
}

TEST(Fork, a_daemon_that_brings_the_library_up_anew_is_steered_under_its_own_id) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer's own locks and threads do not survive fork() beside other threads";
#endif
    Program parent({FORK_PROGRAM, "daemon"});
    int const child = std::atoi(parent.line().c_str());
    ASSERT_LT(0, child);
    ASSERT_NE(parent.pid(), child);
    {
        Client to_child(child);
        EXPECT_TRUE(wait_until([&] { return to_child.ask_one("alarms") == "1"; }));
        EXPECT_EQ("1/1 foo", to_child.ask_one("foo"));
        Client to_parent(parent.pid());
        EXPECT_EQ("1/1 alarms", to_parent.ask("alarms").back());
    }
    std::string const own = "/proc/" + std::to_string(child) + "/cmdline";
    Client last(child);
    last.send("exit 0");
    EXPECT_TRUE(wait_until([&] { return programs::text_of(own).empty(); })) << "it has not ended";
    EXPECT_TRUE(parent.alive());
}

} // namespace
