// SPDX-License-Identifier: MIT
//
// Answers of the word "inspect" to clients that get to read late, or never. inspect_test is about what is
// told.
#include <fcntl.h>

#include "support/Viewer.hpp"

using namespace orn::zel;
using namespace support;

namespace {

// A client with a small pipe, which reads when it is told to. The process takes its word for who it is.
class Reader {
public:
    explicit Reader(int pid) : pid_(pid), pipe_(false) {
        fcntl(pipe_.WriteFD(), F_SETPIPE_SZ, 4096);
        cmd::InstallCommandChannel();
        EXPECT_TRUE(wait_until([this] { return send(cmd::message_connect, pipe_.WriteFD(), ""); }));
    }

    // Returns when the answer has filled the pipe.
    void ask(std::string const& what) {
        answer_.clear();
        EXPECT_TRUE(send(cmd::message_command, 0, "inspect " + what));
        EXPECT_TRUE(wait_until([this] { return !is_ready(pipe_.WriteFD(), POLLOUT); }));
    }

    // How many objects the answer has lost, when all of it is here; -1 when no end has come.
    int lost() {
        std::string const end = "\"lost\":";
        std::string::size_type at = std::string::npos;
        while ((at = answer_.find(end)) == std::string::npos && is_ready(pipe_.ReadFD(), POLLIN, 1000))
            answer_ += take(pipe_.ReadFD());
        return at == std::string::npos ? -1 : std::atoi(answer_.c_str() + at + end.size());
    }

private:
    bool send(int type, int fd, std::string const& text) {
        o_msg_t message = {};
        message.type = type;
        message.fd = fd;
        message.parts[message.count++] = {&pid_, sizeof pid_};
        if (!text.empty())
            message.parts[message.count++] = {const_cast<char*>(text.data()), text.size()};
        return o_msg_send(cmd::CmdQueueName(getpid()).c_str(), &message, 0) == o_msg_data_size(&message);
    }

    int pid_;
    orn::os::Pipe const pipe_;
    std::string answer_;
};

class InspectClient : public Loop {
protected:
    InspectClient() {
        for (int i = 0; i < 300; ++i) {
            tasks.push_back(std::make_unique<Task>([](task::Controller* task) { task->Sleep(); }));
            tasks.back()->Run();
        }
    }

    OpenChannel const channel;
    std::vector<std::unique_ptr<Task>> tasks; // more than the pipe takes
};

TEST_F(InspectClient, that_comes_to_read_when_its_pipe_is_full_gets_the_whole_answer) {
    Reader client(1);
    // A machine that is busy enough may keep it from the processor for longer than the process waits.
    int lost = 1;
    for (int tries = 0; lost != 0 && tries < 5; ++tries) {
        client.ask("tasks");
        lost = client.lost();
    }
    EXPECT_EQ(0, lost);
}

TEST_F(InspectClient, that_does_not_read_keeps_others_waiting_for_a_moment_only) {
    Reader stopped(1);
    Viewer other;
    stopped.ask("tasks");
    long const begin = milliseconds();
    EXPECT_EQ(1u, other.ask("process").size());
    EXPECT_LT(milliseconds() - begin, 1000 * scale());
    EXPECT_NE(0, stopped.lost()) << "in the meantime";
}

} // namespace
