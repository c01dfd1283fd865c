// SPDX-License-Identifier: MIT
//
// A program on a vendor's platform layer. It makes a thread with that layer, and zel's loop serves the
// thread. Program and loop have to use the same copy of the layer, the vendor's.
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

namespace {

bool of_the_vendor(char const* name) {
    void* const address = dlsym(RTLD_DEFAULT, name);
    Dl_info info = {};
    return address && dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "libvendor");
}

} // namespace

int main() {
    if (!of_the_vendor("o_pthread_create") || !of_the_vendor("o_msg_send") || !of_the_vendor("Log_SpecEntry"))
        return EXIT_FAILURE;
    orn::zel::id_t const group = orn::zel::GroupId();
    orn::zel::id_t others = 0;
    // Its hooks are zel's: the thread is a member of its creator's group, whose loop serves its alarm.
    bool rung = false;
    {
        orn::os::Thread const thread([&] {
            others = orn::zel::GroupId();
            orn::zel::SetAlarm(1, [&] { rung = true; });
            while (!rung)
                orn::zel::RunOnce(10000);
        });
    }
    return others == group ? EXIT_SUCCESS : EXIT_FAILURE;
}
