// SPDX-License-Identifier: MIT
//
// The thread layer: pthread_create() with hooks around it, and the cached kernel thread id. All state is
// constant-initialised and never destroyed, because threads come and go while static objects are built and
// taken down. Telling whether a hook's library is still mapped is left to mappedModule.hpp.
#include <orn/os/o_pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/forkHandlers.hpp>

#include "mappedModule.hpp"

namespace orn::os {
namespace {

// ---- The registered hooks -------------------------------------------------------------------------------

constexpr std::uintptr_t magic = 0xDEAD;
constexpr std::size_t hook_limit = 16;

struct Record {
    std::uintptr_t magic;
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

bool operator==(Record const& a, Record const& b) {
    return a.magic == b.magic && a.create == b.create && a.start == b.start && a.reserved == b.reserved &&
           a.cleanup == b.cleanup;
}

std::uintptr_t address_in(Record const& record) {
    if (record.create)
        return reinterpret_cast<std::uintptr_t>(record.create);
    if (record.start)
        return reinterpret_cast<std::uintptr_t>(record.start);
    return reinterpret_cast<std::uintptr_t>(record.cleanup);
}

struct Hooks {
    Record record = {};
    MappedModule module = {};
};

// False once the library that the hooks are in has been unmapped: calling them would end the process.
bool mapped(Hooks const& hooks) {
    return hooks.module.permanent || module_of(address_in(hooks.record)) == hooks.module;
}

struct HookList {
    Hooks hooks[hook_limit];
    std::size_t count = 0;

    template <class Condition>
    void remove_if(Condition const& condition) {
        count = static_cast<std::size_t>(std::remove_if(hooks, hooks + count, condition) - hooks);
    }
};

std::mutex registry_mutex; // a leaf: nothing is called under it
HookList registry;

void forget(Hooks const& gone) {
    std::lock_guard<std::mutex> const lock(registry_mutex);
    registry.remove_if(
        [&gone](Hooks const& hooks) { return hooks.record == gone.record && hooks.module == gone.module; });
}

// Forgets the hooks whose library has gone, and copies the others.
void take_registered(HookList& to) {
    {
        std::lock_guard<std::mutex> const lock(registry_mutex);
        to = registry;
    }
    // registry_mutex is free here: mapped() takes a lock of the dynamic linker's.
    to.remove_if([](Hooks const& hooks) {
        bool const gone = !mapped(hooks);
        if (gone)
            forget(hooks);
        return gone;
    });
}

// ---- A thread's start and end ---------------------------------------------------------------------------

// What the creating and the new thread share. The last of the two that is done with it frees it.
//
//     creating thread                              new thread
//     pthread_create()                             waits for the verdict
//     create hooks
//     verdict: run, or end when a hook threw       start hooks, body, cleanup hooks; or nothing
class Launch {
public:
    Launch(void* (*body)(void*), void* argument) : body_(body), argument_(argument) {
        take_registered(list_);
        sem_init(&decided_, 0, 0);
    }
    Launch(Launch const&) = delete;
    Launch& operator=(Launch const&) = delete;

