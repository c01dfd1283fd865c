// SPDX-License-Identifier: MIT
//
// The thread layer: hooks around pthread_create(), and the cached kernel thread id. All state is
// constant-initialised and never destroyed: threads come and go while static objects are built and taken
// down.
#include <orn/os/o_pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <link.h>
#include <mutex>
#include <new>
#include <optional>
#include <orn/cancel.hpp>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::uintptr_t magic = 0xDEAD;
constexpr std::size_t hook_limit = 16;

struct Record {
    std::uintptr_t magic;
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

bool equal(Record const& a, Record const& b) {
    return a.magic == b.magic && a.create == b.create && a.start == b.start && a.reserved == b.reserved &&
           a.cleanup == b.cleanup;
}

// ---------------------------------------------------------------- which library a hook belongs to

// What tells one mapped library from another that comes to lie at the same address later: its place, its name
// and its layout. Nothing is mapped where base is 0 and the digest too.
struct Module {
    std::uintptr_t base = 0;
    std::uint64_t digest = 0;
    bool permanent = false; // holds this code or the program itself: mapped as long as anybody can ask
};

bool operator==(Module const& a, Module const& b) {
    return a.base == b.base && a.digest == b.digest;
}

std::uint64_t digest_of(void const* bytes, std::size_t size, std::uint64_t digest) {
    auto const* at = static_cast<unsigned char const*>(bytes);
    for (std::size_t i = 0; i < size; ++i)
        digest = (digest ^ at[i]) * 1099511628211u;
    return digest;
}

struct Search {
    std::uintptr_t address;
    Module found;
    bool first;
};

bool holds(dl_phdr_info const& object, std::uintptr_t address) {
    for (std::size_t i = 0; i < object.dlpi_phnum; ++i) {
        auto const& segment = object.dlpi_phdr[i];
        // Wraps below the segment, which is then too far off as well.
        if (segment.p_type == PT_LOAD && address - (object.dlpi_addr + segment.p_vaddr) < segment.p_memsz)
            return true;
    }
    return false;
}

int look_at(dl_phdr_info* object, std::size_t, void* argument) {
    auto& search = *static_cast<Search*>(argument);
    bool const program = search.first;
    search.first = false;
    if (!holds(*object, search.address))
        return 0;
    std::uint64_t digest = 14695981039346656037u;
    for (char const* name = object->dlpi_name; name != nullptr && *name != '\0'; ++name)
        digest = digest_of(name, 1, digest);
    digest = digest_of(object->dlpi_phdr, object->dlpi_phnum * sizeof *object->dlpi_phdr, digest);
    search.found = {object->dlpi_addr, digest,
                    program || holds(*object, reinterpret_cast<std::uintptr_t>(&look_at))};
    return 1;
}

// dl_iterate_phdr() and not dladdr(): its lock is not held while a library's destructors run, and those may
// be waiting for the very thread that asks.
bool module_of(Record const& record, Module& module) {
    auto address = reinterpret_cast<std::uintptr_t>(record.create);
    if (address == 0)
        address = reinterpret_cast<std::uintptr_t>(record.start);
    if (address == 0)
        address = reinterpret_cast<std::uintptr_t>(record.cleanup);
    Search search = {address, {}, true};
    if (dl_iterate_phdr(look_at, &search) == 0)
        return false;
    module = search.found;
    return true;
}

// ---------------------------------------------------------------- the registered hooks

// Constant-initialised: hooks are registered while the static objects of the process are still being made.
struct Hooks {
    Record record = {};
    Module module = {};
};

bool mapped(Hooks const& hooks) {
    Module now;
    return hooks.module.permanent || (module_of(hooks.record, now) && now == hooks.module);
}

std::mutex registry_mutex; // leaf: held for copying only
Hooks registry[hook_limit] = {};
std::size_t registered = 0;

struct Snapshot {
    Hooks hooks[hook_limit];
    std::size_t count = 0;
};

void forget(Hooks const& gone) {
    std::lock_guard<std::mutex> lock(registry_mutex);
    auto const end = std::remove_if(registry, registry + registered, [&gone](Hooks const& hooks) {
        return equal(hooks.record, gone.record) && hooks.module == gone.module;
    });
    registered = static_cast<std::size_t>(end - registry);
}

// Copies what is registered, and forgets the hooks whose library has gone.
void take(Snapshot& to) {
    {
        std::lock_guard<std::mutex> lock(registry_mutex);
        for (std::size_t i = 0; i < registered; ++i)
            to.hooks[i] = registry[i];
        to.count = registered;
    }
    auto const end = std::remove_if(to.hooks, to.hooks + to.count, [](Hooks const& hooks) {
        bool const gone = !mapped(hooks);
        if (gone)
            forget(hooks);
        return gone;
    });
    to.count = static_cast<std::size_t>(end - to.hooks);
}

// ---------------------------------------------------------------- a thread's start

// Shared by the creating and the new thread; the last one to be done with it frees it.
//
//     parent                                       child
//     pthread_create                               waits for verdict_
//     create hooks
//     verdict_: run, or end when a hook threw      start hooks, body, cleanup hooks; or nothing
class Launch {
public:
    Launch(void* (*body)(void*), void* argument) : body_(body), argument_(argument) {
        take(hooks_);
        sem_init(&verdict_, 0, 0);
    }

