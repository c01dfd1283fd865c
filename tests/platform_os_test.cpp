// SPDX-License-Identifier: MIT
//
// Pipes, environment, threads and their hooks.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <orn/LibLoader.hpp>
#include <orn/os/EnvVar.hpp>
#include <orn/os/Pipe.hpp>
#include <orn/os/Thread.hpp>
#include <orn/os/o_pthread.h>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

using orn::os::Pipe;

std::string drain(Pipe const& pipe) {
    char text[64];
    ssize_t const size = read(pipe.ReadFD(), text, sizeof text);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
}

TEST(PlatformPipe, EndsAreCloseOnExecAndNonBlockingWhenAskedFor) {
    for (bool blocking : {false, true}) {
        Pipe const pipe(blocking);
        for (int fd : {pipe.ReadFD(), pipe.WriteFD()}) {
            EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
            EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) == 0, blocking);
        }
        EXPECT_EQ(write(pipe.WriteFD(), "x", 1), 1);
        EXPECT_EQ(drain(pipe), "x");
    }
}

TEST(PlatformPipe, TakesNoStandardDescriptorEvenWhereTheyAreClosed) {
    int const kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    close(STDIN_FILENO);
    int lowest;
    {
        Pipe const pipe(false);
        lowest = std::min(pipe.ReadFD(), pipe.WriteFD());
        EXPECT_EQ(write(pipe.WriteFD(), "x", 1), 1);
        EXPECT_EQ(drain(pipe), "x");
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "the descriptor below is left open";
    }
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_GT(lowest, STDERR_FILENO);
}

TEST(PlatformPipe, WithoutDescriptorsItThrows) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "UndefinedBehaviorSanitizer needs a pipe of its own to check the exception's type";
#endif
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 3;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    try {
        Pipe pipe(true);
        setrlimit(RLIMIT_NOFILE, &before);
        FAIL() << "made of nothing";
    } catch (std::system_error const& failure) {
        setrlimit(RLIMIT_NOFILE,
                    &before); // first: what looks at the exception may need a descriptor itself
        EXPECT_EQ(failure.code().value(), EMFILE);
        EXPECT_EQ(failure.code().category(), std::generic_category());
    }
}

TEST(PlatformEnvVar, AnUnsetVariableIsEmpty) {
    setenv("PLATFORM_TEST", "some text", 1);
    EXPECT_EQ(std::string(orn::os::EnvVar("PLATFORM_TEST")), "some text");
    unsetenv("PLATFORM_TEST");
    EXPECT_EQ(std::string(orn::os::EnvVar("PLATFORM_TEST")), "");
}

// ---------------------------------------------------------------- hooks that leave a trace

std::mutex traceMutex;
std::string trace;
bool createThrows = false; // the main thread's only
Pipe* lastWords = nullptr;

void note(std::string const& word) {
    std::lock_guard<std::mutex> lock(traceMutex);
    trace += word + " ";
}

std::string take_trace() {
    std::lock_guard<std::mutex> lock(traceMutex);
    std::string const taken = trace;
    trace.clear();
    return taken;
}

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
    return lastWords != nullptr ? static_cast<int>(write(lastWords->WriteFD(), "bye", 3)) : 0;
}
void* create_b() {
    if (createThrows) {
        throw std::runtime_error("create");
    }
    note("create-b");
    return nullptr;
}
int cleanup_b() {
    note("cleanup-b");
    return 0;
}

struct Extension {
    std::uintptr_t magic;
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

void* end_by_return(void*) {
    note("body");
    return nullptr;
}
void* end_by_exit(void*) {
    note("body");
    o_pthread_exit(nullptr);
}
void* end_by_cancellation(void*) {
    note("body");
    o_pthread_cancel(pthread_self());
    // Not a blocking call: ThreadSanitizer loses track of a thread that is cancelled inside one of those.
    for (;;) {
        pthread_testcancel();
    }
}
void* return_with_cancellation_pending(void*) {
    note("body");
    o_pthread_cancel(pthread_self());
    return nullptr;
}

class PlatformThreadHooks : public ::testing::Test {
protected:
    PlatformThreadHooks() {
        Extension const a = {0xDEAD, create_a, start_a, nullptr, cleanup_a};
        Extension const b = {0xDEAD, create_b, nullptr, nullptr, cleanup_b};
        for (int i = 0; i < 20; ++i) { // equal ones add nothing, and take no place
            EXPECT_EQ(o_pthread_register_extension(&a), 0);
            EXPECT_EQ(o_pthread_register_extension(&b), 0);
        }
        take_trace(); // of threads of other cases: hooks stay
        lastWords = &pipe_;
    }
    ~PlatformThreadHooks() override {
        lastWords = nullptr;
        createThrows = false;
        take_trace();
    }

