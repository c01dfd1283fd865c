// SPDX-License-Identifier: MIT
//
// Linked into the tests of a build for another processor, whose programs an emulator runs. The emulator does
// not follow exec(), so programs of this build are started through it. It also has faults of its own: the
// tests that meet them are skipped by name.
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

// Whether class, byte order and machine are those of this program, as in all programs of this build.
bool is_of_this_build(char const* path) {
    char heads[2][20] = {};
    for (char* const head : heads) {
        int const fd = open(head == heads[0] ? path : "/proc/self/exe", O_RDONLY | O_CLOEXEC);
        if (fd == -1 || read(fd, head, sizeof *heads) != sizeof *heads)
            return false;
        close(fd);
    }
    return std::memcmp(heads[0], heads[1], 6) == 0 && std::memcmp(heads[0] + 18, heads[1] + 18, 2) == 0;
}

std::size_t const most_words = 64;

// ---- The emulator's faults ------------------------------------------------------------------------------

struct Fault {
    char const* tests; // a pattern
    char const* reason;
};

char const* const forked = "qemu: a child of fork() that makes a thread ends the emulator";
char const* const received = "qemu: descriptors that the caller has no room for stay open";
char const* const taken_away =
    "qemu: a signal that arrives while its handler is taken away is delivered to address 0";
char const* const caught =
    "qemu: catches signals whose default action ends a process, so /proc shows as caught what is not";
char const* const not_followed = "qemu: a program that is no test cannot execute another of this build";
char const* const hidden = "qemu: keeps blocked signals to itself, so /proc does not show that one waits";
#if !defined(__aarch64__)
char const* const left = "qemu: an assertion of its own fails when the main thread has ended";
#endif
#if defined(__powerpc__)
char const* const cancelled = "qemu-ppc: a thread that is cancelled in a system call cannot be unwound";
#endif

Fault const faults[] = {
    {"Fork.a_daemon_that_brings_the_library_up_anew_is_steered_under_its_own_id", forked},
    {"TimerThread.is_anew_in_a_child_of_fork_without_the_timers_of_the_parent", forked},
    {"MsgQueue.drops_what_is_no_message_whole_and_serves_the_next_one", received},
    {"MsgQueue.neither_leaks_nor_stops_at_random_packets_and_carries_messages_whole", received},
    {"Places/ExitFrom.*", taken_away},
    {"Unloading.takes_no_code_from_under_a_thread_that_a_signal_has_just_reached", taken_away},
    {"Zelctl.reports_at_once_that_the_process_has_ended", hidden},
    {"ZelctlAttach.ends_no_process_that_starts_or_ends_meanwhile", not_followed},
    {"ZelctlAttach.leaves_the_handler_of_an_open_channel_alone_and_refuses_without_one", caught},
    {"ZelctlAttach.reaches_the_program_that_a_process_has_gone_on_to", not_followed},
#if !defined(__aarch64__)
    {"Channel.that_is_open_from_the_start_answers_for_a_process_whose_main_thread_*", left},
#endif
#if defined(__powerpc__)
    {"Cancel.*", cancelled},
    {"Threads.are_cancelled_*", cancelled},
    {"Threads.that_are_cancelled_as_creators_wait_for_the_constructor", cancelled},
    {"Threads.use_the_hosts_functions_for_every_operation", cancelled},
    {"Msg.waits_about_a_second_for_a_receiver_that_has_stopped", cancelled},
#endif
};

// ctest runs each case in a process of its own, whose filter is the name of the case.
class Skips : public ::testing::Environment {
public:
    void SetUp() override {
        for (Fault const& fault : faults) {
            if (fnmatch(fault.tests, GTEST_FLAG_GET(filter).c_str(), 0) == 0)
                GTEST_SKIP() << "[  SKIPPED ] " << fault.reason;
        }
    }
};

::testing::Environment* const skips = ::testing::AddGlobalTestEnvironment(new Skips);

} // namespace

// Replaces the C library's function, also for GoogleTest, which starts its own program for some death tests.
// It is called between fork() and exec(), and so allocates nothing.
extern "C" int execv(char const* path, char* const words[]) noexcept {
    char emulator[1024];
    char* all[most_words + 1];
    std::size_t count = 0;
    char const* const setting = std::getenv("ZEL_TEST_EMULATOR");
    bool const emulated = setting && std::strlen(setting) < sizeof emulator && is_of_this_build(path);
    if (emulated) {
        std::strcpy(emulator, setting);
        char* rest = nullptr;
        for (char* word = strtok_r(emulator, " ", &rest); word; word = strtok_r(nullptr, " ", &rest))
            all[count++] = word;
        all[count++] = const_cast<char*>(path);
        words += *words ? 1 : 0;
    }
    while (*words && count < most_words)
        all[count++] = *words++;
    all[count] = nullptr;
    return execve(emulated ? all[0] : path, all, environ);
}
