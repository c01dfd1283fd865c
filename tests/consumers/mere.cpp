// SPDX-License-Identifier: MIT
//
// A program that is linked with zel and leaves all calls to modules: the library has to come with it also
// where the linker leaves out what is not called.
#include <cstdlib>

#include <dlfcn.h>

int main() {
    return dlsym(RTLD_DEFAULT, "ZEL_Thread_create_extension") ? EXIT_SUCCESS : EXIT_FAILURE;
}