    Pipe pipe_{false};
};

TEST_F(PlatformThreadHooks, CleanupRunsInReverseOrderHoweverTheThreadEnds) {
    for (auto* body : {end_by_return, end_by_exit, end_by_cancellation, return_with_cancellation_pending}) {
        o_pthread_t thread;
        ASSERT_EQ(o_pthread_create(&thread, nullptr, body, nullptr), 0);
        ASSERT_EQ(o_pthread_join(thread, nullptr), 0);
        std::string const seen = take_trace();
        // The new thread waits for the create hooks; from there on it is alone.
        EXPECT_EQ(seen, "create-a create-b start-from-a body cleanup-b cleanup-a ");
        EXPECT_EQ(drain(pipe_), "bye");
    }
}

TEST_F(PlatformThreadHooks, WhenACreateHookThrowsNothingRunsInTheNewThread) {
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    createThrows = true;
    o_pthread_t thread;
    for (auto* attributes : {static_cast<pthread_attr_t*>(nullptr), &detached}) {
        EXPECT_THROW(o_pthread_create(&thread, attributes, end_by_return, nullptr), std::runtime_error);
        EXPECT_EQ(take_trace(), "create-a ");
    }
    createThrows = false;
    ASSERT_EQ(o_pthread_create(&thread, &detached, end_by_return, nullptr), 0);
    pollfd readable = {pipe_.ReadFD(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 20000), 1); // written last: the thread is done with the trace
    EXPECT_EQ(drain(pipe_), "bye");
    pthread_attr_destroy(&detached);
}

TEST_F(PlatformThreadHooks, AThreadThatCannotBeMadeRunsNoHook) {
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, SIZE_MAX / 16 * 15), 0); // no room for that anywhere
    o_pthread_t thread;
    EXPECT_NE(o_pthread_create(&thread, &huge, end_by_return, nullptr), 0);
    pthread_attr_destroy(&huge);
    EXPECT_EQ(take_trace(), "");
}

TEST_F(PlatformThreadHooks, ABadRecordIsRefused) {
    Extension const bad = {0xBEEF, create_a, start_a, nullptr, cleanup_a};
    EXPECT_EQ(o_pthread_register_extension(&bad), EINVAL);
    EXPECT_EQ(o_pthread_register_extension(nullptr), EINVAL);
}

TEST_F(PlatformThreadHooks, ALibraryThatIsUnmappedLeavesNoHookBehind) {
    Pipe const events(false);
    setenv("PLATFORM_MODULE_FD", std::to_string(events.WriteFD()).c_str(), 1);
    orn::LibLoader loader;
    for (int round = 0; round < 20; ++round) { // more than there are places
        ASSERT_TRUE(loader.load(MODULE_H));
        {
            orn::os::Thread const during([] { note("body"); });
        }
        EXPECT_EQ(drain(events), "H123");
        {
            // Unloaded between a thread's start and its end.
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
        EXPECT_EQ(drain(events), "12h");
    }
    unsetenv("PLATFORM_MODULE_FD");
}

// ---------------------------------------------------------------- threads

TEST(PlatformThread, TheIdIsTheKernelsAndTheChildsOwnAfterFork) {
    int const own = o_pthread_self();
    EXPECT_EQ(own, syscall(SYS_gettid));
    int other = 0;
    {
        orn::os::Thread const thread([&] { other = o_pthread_self(); });
    }
    EXPECT_NE(other, own);
    EXPECT_NE(other, 0);
    pid_t const child = fork();
    if (child == 0) {
        _exit(o_pthread_self() == syscall(SYS_gettid) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(o_pthread_self(), own);
}

TEST(PlatformThread, TheDestructorJoinsAndTheThreadItselfMayCallIt) {
    bool done = false;
    {
        orn::os::Thread const thread([&] { done = true; });
    }
    EXPECT_TRUE(done);

    auto alive = std::make_shared<int>(42);
    std::promise<orn::os::Thread*> self;
    std::promise<int> seen;
    std::string listed;
    self.set_value(new orn::os::Thread([&self, &seen, &listed, alive] {
        delete self.get_future().get();
        listed = "/proc/self/task/" + std::to_string(o_pthread_self());
        seen.set_value(*alive);
    }));
    EXPECT_EQ(seen.get_future().get(), 42);
    while (access(listed.c_str(), F_OK) == 0) { // its hooks are not to run in another case
        sched_yield();
    }
}

} // namespace
