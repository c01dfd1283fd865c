// SPDX-License-Identifier: MIT
//
// A library that registers thread hooks. It has the program note when it is loaded, when it is unloaded, and
// whenever one of its hooks runs.
#include <cstdint>
#include <cstdlib>

#include <orn/os/o_pthread.h>

extern "C" int note(char const* word);

namespace {

struct Presence {
    Presence() {
        note("loaded");
        if (o_pthread_register_extension(&record) != 0)
            std::abort();
    }
    ~Presence() { note("unloaded"); }

    struct {
        std::uintptr_t magic = 0xDEAD;
        void* (*create)() = []() -> void* {
            note("create");
            return nullptr;
        };
        int (*start)(void*) = [](void*) { return note("start"); };
        void* reserved = nullptr;
        int (*cleanup)() = [] { return note("cleanup"); };
    } record;
} presence;

} // namespace
