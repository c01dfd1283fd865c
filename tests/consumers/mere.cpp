// SPDX-License-Identifier: MIT
//
// A program that is linked with zel and leaves all calls to its modules. The library has to be loaded even
// where the linker leaves out libraries that the program itself does not call.
#include <cstdlib>

#include <dlfcn.h>

int main() {
    return dlsym(RTLD_DEFAULT, "ZEL_Thread_create_extension") ? EXIT_SUCCESS : EXIT_FAILURE;
}
