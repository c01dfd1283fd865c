// SPDX-License-Identifier: MIT
//
// Part of the shared library only: what makes loading it bring it up, and unloading it take it down. One
// static object does both, because static destructors and destructor functions run in different orders in
// exit() and in dlclose().
#include <atomic>

#include <orn/mapping.hpp>
#include <orn/zel/load.hpp>
#include <orn/zel/signal.hpp>

#include "fork.hpp"
#include "shutdown.hpp"

namespace orn {
namespace zel {

namespace {

internal::Mapping mapping;
std::atomic<bool> ended(false);

__attribute__((destructor)) void note_destructors() {
    mapping.destructor_function();
}

// Constructed again while exit() takes it down, it does nothing, and is destroyed once.
class OnLoad {
public:
    OnLoad() {
        if (mapping.begin("ZEL_Thread_cleanup_extension"))
            ZEL_load__();
    }
    ~OnLoad() {
        if (ended.exchange(true))
            return;
        // What is there is the parent's, whose command thread, for one, may have held a lock when it was not
        // copied.
        if (!mapping.unmapped() && detail::in_unused_child())
            return;
        detail::Shutdown::begin(mapping.unmapped());
        ZEL_unload__();
        if (!detail::Shutdown::keeps())
            signal::release_managers();
        if (detail::Shutdown::unmapping())
            detail::Shutdown::let_threads_get_on();
    }
    OnLoad(OnLoad const&) = delete;
    OnLoad& operator=(OnLoad const&) = delete;
};

OnLoad const on_load;

} // namespace

} // namespace zel
} // namespace orn
