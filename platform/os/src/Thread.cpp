// SPDX-License-Identifier: MIT
//
// orn::os::Thread over o_pthread_create().
#include <orn/os/Thread.hpp>

#include <memory>
#include <system_error>
#include <utility>

#include <pthread.h>

#include <orn/cancel.hpp>

namespace orn::os {
namespace {

using Body = boost::function<void()>;

void* run(void* argument) {
    // The thread owns it and not the object, because the function may destroy the object while it runs.
    std::unique_ptr<Body> body(static_cast<Body*>(argument));
    (*body)();
    return nullptr;
}

} // namespace

Thread::Thread(boost::function<void()> body) : handle_() {
    auto owned = std::make_unique<Body>(std::move(body));
    int const error = o_pthread_create(&handle_, nullptr, run, owned.get());
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "thread");
    owned.release();
}

Thread::~Thread() {
    if (pthread_equal(handle_, pthread_self()) != 0) {
        o_pthread_detach(handle_);
        return;
    }
    internal::CancelShield const shield;
    o_pthread_join(handle_, nullptr);
}

} // namespace orn::os
