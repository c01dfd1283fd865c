// SPDX-License-Identifier: MIT
//
// Two processes: the first starts the second, which serves a command word, and calls that word.
//
//     13_Connect          starts "13_Connect serve" and talks to it
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include <orn/zel.hpp>

namespace {

// A process can be asked once the thread that loaded the library runs its loop.
int serve() {
    orn::zel::RegisterCommandModule(
        "twice", [](std::string const& args, int fd) { orn::zel::cmd::Write(fd, args + ' ' + args + '\n'); });
    bool done = false;
    orn::zel::signal::AutoReceptor const end(SIGTERM, [&done](int) { done = true; });
    orn::zel::SetAlarm(0, [] { // once the loop turns this process can be asked, and says so
        std::printf("%d\n", getpid());
        std::fflush(stdout);
    });
    while (!done)
        orn::zel::RunOnce(-1);
    return 0;
}

void talk_to(int pid) {
    // [use]
    bool answered = false;
    orn::zel::cmd::Channel target = orn::zel::Connect(pid, [&answered](std::string const& line) {
        std::printf("%s\n", line.c_str());
        answered = line == "tea tea"; // an answer has no end mark
    });
    target.Command("twice tea");
    while (!answered)
        orn::zel::RunOnce(-1);
    // [/use]
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "serve") == 0)
        return serve();
    FILE* const server = popen(("exec '" + std::string(argv[0]) + "' serve").c_str(), "re");
    int pid = 0;
    if (!server || std::fscanf(server, "%d", &pid) != 1) // NOLINT(cert-err34-c): no number, no process
        return 1;
    talk_to(pid);
    kill(pid, SIGTERM);
    int const status = pclose(server);
    std::printf("the other one ended with %d\n", status);
    return status == 0 ? 0 : 1;
}
