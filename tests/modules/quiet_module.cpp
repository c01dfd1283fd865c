// SPDX-License-Identifier: MIT
//
// A module that needs zel but constructs and destroys nothing, so that its host may load and unload it in the
// middle of exit().
#include <orn/zel/threadGroup.hpp>

extern "C" ORN_API int quiet_module_thread() {
    return orn::zel::thread::self();
}
