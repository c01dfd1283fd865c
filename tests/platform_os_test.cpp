// SPDX-License-Identifier: MIT
//
// Pipes, threads and their hooks.
#include <cstdint>
#include <future>

#include <sys/syscall.h>

#include <orn/LibLoader.hpp>
#include <orn/os/Pipe.hpp>
#include <orn/os/Thread.hpp>
#include <orn/os/o_pthread.h>

#include "support/Common.hpp"

namespace {

using orn::os::Pipe;
using support::put;
using support::take;

Pipe const trace(false);

} // namespace

// Also for the library with hooks. A cancellation point: in a hook, an open request must not be acted on.
extern "C" ORN_API int note(char const* word) {
    put(trace.WriteFD(), word + std::string(" "));
    return 0;
}

namespace {

TEST(PlatformPipe, takes_no_standard_descriptor_even_where_they_are_closed) {
    int const kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    close(STDIN_FILENO);
    {
        Pipe const pipe(false);
        EXPECT_LT(STDERR_FILENO, pipe.ReadFD());
        EXPECT_LT(STDERR_FILENO, pipe.WriteFD());
        EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "the descriptor below is left open";
    }
    dup2(kept, STDIN_FILENO);
    close(kept);
}

// ---- Hooks that leave a trace ---------------------------------------------------------------------------

bool create_throws = false; // the main thread's only

std::string take_trace() {
    return take(trace.ReadFD());
}

struct Extension {
    std::uintptr_t magic;
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

void* create_a() {
    note("create-a");
    static std::string text("start-from-a");
    return &text;
}
void* create_b() {
    if (create_throws)
        throw std::runtime_error("create");
    note("create-b");
    return nullptr;
}
int start_a(void* result) {
    return note(static_cast<std::string*>(result)->c_str());
}
Extension const a = {0xDEAD, create_a, start_a, nullptr, [] { return note("cleanup-a"); }};
Extension const b = {0xDEAD, create_b, nullptr, nullptr, [] { return note("cleanup-b"); }};
Extension const bad = {0xBEEF, a.create, a.start, nullptr, a.cleanup};

void* end_by_return(void*) {
    note("body");
    return nullptr;
}
void* end_by_exit(void*) {
    note("body");
    o_pthread_exit(nullptr);
}
void* return_with_cancellation_pending(void*) {
    note("body");
    o_pthread_cancel(pthread_self());
    return nullptr;
}
void* end_by_cancellation(void*) {
    return_with_cancellation_pending(nullptr);
    // Not a blocking call: ThreadSanitizer loses track of a thread that is cancelled inside one of those.
    for (;;)
        pthread_testcancel();
}

class PlatformThreadHooks : public ::testing::Test {
protected:
    PlatformThreadHooks() {
        EXPECT_EQ(EINVAL, o_pthread_register_extension(&bad));
        for (int i = 0; i < 20; ++i) { // equal ones add nothing, and take no place
            EXPECT_EQ(0, o_pthread_register_extension(&a));
            EXPECT_EQ(0, o_pthread_register_extension(&b));
        }
        take_trace(); // of threads of other cases: hooks stay
    }
};

TEST_F(PlatformThreadHooks, clean_up_in_reverse_order_however_the_thread_ends) {
    for (auto* const body :
         {end_by_return, end_by_exit, end_by_cancellation, return_with_cancellation_pending}) {
        o_pthread_t thread;
        ASSERT_EQ(0, o_pthread_create(&thread, nullptr, body, nullptr));
        ASSERT_EQ(0, o_pthread_join(thread, nullptr));
        // The new thread waits for the create hooks; from there on it is alone.
        EXPECT_EQ("create-a create-b start-from-a body cleanup-b cleanup-a ", take_trace());
    }
}

TEST_F(PlatformThreadHooks, run_nothing_in_a_thread_that_cannot_be_made_or_whose_creation_a_hook_refuses) {
    pthread_attr_t detached;
    pthread_attr_t huge;
    pthread_attr_init(&detached);
    pthread_attr_init(&huge);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    ASSERT_EQ(0, pthread_attr_setstacksize(&huge, SIZE_MAX / 16 * 15)); // no room for that anywhere
    o_pthread_t thread;
    EXPECT_NE(0, o_pthread_create(&thread, &huge, end_by_return, nullptr));
    EXPECT_EQ("", take_trace());
    create_throws = true;
    for (auto* const attributes : {static_cast<pthread_attr_t*>(nullptr), &detached}) {
        EXPECT_THROW(o_pthread_create(&thread, attributes, end_by_return, nullptr), std::runtime_error);
        EXPECT_EQ("create-a ", take_trace());
    }
    create_throws = false;
    ASSERT_EQ(0, o_pthread_create(&thread, &detached, end_by_return, nullptr));
    std::string all;
    EXPECT_TRUE(support::wait_until([&] { return (all += take_trace()).find("cleanup-a ") != all.npos; }));
    pthread_attr_destroy(&detached);
    pthread_attr_destroy(&huge);
}

TEST_F(PlatformThreadHooks, go_with_the_library_that_brought_them) {
    orn::LibLoader loader;
    auto const run_a_thread = [] { orn::os::Thread const joined([] { note("body"); }); };
    for (int round = 0; round < 20; ++round) { // more than there are places
        ASSERT_TRUE(loader.load(MODULE_HOOKS));
        run_a_thread();
        { // unloaded between a thread's start and its end
            std::promise<void> started;
            std::promise<void> gone;
            orn::os::Thread const across([&] {
                started.set_value();
                gone.get_future().wait();
            });
            started.get_future().wait();
            loader.unload();
            gone.set_value();
        }
        run_a_thread();
        EXPECT_EQ("loaded create-a create-b create start-from-a start body cleanup cleanup-b cleanup-a "
                  "create-a create-b create start-from-a start unloaded cleanup-b cleanup-a "
                  "create-a create-b start-from-a body cleanup-b cleanup-a ",
                  take_trace());
    }
}

TEST(PlatformThread, may_destroy_its_own_object) {
    auto alive = std::make_shared<int>(42);
    std::promise<orn::os::Thread*> self;
    std::promise<int> tid;
    int seen = 0;
    self.set_value(new orn::os::Thread([&self, &tid, &seen, alive] {
        delete self.get_future().get();
        seen = *alive;
        tid.set_value(o_pthread_self());
    }));
    int const ended = tid.get_future().get();
    EXPECT_EQ(42, seen);
    // Its hooks are not to run in another case.
    EXPECT_TRUE(support::wait_until([&] { return support::threads().count(ended) == 0; }));
}

} // namespace
