// SPDX-License-Identifier: MIT
//
// The fork handlers of one library. Internal to the platform and to zel; not installed. Header-only, because
// the two may be linked apart: each library has its own list of handlers.
//
// The C library gets one set of handlers, which runs the whole list, and withdraws that set only when it is
// told to. With pthread_atfork() it would also withdraw it in exit(), where other threads go on: a thread in
// the middle of fork() would then never open what the first handler has locked and blocked, and neither would
// its child. There is one set because glibc 2.36 aborts the process when two sets or more go during a fork().
#ifndef ORN_FORKHANDLERS_HPP
#define ORN_FORKHANDLERS_HPP

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include <cxxabi.h>
#include <pthread.h>

#include <orn/cancel.hpp>
#include <orn/clock.hpp>

#if defined(__GLIBC__) && !defined(__UCLIBC__)
// What pthread_atfork() calls. abi::__cxa_finalize() withdraws the handlers of the same owner.
extern "C" int __register_atfork( // NOLINT(readability-identifier-naming): the C library's
    void (*before)(), void (*in_parent)(), void (*in_child)(), void* owner);
#endif

namespace orn::internal {

// For a static object. The list that it adds to is constant-initialised and never destroyed, because other
// threads fork while exit() runs. The handler that is added last is the first that runs before a fork.
class ForkHandlers {
public:
    using Handler = void (*)();

    // Does nothing the second time: a thread that is in dlopen() while another one is in exit() has the
    // loader run constructors again, and handlers that run twice would lock their mutex twice.
    ForkHandlers(Handler before, Handler in_parent, Handler in_child);

    // For the destructors of static objects in dlclose(), after which this code is gone. Takes all of the
    // library's handlers back. Waits for forks that are under way, but for a second at most, because other
    // handlers of theirs may be waiting for this thread.
    static void withdraw();

private:
    static void prepare();
    static void parent();
    static void child();

    struct Handlers {
        Handler before; // this and the next one may be null
        Handler in_parent;
        Handler in_child;
    };

    static inline Handlers all[8] = {};
    static inline std::atomic<std::size_t> added{0};
    static inline std::atomic<int> under_way{0};
    static inline std::atomic<bool> withdrawn{false};
    // The thread whose fork has called the handlers, and how many of them: the loader may be adding more. The
    // handlers hold locks, so there is one such thread at a time. A thread_local object would not do: the
    // first use of one takes the dynamic linker's lock, which dlclose() holds while it waits here.
    static inline std::atomic<pthread_t> forking{pthread_t{}};
    static inline std::size_t called = 0;
};

inline ForkHandlers::ForkHandlers(Handler before, Handler in_parent, Handler in_child) {
    std::size_t const count = added;
    for (std::size_t i = 0; i < count; ++i) {
        if (all[i].in_child == in_child)
            return;
    }
    if (count == sizeof all / sizeof all[0])
        std::abort();
    all[count] = {before, in_parent, in_child};
    added = count + 1;
    if (count > 0)
        return;
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    __register_atfork(prepare, parent, child, all);
#else
    pthread_atfork(prepare, parent, child);
#endif
}

inline void ForkHandlers::withdraw() {
    CancelShield const shield;
    withdrawn = true;
    Patience const longest_fork(1000);
    while (under_way > 0 && longest_fork.nap()) {
    }
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    abi::__cxa_finalize(all);
#endif
}

inline void ForkHandlers::prepare() {
    ++under_way;
    if (withdrawn) {
        --under_way;
        return;
    }
    std::size_t const count = added;
    for (std::size_t i = count; i-- > 0;) {
        if (all[i].before)
            all[i].before();
    }
    called = count;
    forking = pthread_self(); // comes last, because a signal's handler may have forked until now
}

inline void ForkHandlers::parent() {
    if (pthread_equal(forking, pthread_self()) == 0)
        return; // withdrawn before this fork
    forking = pthread_t{};
    std::size_t const count = called;
    for (std::size_t i = 0; i < count; ++i) {
        if (all[i].in_parent)
            all[i].in_parent();
    }
    --under_way;
}

inline void ForkHandlers::child() {
    under_way = 0; // the child has no other thread
    if (pthread_equal(forking.exchange(pthread_t{}), pthread_self()) == 0)
        return;
    std::size_t const count = called;
    for (std::size_t i = 0; i < count; ++i)
        all[i].in_child();
}

} // namespace orn::internal

#endif
