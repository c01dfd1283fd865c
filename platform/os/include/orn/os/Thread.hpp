// SPDX-License-Identifier: MIT
//
// A thread that runs one function and is joined by its destructor. Public; the library runs its own service
// threads with it. Starting in two phases, stopping and results are left to orn::zel::Thread.
#ifndef ORN_OS_THREAD_HPP
#define ORN_OS_THREAD_HPP

#include <boost/function.hpp>

#include <orn/api.h>
#include <orn/os/o_pthread.h>

namespace orn::os {

class ORN_API Thread {
public:
    // Starts the thread at once, with o_pthread_create(), so the registered hooks run. The new thread owns
    // the function and destroys it when it has ended. An exception that leaves the function ends the process.
    // Throws std::system_error (generic category, text "thread") when no thread can be made.
    explicit Thread(boost::function<void()> body);

    // Waits until the thread has ended. Called by the thread itself it detaches the thread and does not wait.
    ~Thread();

    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

private:
    o_pthread_t handle_;
};

} // namespace orn::os

#endif
