// SPDX-License-Identifier: MIT
//
// The registry of command words and what is answered, without a channel.
#include <chrono>
#include <future>

#include <sys/socket.h>

#include <orn/zel.hpp>

#include "support/Programs.hpp"

namespace {

using orn::zel::cmd::ProcessCommand;

// Answers go to a socket that keeps the boundaries of writes.
class Cmd : public ::testing::Test {
protected:
    Cmd() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_)); }
    ~Cmd() override {
        close(ends_[0]);
        close(ends_[1]);
    }

    int fd() const { return ends_[1]; }

    // What one write() has written, "nothing" when there was none.
    std::string written() {
        std::vector<char> buffer(300000);
        ssize_t const got = read(ends_[0], buffer.data(), buffer.size());
        return got < 0 ? "nothing" : std::string(buffer.data(), static_cast<std::size_t>(got));
    }

    std::string answer(std::string const& command) {
        ProcessCommand(command, fd());
        return written();
    }

private:
    int ends_[2];
};

TEST_F(Cmd, a_word_belongs_to_the_last_who_registered_it_until_it_is_unregistered) {
    std::string seen;
    orn::zel::cmd::Register("tasks", [&](std::string const& args, int to) {
        seen += "one(" + args + (to == fd() ? ")" : ") elsewhere");
    });
    for (std::string const command : {"tasks", "tasks  a  b ", "tasks \ta", "tasks\ta"})
        ProcessCommand(command, fd());
    EXPECT_EQ("1/1 tasks\ta\n", written());
    orn::zel::RegisterCommandModule("tasks", [&](std::string const& args, int) { seen += "two" + args; });
    ProcessCommand("tasks", fd());
    EXPECT_EQ("one()one(a  b )one(\ta)two", seen);
    EXPECT_EQ("nothing", written()) << "handlers answer for themselves";
    orn::zel::UnregisterCommandModule("tasks");
    orn::zel::UnregisterCommandModule("tasks");
    EXPECT_EQ("1/1 tasks\n", answer("tasks"));

    orn::zel::cmd::Register("throw", [](std::string const&, int) { throw 1; });
    EXPECT_THROW(ProcessCommand("throw", fd()), int);
    orn::zel::cmd::Register("throw", orn::zel::cmd::Handler());
    EXPECT_EQ("1/1 throw\n", answer("throw")) << "an empty handler is none";
}

TEST_F(Cmd, a_handler_may_take_its_own_word_away_and_what_it_held_may_use_the_registry) {
    struct Held {
        ~Held() {
            orn::zel::cmd::Register("after", [](std::string const&, int) {});
        }
    };
    auto held = std::make_shared<Held>();
    std::weak_ptr<Held> const alive = held;
    orn::zel::cmd::Register("self", [held, alive](std::string const&, int to) {
        orn::zel::cmd::Unregister("self");
        orn::zel::cmd::Write(to, alive.expired() ? "gone" : "alive");
    });
    held.reset();
    EXPECT_EQ("alive", answer("self"));
    EXPECT_TRUE(alive.expired());
    EXPECT_EQ("1/1 self\n", answer("self"));
    EXPECT_EQ("nothing", answer("after"));
}

TEST_F(Cmd, an_unknown_word_is_echoed_as_often_as_its_number_says_and_one_of_the_library_is_refused) {
    std::string all;
    for (std::string const command :
         {"foo", "", " 3 x", "-3 x", "3 x", "2", "0 x", "000", "zel x y", "zel", "zel monitor foo"})
        all += answer(command);
    EXPECT_EQ("1/1 foo\n1/1 \n1/1  3 x\n1/1 -3 x\n1/3 3 x\n2/3 3 x\n3/3 3 x\n1/2 2\n2/2 2\nnothingnothing"
              "[zel] x: no such command\n[zel] : no such command\nnothing",
              all);
}

