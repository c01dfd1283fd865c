// SPDX-License-Identifier: MIT
//
// The life of the library with its command channel: in hosts that get it by dlopen() only, which this program
// is too, and in processes that end with everything armed.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Programs.hpp"

namespace {

using programs::Program;
using programs::wait_until;
using programs::Words;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
bool const sanitized = true;
#else
bool const sanitized = false;
#endif

int number_from(char const* variable, int otherwise) {
    char const* const text = std::getenv(variable);
    return text ? std::atoi(text) : otherwise;
}

// ---- dlopen() and dlclose() -----------------------------------------------------------------------------

std::size_t others() {
    return sanitized ? programs::threads_named(::getpid(), "zel-command") +
                           programs::threads_named(::getpid(), "orn-timer")
                     : programs::entries_of("/proc/self/task") - 1;
}

struct Footprint {
    std::size_t descriptors = programs::entries_of("/proc/self/fd");
    std::size_t threads = 0;
    std::size_t mappings = 0;
    std::size_t ours = 0; // mappings of what should be gone
    double bytes = static_cast<double>(::mallinfo2().uordblks);

    Footprint() {
        // A thread that has been joined may be listed for a moment longer. A sanitizer has one of its own.
        wait_until([this] { return (threads = others()) == 0; }, 1000);
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line); ++mappings)
            if (line.find("libzel") != std::string::npos || line.find("_module") != std::string::npos)
                ++ours;
    }
};

void load_and_unload(char const* file) {
    void* const handle = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, handle) << ::dlerror();
    ASSERT_EQ(0, ::dlclose(handle));
}

