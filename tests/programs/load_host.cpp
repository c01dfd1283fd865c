// SPDX-License-Identifier: MIT
//
// load_host LIBRARY exit|close [global]: loads the library, which it does not link, and exits with 3, either
// with the library loaded or after closing it. In the first case it raises signal 55, as a late client does,
// when exit() has taken the library down. In the second it exits with 4 when closing has left the handler of
// that signal behind in code that has gone.
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
    if (!handle || (closing && dlclose(handle) != 0))
        return 1;
    struct sigaction action = {};
    sigaction(55, nullptr, &action);
    if (closing && action.sa_handler != SIG_DFL) {
        void* const still_there = dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD);
        if (!still_there)
            return 4;
        dlclose(still_there); // or this program would be what keeps it
    }
    exit(3);
}
