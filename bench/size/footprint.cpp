// SPDX-License-Identifier: MIT
//
// A process to be looked at by script/size, which builds it with zel and, as WITHOUT_ZEL, without. It says
// when it is ready, and ends with its input.
//
//     idle        uses nothing
//     worn        uses nothing any more, and has used the C++ library before as most programs do
//     used        has a group, an alarm and a task, and serves clients
//     client PID  is one: connects to that process, and is ready when it has been answered
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

#ifndef WITHOUT_ZEL
#include <orn/zel.hpp>
#endif

namespace {

void tell_ready() {
    std::puts("ready");
    std::fflush(stdout);
}

// From then on the pages of the C++ library that this needs are in memory, with zel or without.
void use_library() {
    std::map<std::string, int> lengths;
    std::ostringstream text;
    for (int i = 0; i < 100; ++i)
        lengths["number " + std::to_string(i)] = i;
    for (auto const& item : lengths)
        text << item.first << '=' << item.second << ' ';
    try {
        throw std::runtime_error(text.str());
    } catch (std::exception const& error) {
        lengths.erase(error.what());
    }
}

void wait_for_end() {
    char letter;
    while (read(STDIN_FILENO, &letter, 1) > 0) {
    }
}

#ifndef WITHOUT_ZEL
void use() {
    bool done = false;
    orn::zel::Alarm const alarm(3600000, [] {});
    orn::zel::Task task([](orn::zel::task::Controller* self) { self->Sleep(); });
    task.Run();
    orn::zel::RunOnce(-1);
    orn::zel::fd::AutoReceptor const input(STDIN_FILENO, [&done](orn::zel::fd::Event*) { done = true; });
    tell_ready();
    while (!done)
        orn::zel::RunOnce(-1);
}

void be_client(int pid) {
    bool answered = false;
    orn::zel::cmd::Channel target =
        orn::zel::Connect(pid, [&answered](std::string const&) { answered = true; });
    target.Command("1 size");
    while (!answered)
        orn::zel::RunOnce(-1);
    tell_ready();
    wait_for_end();
}
#endif

} // namespace

int main(int argc, char** argv) {
    std::string const kind = argc > 1 ? argv[1] : "";
    if (kind == "idle" || kind == "worn") {
        if (kind == "worn")
            use_library();
        tell_ready();
        wait_for_end();
        return 0;
    }
#ifndef WITHOUT_ZEL
    if (kind == "used") {
        use();
        return 0;
    }
    if (kind == "client" && argc > 2) {
        be_client(std::atoi(argv[2]));
        return 0;
    }
#endif
    throw std::invalid_argument(kind);
}
