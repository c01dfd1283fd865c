// SPDX-License-Identifier: MIT
//
// A module that needs zel and has nothing to construct or to destroy: coming and going in the middle of
// exit() is its host's right.
#include <orn/zel/threadGroup.hpp>

extern "C" ORN_API int quiet_module_thread() {
    return orn::zel::thread::self();
}
