// SPDX-License-Identifier: MIT
//
// A library that writes a letter to the descriptor in PLATFORM_MODULE_FD when it is loaded and when it is
// unloaded, and, if built so, whenever one of its thread hooks runs.
#include <cstdlib>

#include <unistd.h>

#ifdef MODULE_HAS_HOOKS
#include <cstdint>
#include <orn/os/o_pthread.h>
#endif

namespace {

void tell(char const* letter) {
    char const* const fd = std::getenv("PLATFORM_MODULE_FD");
    if (fd && write(std::atoi(fd), letter, 1) != 1)
        std::abort();
}

#ifdef MODULE_HAS_HOOKS
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
void add_hooks() {
    void* const record[] = {reinterpret_cast<void*>(std::uintptr_t{0xDEAD}), reinterpret_cast<void*>(create),
                            reinterpret_cast<void*>(start), nullptr, reinterpret_cast<void*>(cleanup)};
    if (o_pthread_register_extension(record) != 0)
        std::abort();
}
#else
void add_hooks() {}
#endif

struct Presence {
    Presence() {
        tell(MODULE_COMES);
        add_hooks();
    }
    ~Presence() { tell(MODULE_GOES); }
} presence;

} // namespace
