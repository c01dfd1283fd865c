// SPDX-License-Identifier: MIT
//
// channel_client PID HOW COMMAND...: a client that sends the commands, says "ready" when the last of them has
// been taken, and then, as HOW says,
//
//     follow   turns its loop and prints each line that comes
//     flood    repeats the commands until one is not taken any more
#include <cstdio>
#include <cstdlib>
#include <string>

#include <orn/zel.hpp>

int main(int argc, char** argv) {
    if (argc < 4)
        return 2;
    std::string const how = argv[2];
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    orn::zel::cmd::Channel target = orn::zel::Connect(std::atoi(argv[1]), [&](std::string const& line) {
        if (how == "follow")
            std::puts(line.c_str());
    });
    bool taken = true;
    auto const send_all = [&] {
        for (int i = 3; i < argc && taken; ++i)
            taken = target.Command(argv[i]) > 0;
    };
    send_all();
    std::puts("ready");
    while (how == "flood" && taken)
        send_all();
    while (taken)
        orn::zel::RunOnce(-1);
}
