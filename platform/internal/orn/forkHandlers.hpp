// SPDX-License-Identifier: MIT
//
// Fork handlers that a library registers when it is loaded. Internal to the platform; not installed. The C
// library removes them when the library is unmapped.
#ifndef ORN_FORKHANDLERS_HPP
#define ORN_FORKHANDLERS_HPP

#include <atomic>

#include <pthread.h>

namespace orn::internal {

// For a static object. A thread that is in dlopen() while another one is in exit() has the loader run
// constructors again, and handlers that are registered twice lock their mutex twice: fork() would hang. The
// flag, which has to be constant-initialised, keeps that from happening.
class ForkHandlers {
public:
    ForkHandlers(std::atomic<bool>& registered, void (*before)(), void (*in_parent)(), void (*in_child)()) {
        if (!registered.exchange(true))
            pthread_atfork(before, in_parent, in_child);
    }
};

} // namespace orn::internal

#endif