bool is_default(int signo) {
    struct sigaction action = {};
    ::sigaction(signo, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

TEST(Unloading, leaves_nothing_of_the_channel_behind_a_thousand_times) {
    auto const cycles = [](int count) {
        for (int i = 0; i < count; ++i)
            load_and_unload(i % 10 == 0 ? CHANNEL_MODULE : ZEL_LIBRARY);
    };
    ASSERT_EQ(0u, Footprint().ours) << "linked, so this shows nothing";
    cycles(40);
    Footprint const before;
    cycles(sanitized ? 100 : 1000);
    Footprint const after;
    EXPECT_EQ(before.descriptors, after.descriptors);
    EXPECT_EQ(before.threads, after.threads);
    EXPECT_EQ(0u, after.ours);
    if (!sanitized) { // whose own memory comes and goes
        EXPECT_NEAR(static_cast<double>(before.mappings), static_cast<double>(after.mappings), 2);
        EXPECT_NEAR(before.bytes, after.bytes, 65536);
    }
    EXPECT_TRUE(is_default(SIGPIPE));
    EXPECT_TRUE(is_default(55));
}

TEST(Unloading, is_done_within_a_second_while_a_client_floods_the_channel) {
    for (int i = 0; i < 3; ++i) {
        Footprint const before;
        void* const handle = ::dlopen(CHANNEL_MODULE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, handle) << ::dlerror();
        EXPECT_EQ(1u, programs::threads_named(::getpid(), "zel-command"));
        EXPECT_FALSE(is_default(SIGPIPE));
        {
            Program client(
                {CLIENT, std::to_string(::getpid()), "flood", "zel fds", "1000 x", std::string(60000, 'x')});
            ASSERT_EQ("ready", client.line()) << client.end() << client.errors();
            long const begin = programs::milliseconds();
            ASSERT_EQ(0, ::dlclose(handle));
            EXPECT_LT(programs::milliseconds() - begin, 1000 * programs::scale());
            EXPECT_EQ("exit 0", client.end()) << "its commands are not taken any more";
        }
        Footprint const after;
        EXPECT_EQ(before.descriptors, after.descriptors);
        EXPECT_EQ(before.threads, after.threads);
        EXPECT_EQ(0u, after.ours);
        EXPECT_TRUE(is_default(SIGPIPE));
    }
}

TEST(Unloading, does_not_leave_a_signal_behind_that_would_end_the_process) {
    void* const handle = ::dlopen(ZEL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, handle) << ::dlerror();
    // A client has just raised it, and no thread has come to take it.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, 55);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ::raise(55);
    ASSERT_EQ(0, ::dlclose(handle));
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    EXPECT_TRUE(is_default(55));
}

// Such as a plug-in brings along. Each is global, so that the second could find its symbols in the first.
TEST(Unloading, a_second_copy_of_the_library_goes_without_the_first) {
    if (sanitized)
        GTEST_SKIP() << "a sanitizer takes the globals of the one for those of the other";
    std::string const copy = "./libzel_copy." + std::to_string(::getpid()) + ".so";
    std::ofstream(copy, std::ios::binary) << std::ifstream(ZEL_LIBRARY, std::ios::binary).rdbuf();
    void* const first = ::dlopen(ZEL_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
    void* const second = ::dlopen(copy.c_str(), RTLD_NOW | RTLD_GLOBAL);
    std::remove(copy.c_str());
    ASSERT_TRUE(first != nullptr && second != nullptr) << ::dlerror();
    EXPECT_NE(first, second);
    EXPECT_EQ(0, ::dlclose(second));
    EXPECT_EQ(nullptr, ::dlopen(copy.c_str(), RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ(0, ::dlclose(first));
    EXPECT_EQ(0u, Footprint().ours);
    EXPECT_TRUE(is_default(55));
}

// Does what it is told to, one thing after another, until it is told to end.
class HostThread {
public:
    ~HostThread() {
        ask({});
        thread_.join();
    }

    void ask(std::function<void()> const& what) {
        std::promise<void> done;
        {
            std::lock_guard<std::mutex> const guard(mutex_);
            what_ = what;
            done_ = &done;
        }
        asked_.notify_one();
        done.get_future().wait();
    }

private:
    void serve() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            asked_.wait(lock, [this] { return done_ != nullptr; });
            std::function<void()> const what = what_;
            std::promise<void>* const done = std::exchange(done_, nullptr);
            lock.unlock();
            if (what)
                what();
            done->set_value();
            if (!what)
                return;
        }
    }

    std::mutex mutex_;
    std::condition_variable asked_;
    std::function<void()> what_;
    std::promise<void>* done_ = nullptr;
    std::thread thread_{[this] { serve(); }};
};

TEST(Unloading, frees_everything_although_a_thread_that_has_used_it_lives_on) {
    HostThread host;
    std::size_t descriptors = 0;
    for (int i = 0; i < 4; ++i) {
        void* const handle = ::dlopen(CHANNEL_MODULE, RTLD_NOW | (i % 2 == 0 ? RTLD_LOCAL : RTLD_GLOBAL));
        ASSERT_NE(nullptr, handle) << ::dlerror();
        EXPECT_FALSE(is_default(SIGPIPE));
        host.ask(reinterpret_cast<void (*)()>(::dlsym(handle, "run_a_task")));
        ASSERT_EQ(0, ::dlclose(handle));
        EXPECT_EQ(nullptr, ::dlopen(ZEL_LIBRARY, RTLD_NOW | RTLD_NOLOAD));
        EXPECT_TRUE(is_default(SIGPIPE)) << "a handler in code that has gone";
        EXPECT_TRUE(is_default(55));
        std::size_t const now = programs::entries_of("/proc/self/fd");
        EXPECT_EQ(i == 0 ? now : descriptors, now);
        descriptors = now;
    }
} // where the thread ends, and calls nothing that has gone

TEST(Unloading, takes_no_code_from_under_a_thread_that_a_signal_has_just_reached) {
    struct sigaction ignored = {};
    struct sigaction before = {};
    ignored.sa_handler = SIG_IGN;
    ::sigaction(55, &ignored, &before);
    std::atomic<bool> stop(false);
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&] {
            while (!stop)
                ::raise(55);
        });
    for (int i = 0; i < (sanitized ? 10 : 400); ++i)
        load_and_unload(ZEL_LIBRARY);
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    ::sigaction(55, &before, nullptr);
}

// ---- Modules that come and go with the library ----------------------------------------------------------

class Preload : public ::testing::Test {
protected:
    Preload() : log_("load_order." + std::to_string(::getpid())) {}
    ~Preload() override { std::remove(log_.c_str()); }

    // What the modules say in a run of the command.
    std::string said(Words const& command, std::string const& names) {
        std::remove(log_.c_str());
        Program program(command, {{"ORDER_LOG", log_}, {"ZEL_PRELOAD", names}});
        EXPECT_EQ("exit 3", program.end()) << names;
        return programs::text_of(log_);
    }

    std::string const log_;
};

std::string const first = FIRST;
std::string const second = SECOND;

TEST_F(Preload, names_are_loaded_in_their_order_and_go_in_reverse_while_the_library_is_still_up) {
    std::string const both = "+first up\n+second up\n-second up\n-first up\n";
    Words const host = {HOST, ZEL_LIBRARY, "exit"};
    for (char const separator : {':', ' ', ',', ';'})
        EXPECT_EQ(both, said(host, first + separator + second)) << separator;
    EXPECT_EQ(both, said(host, first + "::" + second + ":"));
    EXPECT_EQ(both, said(host, ";, :" + first + " libnone.so:/none/at/all.so;/proc/self/status," + second));
    EXPECT_EQ("+second up\n+first up\n-first up\n-second up\n", said(host, second + ' ' + first));
    EXPECT_EQ("+first up\n-first up\n", said(host, first + ':' + first));
    EXPECT_EQ("", said(host, ""));
    EXPECT_EQ("", said(host, "::"));
}

TEST_F(Preload, dlclose_takes_the_modules_down_as_well) {
    // Only later than exit() does: the loader puts off what is closed inside of a destructor.
    std::string const log = said({HOST, ZEL_LIBRARY, "close"}, first + ' ' + second);
    EXPECT_EQ("+first up\n+second up\n", log.substr(0, 21));
    EXPECT_TRUE(log.find("-first") != std::string::npos && log.find("-second") != std::string::npos) << log;
}

TEST_F(Preload, modules_may_use_every_subsystem_when_they_go) {
    for (char const* const how : {"exit", "close"})
        EXPECT_EQ("mine\n[zel] x: no such command\nall used\n", said({HOST, ZEL_LIBRARY, how}, LAST_WORDS))
            << how;
}

// A client that connects to a process that has taken the library down already.
TEST(LateClient, ends_no_process) {
    for (char const* const how : {"exit", "close"}) {
        EXPECT_EQ("exit 3", Program({HOST, ZEL_LIBRARY, how}).end()) << how;
        EXPECT_EQ("exit 3", Program({HOST, ZEL_LIBRARY, how, "global"}).end()) << how;
        if (sanitized) // whose own library wants to be the first
            continue;
        std::map<std::string, std::string> const preloaded = {
            {"LD_PRELOAD", std::string(ZEL_LIBRARY) + ':' + LATE_MODULE}};
        EXPECT_EQ("exit 3", Program({HOST, ZEL_LIBRARY, how}, preloaded).end()) << how;
    }
}

// ---- exit() ---------------------------------------------------------------------------------------------

// CHANNEL_EXIT_RUNS raises the number of runs for each way.
class ExitBy : public Preload, public ::testing::WithParamInterface<char const*> {};

TEST_P(ExitBy, a_busy_process_ends_at_once_with_its_status) {
    int const runs = number_from("CHANNEL_EXIT_RUNS", sanitized ? 4 : 8);
    for (int i = 0; i < runs; ++i) {
        std::remove(log_.c_str());
        Program target({TARGET, "busy"}, {{"ORDER_LOG", log_}, {"ZEL_PRELOAD", first}});
        ASSERT_EQ("ready", target.line());
        std::string const pid = std::to_string(target.pid());
        // One that reads, one that has stopped, one that floods.
        Program reader({CLIENT, pid, "follow", "zel monitor poll thread"});
        ASSERT_EQ("ready", reader.line());
        Program stopped({CLIENT, pid, "follow", "zel monitor task alarm"});
        ASSERT_EQ("ready", stopped.line());
        stopped.stop();
        std::unique_ptr<Program> flood;
        if (i % 2 == 1) {
            flood.reset(new Program({CLIENT, pid, "flood", "zel fds", "100 x"}));
            ASSERT_EQ("ready", flood->line());
        }
        Program last({CLIENT, pid, "follow", GetParam()});
        EXPECT_EQ("ready", last.line());
        long const begin = programs::milliseconds();
        ASSERT_EQ("exit 7", target.end()) << "run " << i << '\n' << target.errors();
        EXPECT_LT(programs::milliseconds() - begin, 1000 * programs::scale()) << "run " << i;
        EXPECT_EQ("+first up\n-first", programs::text_of(log_).substr(0, 16));
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, ExitBy, ::testing::Values("quit 7", "exit 7"),
                         [](::testing::TestParamInfo<char const*> const& way) {
                             return way.param[0] == 'q' ? "main_thread" : "command_handler";
                         });

} // namespace
