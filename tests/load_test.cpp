// SPDX-License-Identifier: MIT
//
// How the library begins and ends: in hosts that get it by dlopen() only, which this program is too, and in
// processes that exit in the middle of everything.
#include <cstdio>
#include <fstream>
#include <future>

#include <dlfcn.h>

#include "support/Programs.hpp"

namespace {

using support::Footprint;
using support::is_sanitized;
using support::Program;
using support::Words;

// ---- dlopen() and dlclose() -----------------------------------------------------------------------------

void* loaded(char const* file, int mode = RTLD_LOCAL) {
    void* const handle = dlopen(file, RTLD_NOW | mode);
    if (!handle)
        throw std::runtime_error(dlerror());
    return handle;
}

void expect_default_actions() {
    for (int const signo : {SIGUSR1, SIGPIPE, 55}) {
        struct sigaction action = {};
        sigaction(signo, nullptr, &action);
        EXPECT_TRUE(action.sa_handler == SIG_DFL) << signo;
    }
}

TEST(Unloading, leaves_nothing_behind_a_thousand_times) {
    auto const cycles = [](int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0, dlclose(loaded(i % 4 == 0 ? USER_MODULE : ZEL_LIBRARY)));
    };
    support::TempFile const log; // which each of them opens
    setenv("LOG_SINK", log.path().c_str(), 1);
    setenv("LOG_LEVEL", "info", 1);
    cycles(is_sanitized ? 20 : 300); // what the C library keeps of ended threads settles
    Footprint const before;
    cycles(is_sanitized ? 100 : 1000);
    Footprint const after;
    EXPECT_EQ(before.descriptors, after.descriptors);
    EXPECT_EQ(before.threads, after.threads);
    EXPECT_EQ(0u, after.ours);
    EXPECT_NE("", log.text());
    EXPECT_EQ("exit 0", support::in_child([] { return 0; })) << "a handler of fork() is left behind";
    unsetenv("LOG_SINK");
    unsetenv("LOG_LEVEL");
    expect_default_actions();
    if (!is_sanitized) { // whose own memory comes and goes
        EXPECT_NEAR(static_cast<double>(before.mappings), static_cast<double>(after.mappings), 2);
        EXPECT_NEAR(before.bytes, after.bytes, 16384);
    }
}

TEST(Unloading, is_done_within_a_second_while_a_client_floods_the_channel) {
    for (int i = 0; i < 3; ++i) {
        std::size_t const before = Footprint().descriptors;
        void* const handle = loaded(USER_MODULE);
        EXPECT_EQ(1u, support::threads_named(getpid(), "zel-command"));
        {
            Program client(
                {CLIENT, std::to_string(getpid()), "flood", "zel fds", "1000 x", std::string(60000, 'x')});
            ASSERT_EQ("ready", client.line()) << client.end() << client.errors();
            long const begin = support::milliseconds();
            ASSERT_EQ(0, dlclose(handle));
            EXPECT_LT(support::milliseconds() - begin, 1000 * support::scale());
            EXPECT_EQ("exit 0", client.end()) << "its commands are not taken any more";
        }
        EXPECT_EQ(before, Footprint().descriptors);
        EXPECT_EQ(0u, Footprint().ours);
    }
}

TEST(Unloading, does_not_leave_a_signal_behind_that_would_end_the_process) {
    void* const handle = loaded(ZEL_LIBRARY);
    // A client has just raised it, and no thread has come to take it.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, 55);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    raise(55);
    ASSERT_EQ(0, dlclose(handle));
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    expect_default_actions();
}

// Such as a plug-in brings along. Each is global, so that the second could find its symbols in the first.
TEST(Unloading, a_second_copy_of_the_library_goes_without_the_first) {
    if (is_sanitized)
        GTEST_SKIP() << "a sanitizer takes the globals of the one for those of the other";
    std::string const copy = "./libzel_copy." + std::to_string(getpid()) + ".so";
    std::ofstream(copy, std::ios::binary) << support::text_of(ZEL_LIBRARY);
    void* const first = loaded(ZEL_LIBRARY, RTLD_GLOBAL);
    void* const second = loaded(copy.c_str(), RTLD_GLOBAL);
    std::remove(copy.c_str());
    EXPECT_NE(first, second);
    EXPECT_EQ(0, dlclose(second));
    EXPECT_EQ(nullptr, dlopen(copy.c_str(), RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ(0, dlclose(first));
    EXPECT_EQ(0u, Footprint().ours);
    expect_default_actions();
}

TEST(Unloading, frees_everything_although_a_thread_that_has_used_it_lives_on) {
    for (int const mode : {RTLD_LOCAL, RTLD_GLOBAL}) {
        void* const handle = loaded(USER_MODULE, mode);
        auto const use = reinterpret_cast<void (*)()>(dlsym(handle, "run_a_task"));
        std::promise<void> used;
        std::promise<void> gone;
        std::thread user([&] {
            use();
            used.set_value();
            gone.get_future().wait();
        }); // at its end it calls nothing that has gone
        used.get_future().wait();
        ASSERT_EQ(0, dlclose(handle));
        EXPECT_EQ(nullptr, dlopen(ZEL_LIBRARY, RTLD_NOW | RTLD_NOLOAD));
        expect_default_actions();
        gone.set_value();
        user.join();
    }
}

// Loads and unloads the library while so many threads do something again and again.
void unload_beside(int count, std::function<void()> const& body) {
    std::atomic<bool> stop(false);
    std::vector<std::thread> threads;
    while (count-- > 0) {
        threads.emplace_back([&] {
            while (!stop)
                body();
        });
    }
    for (int i = 0; i < 400 / (support::scale() * support::scale()); ++i)
        EXPECT_EQ(0, dlclose(loaded(ZEL_LIBRARY)));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Unloading, takes_no_code_from_under_a_thread_that_a_signal_has_just_reached) {
    auto* const before = signal(55, SIG_IGN);
    unload_beside(6, [] { raise(55); });
    signal(55, before);
}

// The handlers that run around a fork() lock and block what only they open again.
TEST(Unloading, leaves_threads_that_fork_and_their_children_as_they_were) {
    if (support::has_thread_sanitizer)
        GTEST_SKIP() << "a child keeps the sanitizer's lock that another thread held at the fork";
    auto const is_spoilt = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, SIGUSR1);
    };
    std::atomic<int> spoilt(0);
    unload_beside(2, [&] {
        pid_t const child = fork();
        if (child == 0)
            _exit(is_spoilt());
        int status = 0;
        waitpid(child, &status, 0);
        spoilt += status != 0 || is_spoilt();
    });
    EXPECT_EQ(0, spoilt);
}

