// SPDX-License-Identifier: MIT
//
// Part of the shared library only: what makes loading it bring it up, and unloading it take it down. One
// static object does both, because static destructors and destructor functions run in different orders in
// exit() and in dlclose().
#include <orn/zel/load.hpp>
#include <orn/zel/signal.hpp>

namespace orn {
namespace zel {

namespace {

class Lifecycle {
public:
    Lifecycle() { ZEL_load__(); }
    ~Lifecycle() {
        ZEL_unload__();
        signal::release_managers();
    }
    Lifecycle(Lifecycle const&) = delete;
    Lifecycle& operator=(Lifecycle const&) = delete;
};

Lifecycle const lifecycle;

} // namespace

} // namespace zel
} // namespace orn
