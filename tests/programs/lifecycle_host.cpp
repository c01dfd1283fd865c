// SPDX-License-Identifier: MIT
//
// lifecycle_host LIBRARY exit|close: loads the library, which it does not link, and ends with 3, by exit()
// with the library still there, or after closing it.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    void* const handle = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    if (std::strcmp(argv[2], "close") == 0 && dlclose(handle) != 0)
        return 1;
    exit(3);
}