TEST_F(Cmd, a_huge_number_fills_a_pipe_with_whole_lines_and_goes_no_further) {
    struct {
        int size;
        std::size_t written;
        std::size_t read; // so that what is free is less than what is missing
    } const pipes[] = {{65536, 0, 0}, {65536, 20001, 5000}, {8192, 20, 0}, {4096, 0, 0}, {4096, 20, 0}};
    for (auto const& each : pipes) {
        for (std::string const command : {"2000000000 x", "99999999999999999999999 x", "4294967296"}) {
            orn::os::Pipe const pipe(false);
            if (fcntl(pipe.WriteFD(), F_SETPIPE_SZ, each.size) != each.size)
                GTEST_SKIP() << "pages of this machine are larger";
            std::string some(each.written, '-');
            support::put(pipe.WriteFD(), some);
            ASSERT_EQ(static_cast<ssize_t>(each.read), read(pipe.ReadFD(), &some[0], each.read));
            ProcessCommand(command, pipe.WriteFD());
            std::string const text = support::take(pipe.ReadFD());
            ASSERT_GT(text.size(), static_cast<std::size_t>(each.size) * 2 / 5) << command;
            std::string const last = text.substr(text.rfind('\n', text.size() - 2) + 1);
            std::string const lines = std::to_string(std::min(2147483647L, std::atol(command.c_str())));
            EXPECT_EQ('/' + lines + ' ' + command + '\n', last.substr(last.find('/')));
        }
    }
}

TEST_F(Cmd, monitors_are_switched_although_a_line_waits_in_an_observer_that_blocks) {
    orn::os::Pipe const full(true);
    for (int left = fcntl(full.WriteFD(), F_GETPIPE_SZ); left > 0; --left)
        ASSERT_EQ(1, write(full.WriteFD(), "x", 1));
    orn::zel::thread::MonitorThread("", full.WriteFD());
    std::atomic<int> reporter(0);
    std::thread reporting([&] {
        reporter = orn::zel::thread::self();
        orn::zel::thread::display_thread_op("waits");
    });
    EXPECT_TRUE(support::wait_until([&] { return reporter != 0 && support::is_asleep(reporter); }));
    std::future<std::string> const switched =
        std::async(std::launch::async, [&] { return answer("zel monitor thread"); });
    EXPECT_EQ(std::future_status::ready, switched.wait_for(std::chrono::seconds(5 * support::scale())));
    char text[65536];
    EXPECT_LT(0, read(full.ReadFD(), text, sizeof text));
    reporting.join();
    switched.wait();
    orn::zel::thread::display_thread_op("comes");
    EXPECT_NE(std::string::npos, written().find("thread comes"));
    ProcessCommand("zel unmonitor thread", fd());
}

TEST_F(Cmd, modules_are_loaded_as_often_as_asked_for_and_remembered_once) {
    std::string const module = QUIET_MODULE;
    std::string const both = answer("zel load " + module + "  libnone.so");
    EXPECT_EQ(0u, both.find(module + ": loaded\nlibnone.so: ")) << both;
    EXPECT_EQ('\n', both.back());
    EXPECT_EQ(module + ": loaded\n", answer("zel load " + module));
    EXPECT_EQ("libnone.so: not found\n" + module + ": unloaded\n", answer("zel unload libnone.so " + module));
    EXPECT_EQ(module + ": not found\n", answer("zel unload " + module));
}

TEST_F(Cmd, without_the_library_words_are_echoed_and_nothing_is_kept) {
    orn::zel::cmd::Register("kept", [](std::string const&, int) {});
    orn::zel::ZEL_unload__();
    orn::zel::cmd::Register("early", [](std::string const&, int) {});
    orn::zel::cmd::Unregister("kept");
    EXPECT_EQ("1/1 early\n", answer("early"));
    EXPECT_EQ("1/1 zel tasks\n", answer("zel tasks"));
    orn::zel::cmd::InstallCommandChannel();
    EXPECT_EQ(0u, support::threads_named(getpid(), "zel-command"));
    orn::zel::ZEL_load__();
    orn::zel::ZEL_load__(); // which leaves nothing of the first call behind
    EXPECT_EQ("1/1 early\n", answer("early"));
    EXPECT_EQ("1/1 kept\n", answer("kept"));
    EXPECT_EQ("TaskMgrs:\n", answer("zel tasks").substr(0, 10));
    EXPECT_NE("nothing", answer("zel signals"));
}

} // namespace
