// SPDX-License-Identifier: MIT
//
// What passes between a program and the shared library: exceptions, the functions and the data. Built
// twice, since a program that is not position-independent has copies of its own of the library's data.
#include <orn/log.h>
#include <orn/zel.hpp>

#include "support/Common.hpp"

using namespace orn::zel;

namespace {

TEST(AProgram, catches_what_the_library_throws) {
    auto const watch_nothing = [] { fd::AutoReceptor const receptor(-1, [](fd::Event*) {}); };
    EXPECT_THROW(watch_nothing(), orn::zel::Exception);
    EXPECT_THROW(watch_nothing(), std::exception);
    Thread thread([] { return 0; });
    EXPECT_THROW(thread.Status().value(), UndefinedValue);
    thread.Detach();
    EXPECT_THROW(thread.Join(), Thread::JoinDetached);
    thread.Start();
    // The type of this one belongs to neither side.
    EXPECT_THROW(Runnable().Run(), boost::bad_function_call);
}

TEST(AProgram, catches_what_its_handlers_throw_through_the_library) {
    struct Private {};
    SetAlarm(0, [] { throw Private(); });
    EXPECT_THROW(while (OutstandingAlarmCount() > 0) RunOnce(1000), Private);
}

// They end the process when they are called; see support/names.c.
TEST(AProgram, has_functions_of_its_own_under_names_that_the_library_has_too) {
    bool arrived = false;
    signal::AutoReceptor const receptor(SIGTERM, [&](int) { arrived = true; });
    raise(SIGTERM);
    Thread thread([] { return 7; });
    thread.Start();
    thread.Join();
    while (!arrived)
        RunOnce(1000);
    EXPECT_EQ(7, thread.Status().value());
}

int written = 0;
int asked = 0;

TEST(AProgram, replaces_what_the_library_calls_and_puts_it_back) {
    {
        support::Replaced const to_write(orn_zel_thread_group_write,
                                         [](int fd, void const* data, size_t length) {
                                             ++written;
                                             return write(fd, data, length);
                                         });
        support::Replaced const to_ask(orn_zel_pthread_self, [] {
            ++asked;
            return o_pthread_self();
        });
        Exit();
        EXPECT_LT(0, asked);
    }
    Exit();
    EXPECT_EQ(1, written);
}

TEST(AProgram, sees_the_data_of_the_library) {
    SetAlarm(0, [] {});
    EXPECT_EQ(1u, alarm::managerMap->size());
    setenv("LOG_SINK", "", 1);
    Log_Reopen();
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
    setenv("LOG_SINK", "/dev/null", 1);
    Log_Reopen();
    EXPECT_TRUE(Log_Enabled(logSpecForceInfo));
}

} // namespace
