// SPDX-License-Identifier: MIT
//
// A library that needs the C++ runtime and does nothing. It shows what loading costs before anything is done.
#include <string>

static std::string const nothing;

extern "C" __attribute__((visibility("default"))) char const* bench_empty() {
    return nothing.c_str();
}
