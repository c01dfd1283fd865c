// SPDX-License-Identifier: MIT
//
// Composes an answer in one piece and writes it with one system call.
#include <cstdio>
#include <string>

#include <unistd.h>

#include <orn/os/Pipe.hpp>
#include <orn/zel.hpp>

int main() {
    orn::os::Pipe answers(true);
    // [use]
    orn::zel::cmd::Response line;
    line << "level=" << 3 << '\n';
    orn::zel::cmd::Write(answers.WriteFD(), line); // "tid=812 level=3\n"
    // [/use]
    char text[256];
    ssize_t const length = read(answers.ReadFD(), text, sizeof text);
    if (length <= 0) {
        std::perror("read");
        return 1;
    }
    std::string const answer(text, static_cast<std::size_t>(length));
    std::string const prefix = "tid=" + std::to_string(orn::zel::thread::self()) + ' ';
    if (answer.compare(0, prefix.size(), prefix) != 0)
        return 1;
    std::printf("after the thread's id: %s", answer.c_str() + prefix.size());
    return 0;
}
