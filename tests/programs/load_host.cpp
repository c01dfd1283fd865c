// SPDX-License-Identifier: MIT
//
// load_host LIBRARY exit|close [global]: loads the library, which it does not link, and ends with 3, by
// exit() with the library still there, or after closing it. With a late client either way: signal 55 comes
// when exit() has taken the library down, and is as it was when the library has been closed.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <signal.h>

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    bool const closing = std::strcmp(argv[2], "close") == 0;
    if (!closing)
        atexit([] { raise(55); });
    void* const handle = dlopen(argv[1], RTLD_NOW | (argc > 3 ? RTLD_GLOBAL : RTLD_LOCAL));
    if (!handle) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    struct sigaction action = {};
    if (closing && (dlclose(handle) != 0 || sigaction(55, nullptr, &action) != 0))
        return 1;
    if (closing && action.sa_handler != SIG_DFL && !dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD))
        return 4;
    exit(3);
}
