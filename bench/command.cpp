// SPDX-License-Identifier: MIT
//
// Measures a command to another process, until the first line of its answer has arrived. The bare exchange
// sends the same text over a connection of its own to a local socket, and the other side writes one line into
// a pipe that it has inherited. Both other sides are this program, started again.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <orn/zel.hpp>

#include "versus.hpp"

namespace {

char const role_variable[] = "ZEL_BENCH_ROLE";
char const command[] = "0 a command that nobody has";

sockaddr_un address_of(int pid, socklen_t& length) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string const name = "zel.bench." + std::to_string(pid);
    std::memcpy(address.sun_path + 1, name.data(), name.size()); // abstract: begins with a NUL
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

[[noreturn]] void serve_bare() {
    int const listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    socklen_t length;
    sockaddr_un const address = address_of(getpid(), length);
    if (bind(listener, reinterpret_cast<sockaddr const*>(&address), length) != 0 || listen(listener, 64) != 0)
        _exit(1);
    for (;;) {
        pollfd set = {listener, POLLIN, 0};
        poll(&set, 1, -1);
        int const client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        char text[256];
        ssize_t const got = recv(client, text, sizeof text, 0);
        close(client);
        std::string const line =
            "received \"" + std::string(text, static_cast<std::size_t>(got > 0 ? got - 1 : 0)) + "\"\n";
        if (write(STDOUT_FILENO, line.data(), line.size()) < 0)
            _exit(1);
    }
}

[[noreturn]] void serve_zel() {
    for (;;)
        orn::zel::RunOnce(-1);
}

// Runs before main(), and never returns when this process is the other side.
__attribute__((constructor)) void take_role() {
    char const* const role = std::getenv(role_variable);
    if (!role)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (std::strcmp(role, "bare") == 0)
        serve_bare();
    serve_zel();
}

// Another process that runs this program in a role, with its standard output in a pipe.
class Peer {
public:
    explicit Peer(char const* role) : pid_(fork()) {
        if (pid_ != 0)
            return;
        dup2(output_.write_end(), STDOUT_FILENO);
        setenv(role_variable, role, 1);
        execl("/proc/self/exe", "peer", static_cast<char*>(nullptr));
        _exit(127);
    }
    ~Peer() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    int pid() const { return pid_; }
    int output() const { return output_.read_end(); }

private:
    bench::Pipe output_;
    pid_t const pid_;
};

// Waits until the process catches signal 55, which would end it before the library has been loaded. Its name
// is checked as well, since before exec() the process still catches the signal as a copy of this one.
void await_library(int pid) {
    std::string const directory = "/proc/" + std::to_string(pid);
    std::string const key = "SigCgt:"; // a set of signals in hexadecimal; bit 54 is that of signal 55
    for (int tries = 0; tries < 5000; ++tries) {
        std::string name;
        std::getline(std::ifstream(directory + "/cmdline"), name, '\0');
        std::ifstream status(directory + "/status");
        std::string line;
        while (name == "peer" && std::getline(status, line)) {
            if (line.compare(0, key.size(), key) == 0 &&
                (std::stoull(line.substr(key.size()), nullptr, 16) >> 54 & 1) != 0)
                return;
        }
        usleep(1000);
    }
    throw std::runtime_error("the other process has not loaded the library");
}

bool ask_bare(int pid) {
    int const connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    socklen_t length;
    sockaddr_un const address = address_of(pid, length);
    bool const sent =
        connect(connection, reinterpret_cast<sockaddr const*>(&address), length) == 0 &&
        send(connection, command, sizeof command, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof command);
    close(connection);
    return sent;
}

void exchange_bare(Peer& peer) {
    bench::expect(ask_bare(peer.pid()), "the bare command was not sent");
    pollfd set = {peer.output(), POLLIN, 0};
    bench::expect(poll(&set, 1, 5000) == 1, "no answer to the bare command");
    char text[256];
    bench::expect(read(peer.output(), text, sizeof text) > 0, "no answer to the bare command");
}

void command_round_trip(benchmark::State& state) {
    state.SetLabel("a command to another process and the first line of its answer");
    try {
        Peer zel_peer("zel");
        Peer bare_peer("bare");
        await_library(zel_peer.pid());
        long lines = 0;
        orn::zel::cmd::Channel channel =
            orn::zel::Connect(zel_peer.pid(), [&lines](std::string const& line) { lines += !line.empty(); });
        for (int tries = 0; !ask_bare(bare_peer.pid()); ++tries) {
            bench::expect(tries < 5000, "the bare peer does not listen");
            usleep(1000);
        }
        pollfd set = {bare_peer.output(), POLLIN, 0};
        bench::expect(poll(&set, 1, 5000) == 1, "no answer to the bare command");
        bench::drain(bare_peer.output());

        bench::Versus versus(state, 20, "us");
        versus.leg("zel", [&](long count) {
            long const before = lines;
            double const time = bench::timed([&] {
                for (long i = 1; i <= count; ++i) {
                    bench::expect(channel.Command(command) > 0, "the command was not sent");
                    while (lines < before + i)
                        bench::expect(orn::zel::RunOnce(5000) != 0, "no answer to the command");
                }
            });
            bench::expect(lines == before + count, "commands and answers do not match");
            return time;
        });
        versus.leg("bare", [&](long count) {
            return bench::timed([&] {
                for (long i = 0; i < count; ++i)
                    exchange_bare(bare_peer);
            });
        });
        versus.run();
    } catch (std::exception const& failure) {
        state.SkipWithError(failure.what());
    }
}
BENCHMARK(command_round_trip)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