// ---- Modules that come and go with the library ----------------------------------------------------------

// What the modules of these names say in a run of the command.
std::string said(Words const& command, std::string const& names) {
    support::TempFile const log;
    Program program(command, {{"ORDER_LOG", log.path()}, {"ZEL_PRELOAD", names}});
    EXPECT_EQ("exit 3", program.end()) << names;
    return log.text();
}

std::string const first = FIRST;
std::string const second = SECOND;

TEST(Preload, names_are_loaded_in_their_order_and_go_in_reverse_while_the_library_is_still_up) {
    std::string const both = "+first up\n+second up\n-second up\n-first up\n";
    Words const host = {HOST, ZEL_LIBRARY, "exit"};
    EXPECT_EQ(both,
              said(host, ";, :" + first + " libnone.so:/none/at/all.so;/proc/self/status," + second + ':'));
    EXPECT_EQ("+second up\n+first up\n-first up\n-second up\n", said(host, second + ' ' + first));
    EXPECT_EQ("+first up\n-first up\n", said(host, first + ':' + first));
    EXPECT_EQ("", said(host, "::"));

    // Only later than exit() does: the loader puts off what is closed inside of a destructor.
    std::string const log = said({HOST, ZEL_LIBRARY, "close"}, first + ' ' + second);
    EXPECT_EQ("+first up\n+second up\n", log.substr(0, 21));
    EXPECT_TRUE(log.find("-first") != std::string::npos && log.find("-second") != std::string::npos) << log;
}

// Such a module needs the library, which then stays although its host has closed it.
TEST(Preload, modules_may_use_every_subsystem_when_they_come_and_go) {
    for (char const* const how : {"exit", "close"}) {
        EXPECT_EQ("+first up\n[zel] x: no such command\nall used\n-first up\n",
                  said({HOST, ZEL_LIBRARY, how}, first + ' ' + USER_MODULE))
            << how;
    }
}

// A client that connects to a process that has taken the library down already.
TEST(LateClient, ends_no_process) {
    std::map<std::string, std::string> preloaded;
    if (!is_sanitized) // whose own library wants to be the first
        preloaded = {{"LD_PRELOAD", ZEL_LIBRARY ":" FIRST}, {"LATE_CLIENT", "1"}};
    for (char const* const how : {"exit", "close"}) {
        EXPECT_EQ("exit 3", Program({HOST, ZEL_LIBRARY, how, "global"}).end()) << how;
        EXPECT_EQ("exit 3", Program({HOST, ZEL_LIBRARY, how}, preloaded).end()) << how;
    }
}

// ---- exit() ---------------------------------------------------------------------------------------------

// ZEL_EXIT_RUNS raises the number of runs for each place.
class ExitFrom : public ::testing::TestWithParam<char const*> {};

TEST_P(ExitFrom, ends_in_the_middle_of_everything) {
    if (support::has_thread_sanitizer && std::string(GetParam()) == "forking")
        GTEST_SKIP() << "the sanitizer's own fork handlers do not outlast exit()";
    bool const waits = std::string(GetParam()) == "awaited"; // for a second or two
    int const runs = waits ? 2 : support::number_from("ZEL_EXIT_RUNS", is_sanitized ? 12 : 40);
    for (int i = 0; i < runs; ++i) {
        Program program({EXIT_PROGRAM, GetParam(), std::to_string(i % 10 * i % 7 * 700)},
                        {{"LOG_SINK", waits ? "/dev/null" : ""}});
        ASSERT_EQ("exit 7", program.end(20000)) << "run " << i << '\n' << program.errors();
    }
}

INSTANTIATE_TEST_SUITE_P(Places, ExitFrom,
                         ::testing::Values("main", "thread", "handler", "alarm", "signal", "timer", "steered",
                                           "loading", "forking", "outlived", "unloaded", "awaited"),
                         [](auto const& place) { return std::string(place.param); });

} // namespace
