// SPDX-License-Identifier: MIT
//
// A module with a command word of its own, "greet".
#include <orn/zel/cmd.hpp>

namespace {

void greet(std::string const& whom, int fd) {
    orn::zel::cmd::Write(fd, "hello " + whom + '\n');
}

struct Presence {
    Presence() { orn::zel::RegisterCommandModule("greet", greet); }
    ~Presence() { orn::zel::UnregisterCommandModule("greet"); }
} presence;

} // namespace
