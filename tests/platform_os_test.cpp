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

TEST(PlatformPipe, takes_no_standard_descriptor_even_where_they_are_closed) {
    int const kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    close(STDIN_FILENO);
    {
        Pipe const pipe(false);
        EXPECT_LT(STDERR_FILENO, pipe.ReadFD());
        EXPECT_LT(STDERR_FILENO, pipe.WriteFD());
        put(pipe.WriteFD(), "x");
        EXPECT_EQ("x", take(pipe.ReadFD()));
        EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "the descriptor below is left open";
    }
    dup2(kept, STDIN_FILENO);
    close(kept);
}

// ---- Hooks that leave a trace ---------------------------------------------------------------------------

std::mutex trace_mutex;
std::string trace;
bool create_throws = false; // the main thread's only
Pipe* last_words = nullptr;

void note(std::string const& word) {
    std::lock_guard<std::mutex> const guard(trace_mutex);
    trace += word + ' ';
}

std::string take_trace() {
    std::lock_guard<std::mutex> const guard(trace_mutex);
    return std::exchange(trace, "");
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
    static std::string text("from-a");
    return &text;
}
int start_a(void* result) {
    note("start-" + *static_cast<std::string*>(result));
    return 0;
}
int cleanup_a() {
    note("cleanup-a");
    // A cancellation point: a request that is still open must not be acted on here.
    return last_words ? static_cast<int>(write(last_words->WriteFD(), "bye", 3)) : 0;
}
Extension const a = {0xDEAD, create_a, start_a, nullptr, cleanup_a};

void* create_b() {
    if (create_throws)
        throw std::runtime_error("create");
    note("create-b");
    return nullptr;
}
int cleanup_b() {
    note("cleanup-b");
    return 0;
}
Extension const b = {0xDEAD, create_b, nullptr, nullptr, cleanup_b};

void* end_by_return(void*) {
    note("body");
    return nullptr;
}
void* end_by_exit(void*) {
    note("body");
    o_pthread_exit(nullptr);
}
void* return_with_cancellation_pending(void*) {
    o_pthread_cancel(pthread_self());
    return end_by_return(nullptr);
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
        for (int i = 0; i < 20; ++i) { // equal ones add nothing, and take no place
            EXPECT_EQ(0, o_pthread_register_extension(&a));
            EXPECT_EQ(0, o_pthread_register_extension(&b));
        }
        take_trace(); // of threads of other cases: hooks stay
        last_words = &pipe_;
    }
    ~PlatformThreadHooks() override {
        last_words = nullptr;
        take_trace();
    }

    std::string said() const { return take(pipe_.ReadFD()); }

private:
    Pipe pipe_{false};
};

TEST_F(PlatformThreadHooks, clean_up_in_reverse_order_however_the_thread_ends) {
    for (auto* const body :
         {end_by_return, end_by_exit, end_by_cancellation, return_with_cancellation_pending}) {
        o_pthread_t thread;
        ASSERT_EQ(0, o_pthread_create(&thread, nullptr, body, nullptr));
        ASSERT_EQ(0, o_pthread_join(thread, nullptr));
        // The new thread waits for the create hooks; from there on it is alone.
        EXPECT_EQ("create-a create-b start-from-a body cleanup-b cleanup-a ", take_trace());
        EXPECT_EQ("bye", said());
    }
}

TEST_F(PlatformThreadHooks, run_nothing_in_the_new_thread_when_the_one_for_its_creation_throws) {
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    create_throws = true;
    o_pthread_t thread;
    for (auto* const attributes : {static_cast<pthread_attr_t*>(nullptr), &detached}) {
        EXPECT_THROW(o_pthread_create(&thread, attributes, end_by_return, nullptr), std::runtime_error);
        EXPECT_EQ("create-a ", take_trace());
    }
    create_throws = false;
    ASSERT_EQ(0, o_pthread_create(&thread, &detached, end_by_return, nullptr));
    // Written last, so the thread is done with the trace.
    EXPECT_TRUE(support::wait_until([&] { return said() == "bye"; }));
    pthread_attr_destroy(&detached);
}

TEST_F(PlatformThreadHooks, do_not_run_for_a_thread_that_cannot_be_made) {
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    ASSERT_EQ(0, pthread_attr_setstacksize(&huge, SIZE_MAX / 16 * 15)); // no room for that anywhere
    o_pthread_t thread;
    EXPECT_NE(0, o_pthread_create(&thread, &huge, end_by_return, nullptr));
    pthread_attr_destroy(&huge);
    EXPECT_EQ("", take_trace());
}

TEST_F(PlatformThreadHooks, are_refused_in_a_bad_record) {
    Extension const bad = {0xBEEF, create_a, start_a, nullptr, cleanup_a};
    EXPECT_EQ(EINVAL, o_pthread_register_extension(&bad));
    EXPECT_EQ(EINVAL, o_pthread_register_extension(nullptr));
}

TEST_F(PlatformThreadHooks, go_with_the_library_that_brought_them) {
    Pipe const events(false);
    setenv("PLATFORM_MODULE_FD", std::to_string(events.WriteFD()).c_str(), 1);
    orn::LibLoader loader;
    for (int round = 0; round < 20; ++round) { // more than there are places
        ASSERT_TRUE(loader.load(MODULE_HOOKS));
        {
            orn::os::Thread const during([] { note("body"); });
        }
        EXPECT_EQ("H123", take(events.ReadFD()));
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
        {
            orn::os::Thread const after([] { note("body"); });
        }
        EXPECT_EQ("12h", take(events.ReadFD()));
    }
    unsetenv("PLATFORM_MODULE_FD");
}

// ---- Threads --------------------------------------------------------------------------------------------

TEST(PlatformThread, is_joined_by_its_destructor_which_it_may_call_itself) {
    bool done = false;
    {
        orn::os::Thread const thread([&] { done = true; });
    }
    EXPECT_TRUE(done);

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