    void release() {
        if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    void call_create_hooks() {
        for (std::size_t i = 0; i < list_.count; ++i) {
            if (list_.hooks[i].record.create)
                results_[i] = list_.hooks[i].record.create();
        }
    }

    void decide(bool run) {
        run_ = run;
        sem_post(&decided_);
    }

    bool wait_for_verdict() {
        while (sem_wait(&decided_) != 0) { // a signal
        }
        return run_;
    }

    void call_start_hooks() {
        for (std::size_t i = 0; i < list_.count; ++i) {
            Hooks const& hooks = list_.hooks[i];
            if (hooks.record.start && mapped(hooks))
                hooks.record.start(results_[i]);
        }
    }

    void call_cleanup_hooks() {
        for (std::size_t i = list_.count; i-- > 0;) {
            Hooks const& hooks = list_.hooks[i];
            if (hooks.record.cleanup && mapped(hooks))
                hooks.record.cleanup();
        }
    }

    void* call_body() { return body_(argument_); }

private:
    ~Launch() { sem_destroy(&decided_); }

    std::atomic<int> users_{2};
    sem_t decided_;
    bool run_ = false;
    void* (*body_)(void*);
    void* argument_;
    HookList list_;
    void* results_[hook_limit] = {}; // of the create hooks, for the start hooks
};

// Runs the cleanup hooks however the thread ends. They may meet cancellation points, and a request that is
// acted upon inside a destructor would end the process, so cancellation stays off from here to the end.
class Ending {
public:
    explicit Ending(Launch& launch) : launch_(launch) {}
    ~Ending() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        launch_.call_cleanup_hooks();
        launch_.release();
    }
    Ending(Ending const&) = delete;
    Ending& operator=(Ending const&) = delete;

private:
    Launch& launch_;
};

extern "C" void* orn_thread_start(void* argument) {
    std::optional<internal::CancelShield> shield(std::in_place);
    auto& launch = *static_cast<Launch*>(argument);
    if (!launch.wait_for_verdict()) {
        launch.release();
        return nullptr;
    }
    launch.call_start_hooks();
    Ending const ending(launch);
    shield.reset();
    return launch.call_body();
}

// Tells the new thread to run once it is committed. Without that, when a create hook throws or the creating
// thread is cancelled in one, it tells the new thread to end, and waits for it.
class PendingThread {
public:
    PendingThread(Launch& launch, pthread_t thread, bool detached)
        : launch_(launch), thread_(thread), detached_(detached) {}
    ~PendingThread() {
        launch_.decide(committed_);
        launch_.release();
        if (!committed_ && !detached_) {
            internal::CancelShield const shield;
            pthread_join(thread_, nullptr);
        }
    }
    void commit() { committed_ = true; }
    PendingThread(PendingThread const&) = delete;
    PendingThread& operator=(PendingThread const&) = delete;

private:
    Launch& launch_;
    pthread_t thread_;
    bool detached_;
    bool committed_ = false;
};

// ---- The caller's id ------------------------------------------------------------------------------------

thread_local int cached_tid = 0;

void before_fork() {
    registry_mutex.lock();
}
void after_fork_in_parent() {
    registry_mutex.unlock();
}
void after_fork_in_child() {
    registry_mutex.unlock();
    cached_tid = 0;
}

// Registered at load and not at the first use, because any thread that forks may hold a cached id.
internal::ForkHandlers const fork_handlers
    __attribute__((init_priority(101))) = {before_fork, after_fork_in_parent, after_fork_in_child};

} // namespace
} // namespace orn::os

extern "C" {

using namespace orn::os;

int o_pthread_create(o_pthread_t* thread, o_pthread_attr_t const* attr, void* (*start_routine)(void*),
                     void* argument) {
    Launch* const launch = new (std::nothrow) Launch(start_routine, argument);
    if (!launch)
        return EAGAIN;
    int detach_state = PTHREAD_CREATE_JOINABLE;
    if (attr)
        pthread_attr_getdetachstate(attr, &detach_state);
    int const error = pthread_create(thread, attr, orn_thread_start, launch);
    if (error != 0) {
        launch->release();
        launch->release();
        return error;
    }
    PendingThread pending(*launch, *thread, detach_state == PTHREAD_CREATE_DETACHED);
    launch->call_create_hooks();
    pending.commit();
    return 0;
}

int o_pthread_detach(o_pthread_t thread) {
    return pthread_detach(thread);
}

int o_pthread_self(void) {
    int const tid = cached_tid; // read once: looking it up takes a call
    return tid != 0 ? tid : cached_tid = static_cast<int>(syscall(SYS_gettid));
}

void o_pthread_exit(void* result) {
    pthread_exit(result);
}

int o_pthread_join(o_pthread_t thread, void** result) {
    return pthread_join(thread, result);
}

int o_pthread_cancel(o_pthread_t thread) {
    return pthread_cancel(thread);
}

int o_pthread_mutex_init(o_pthread_mutex_t* mutex, o_pthread_mutexattr_t const* attr) {
    return pthread_mutex_init(mutex, attr);
}

int o_pthread_mutex_destroy(o_pthread_mutex_t* mutex) {
    return pthread_mutex_destroy(mutex);
}

int o_pthread_mutex_lock(o_pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int o_pthread_mutex_unlock(o_pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

int o_pthread_register_extension(void const* record) {
    if (!record)
        return EINVAL;
    Hooks added = {*static_cast<Record const*>(record), {}};
    added.module = module_of(address_in(added.record));
    if (added.record.magic != magic || added.module == MappedModule{})
        return EINVAL;
    HookList unused;
    take_registered(unused); // makes room: hooks of libraries that have gone are forgotten
    std::lock_guard<std::mutex> const lock(registry_mutex);
    for (std::size_t i = 0; i < registry.count; ++i) {
        if (registry.hooks[i].record == added.record)
            return 0;
    }
    if (registry.count == hook_limit)
        return ENOSPC;
    registry.hooks[registry.count++] = added;
    return 0;
}

} // extern "C"
