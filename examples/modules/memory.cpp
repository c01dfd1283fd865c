// SPDX-License-Identifier: MIT
//
// A module for ZEL_PRELOAD. A process that has the library then answers the word "memory" with the memory
// that it uses and the most that it has used. Nothing else in the process has to know of the module.
#include <fstream>
#include <string>

#include <orn/zel.hpp>

namespace {

// Writes the whole answer at once, so that no line of another thread's monitor comes between.
void memory(std::string const&, int fd) {
    std::ifstream status("/proc/self/status");
    std::string answer;
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0 || line.compare(0, 6, "VmRSS:") == 0)
            answer += line + '\n';
    }
    orn::zel::cmd::Write(fd, answer);
}

struct Module {
    Module() { orn::zel::RegisterCommandModule("memory", memory); }
    ~Module() { orn::zel::UnregisterCommandModule("memory"); }
} const module;

} // namespace
