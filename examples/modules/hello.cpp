// SPDX-License-Identifier: MIT
//
// A module that is loaded into a running process: zel load /path/to/libhello.so
// [module]
#include <string>
#include <unistd.h>

#include <orn/zel.hpp>

namespace {

// Runs on the command thread. The descriptor is the client's and stays open.
void hello(std::string const& args, int fd) {
    std::string const whom = args.empty() ? "world" : args;
    orn::zel::cmd::Write(fd, "hello " + whom + ", from process " + std::to_string(getpid()) + '\n');
}

// Made when the module is loaded, destroyed when it is unloaded.
struct Module {
    Module() { orn::zel::RegisterCommandModule("hello", hello); }
    ~Module() { orn::zel::UnregisterCommandModule("hello"); }
} const module;

} // namespace
// [/module]
