// SPDX-License-Identifier: MIT
//
// Adds a command word and asks for it within the process. The next example asks from another process.
#include <cstdio>
#include <string>

#include <unistd.h>

#include <orn/os/Pipe.hpp>
#include <orn/zel.hpp>

namespace {

// [use]
void level(std::string const& args, int fd) {
    std::pair<std::string, std::string> const words = orn::zel::cmd::GetFirstWord(args);
    if (words.first == "set")
        orn::zel::cmd::Write(fd, "level is now " + words.second + "\n");
    else
        orn::zel::cmd::Write(fd, "level set NUMBER, not \"" + args + "\"\n");
}
// [/use]

// Prints what the command answers, which has to fit into a pipe.
void ask(char const* command) {
    orn::os::Pipe answers(false);
    orn::zel::cmd::ProcessCommand(command, answers.WriteFD());
    char text[512];
    ssize_t const length = read(answers.ReadFD(), text, sizeof text);
    std::printf("%s\n%.*s", command, static_cast<int>(length > 0 ? length : 0), text);
}

} // namespace

int main() {
    orn::zel::RegisterCommandModule("level", level);
    ask("level set 3");
    ask("level   lower  please"); // the blanks after the word go, the others stay
    ask("zel sing");
    orn::zel::UnregisterCommandModule("level");
    ask("level set 3"); // a word that nobody has is echoed
    ask("2 times");
    return 0;
}
