// SPDX-License-Identifier: MIT
//
// A library that registers thread hooks. It writes a letter to the descriptor in PLATFORM_MODULE_FD when it
// is loaded, when it is unloaded, and whenever one of its hooks runs.
#include <cstdint>
#include <cstdlib>

#include <unistd.h>

#include <orn/os/o_pthread.h>

namespace {

void tell(char const* letter) {
    char const* const fd = std::getenv("PLATFORM_MODULE_FD");
    if (fd && write(std::atoi(fd), letter, 1) != 1)
        std::abort();
}

void* create() {
    tell("1");
    return nullptr;
}
int start(void*) {
    tell("2");
    return 0;
}
int cleanup() {
    tell("3");
    return 0;
}

struct Presence {
    Presence() {
        tell("H");
        void* const record[] = {reinterpret_cast<void*>(std::uintptr_t{0xDEAD}),
                                reinterpret_cast<void*>(create), reinterpret_cast<void*>(start), nullptr,
                                reinterpret_cast<void*>(cleanup)};
        if (o_pthread_register_extension(record) != 0)
            std::abort();
    }
    ~Presence() { tell("h"); }
} presence;

} // namespace
