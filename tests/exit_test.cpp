// SPDX-License-Identifier: MIT
//
// Ends of life: processes that exit in the middle of everything, and the library that comes and goes in a
// host which does not link it. This program does not link it either.
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
bool const sanitized = true;
#else
bool const sanitized = false;
#endif

int number_from(char const* variable, int otherwise) {
    char const* const text = std::getenv(variable);
    return text && std::atoi(text) > 0 ? std::atoi(text) : otherwise;
}

std::size_t entries(char const* directory) {
    std::size_t count = 0;
    DIR* const dir = ::opendir(directory);
    while (::readdir(dir))
        ++count;
    ::closedir(dir);
    return count;
}

// ---- exit()

std::string run(std::string const& where, int delayUs) {
    std::string const delay = std::to_string(delayUs);
    pid_t const child = ::fork();
    if (child == 0) {
        ::execl(EXIT_PROGRAM, EXIT_PROGRAM, where.c_str(), delay.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    auto const end =
        std::chrono::steady_clock::now() + std::chrono::seconds(20) * number_from("ZEL_TEST_SCALE", 1);
    while (::waitpid(child, &status, WNOHANG) != child) {
        if (std::chrono::steady_clock::now() > end) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return "hung";
        }
        ::poll(nullptr, 0, 1);
    }
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

// ZEL_EXIT_RUNS raises the number of runs for each place.
class ExitFrom : public ::testing::TestWithParam<char const*> {};

TEST_P(ExitFrom, ends_in_the_middle_of_everything) {
    bool const waits = std::string(GetParam()) == "awaited"; // for a second or two
    int const runs = waits ? 2 : number_from("ZEL_EXIT_RUNS", sanitized ? 12 : 40);
    for (int i = 0; i < runs; ++i)
        ASSERT_EQ("exit 7", run(GetParam(), i % 10 * i % 7 * 700)) << "run " << i;
}

INSTANTIATE_TEST_SUITE_P(Places, ExitFrom,
                         ::testing::Values("main", "thread", "handler", "alarm", "signal", "timer", "steered",
                                           "loading", "outlived", "unloaded", "awaited"),
                         [](::testing::TestParamInfo<char const*> const& place) {
                             return std::string(place.param);
                         });

// ---- dlclose()

struct Footprint {
    std::size_t descriptors = entries("/proc/self/fd");
    std::size_t threads = entries("/proc/self/task");
    std::size_t mappings = 0;
    std::size_t ours = 0; // mappings of the libraries that should be gone
    std::size_t bytes = ::mallinfo2().uordblks;

    Footprint() {
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line); ++mappings)
            if (line.find("libzel") != std::string::npos || line.find("user_module") != std::string::npos)
                ++ours;
    }
};

void load_and_unload(char const* file) {
    void* const handle = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, handle) << ::dlerror();
    ASSERT_EQ(0, ::dlclose(handle));
}

TEST(Unloading, leaves_nothing_behind_a_thousand_times) {
    ASSERT_EQ(0u, Footprint().ours) << "linked, so this shows nothing";
    for (char const* const file : {ZEL_LIBRARY, USER_MODULE}) {
        // What the C library keeps of ended threads settles within the first few hundred.
        for (int i = 0; i < (sanitized ? 20 : 300); ++i)
            load_and_unload(file);
        Footprint const before;
        for (int i = 0; i < (sanitized ? 100 : 1000); ++i)
            load_and_unload(file);
        Footprint const after;
        EXPECT_EQ(before.descriptors, after.descriptors);
        EXPECT_EQ(before.threads, after.threads);
        EXPECT_EQ(0u, after.ours);
        if (!sanitized) { // whose own memory comes and goes
            EXPECT_EQ(before.mappings, after.mappings);
            EXPECT_NEAR(static_cast<double>(before.bytes), static_cast<double>(after.bytes), 8192);
        }
        struct sigaction action = {};
        sigaction(SIGUSR1, nullptr, &action);
        EXPECT_EQ(SIG_DFL, action.sa_handler);
    }
}

} // namespace