    void release() {
        if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    void call_create_hooks() {
        for (std::size_t i = 0; i < hooks_.count; ++i) {
            if (hooks_.hooks[i].record.create != nullptr)
                results_[i] = hooks_.hooks[i].record.create();
        }
    }

    void let_go(bool run) {
        run_ = run;
        sem_post(&verdict_);
    }

    bool wait() {
        while (sem_wait(&verdict_) != 0) { // a signal
        }
        return run_;
    }

    void call_start_hooks() {
        for (std::size_t i = 0; i < hooks_.count; ++i) {
            Hooks const& hooks = hooks_.hooks[i];
            if (hooks.record.start != nullptr && mapped(hooks))
                hooks.record.start(results_[i]);
        }
    }

    void call_cleanup_hooks() {
        for (std::size_t i = hooks_.count; i-- > 0;) {
            Hooks const& hooks = hooks_.hooks[i];
            if (hooks.record.cleanup != nullptr && mapped(hooks))
                hooks.record.cleanup();
        }
    }

    void* call_body() { return body_(argument_); }

private:
    ~Launch() { sem_destroy(&verdict_); }
    Launch(Launch const&) = delete;
    Launch& operator=(Launch const&) = delete;

    std::atomic<int> users_{2};
    sem_t verdict_;
    bool run_ = false;
    void* (*body_)(void*);
    void* argument_;
    Snapshot hooks_;
    void* results_[hook_limit] = {};
};

// Runs the cleanup hooks however the thread ends. They may meet cancellation points, and a request that is
// acted upon inside a destructor would end the process: cancellation is off for good from here.
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
    std::optional<orn::internal::CancelShield> shield(std::in_place);
    auto& launch = *static_cast<Launch*>(argument);
    if (!launch.wait()) {
        launch.release();
        return nullptr;
    }
    launch.call_start_hooks();
    Ending ending(launch);
    shield.reset();
    return launch.call_body();
}

// Ends the waiting thread when a create hook throws or the creating thread is cancelled in one.
class PendingThread {
public:
    PendingThread(Launch& launch, pthread_t thread, bool detached)
        : launch_(launch), thread_(thread), detached_(detached) {}
    ~PendingThread() {
        launch_.let_go(committed_);
        launch_.release();
        if (!committed_ && !detached_) {
            orn::internal::CancelShield const shield;
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

// ---------------------------------------------------------------- the caller's id

thread_local int cached_tid = 0;

void fork_prepare() {
    registry_mutex.lock();
}
void fork_parent() {
    registry_mutex.unlock();
}
void fork_child() {
    registry_mutex.unlock();
    cached_tid = 0;
}

// Registered at load: whoever forks may hold a cached id. The C library takes the handlers out when this
// library is unmapped. Once, also when the loader runs constructors again during exit(): fork() would take
// the lock twice.
std::atomic<bool> fork_handled{false};

struct ForkHandlers {
    ForkHandlers() {
        if (!fork_handled.exchange(true))
            pthread_atfork(fork_prepare, fork_parent, fork_child);
    }
};

ForkHandlers fork_handlers __attribute__((init_priority(101)));

} // namespace

extern "C" {

int o_pthread_create(o_pthread_t* thread, o_pthread_attr_t const* attr, void* (*start_routine)(void*),
                     void* argument) {
    Launch* const launch = new (std::nothrow) Launch(start_routine, argument);
    if (launch == nullptr)
        return EAGAIN;
    int detach_state = PTHREAD_CREATE_JOINABLE;
    if (attr != nullptr)
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
    if (cached_tid == 0)
        cached_tid = static_cast<int>(syscall(SYS_gettid));
    return cached_tid;
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
    if (record == nullptr)
        return EINVAL;
    Hooks added = {*static_cast<Record const*>(record), {}};
    if (added.record.magic != magic || !module_of(added.record, added.module))
        return EINVAL;
    Snapshot unused;
    take(unused); // makes room: hooks of libraries that have gone are forgotten
    std::lock_guard<std::mutex> lock(registry_mutex);
    for (std::size_t i = 0; i < registered; ++i) {
        if (equal(registry[i].record, added.record))
            return 0;
    }
    if (registered == hook_limit)
        return ENOSPC;
    registry[registered++] = added;
    return 0;
}

} // extern "C"
