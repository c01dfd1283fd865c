// SPDX-License-Identifier: MIT
//
// What passes between a program and the shared library: exceptions, casts, the functions and the data. Built
// twice, since a program that is not position-independent has copies of its own of the library's data.
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>
#include <orn/log.h>
#include <orn/zel.hpp>

using namespace orn::zel;

namespace {

TEST(AProgram, catches_what_the_library_throws) {
    auto const watch_nothing = [] { fd::AutoReceptor const receptor(-1, [](fd::Event*) {}); };
    EXPECT_THROW(watch_nothing(), orn::zel::Exception);
    EXPECT_THROW(watch_nothing(), orn::Exception);
    EXPECT_THROW(watch_nothing(), std::exception);
    Thread thread([] { return 0; });
    thread.Detach();
    EXPECT_THROW(thread.Join(), Thread::JoinDetached);
    thread.Start();
    Thread unfinished([] { return 0; });
    EXPECT_THROW(unfinished.Status().value(), UndefinedValue);
    unfinished.Start();
    unfinished.Join();
    // The type of this one belongs to neither side.
    EXPECT_THROW(Runnable().Run(), boost::bad_function_call);
    EXPECT_THROW(Runnable().Run(), std::runtime_error);
}

TEST(AProgram, catches_what_its_handlers_throw_through_the_library) {
    struct Private {};
    SetAlarm(0, [] { throw Private(); });
    EXPECT_THROW(while (OutstandingAlarmCount() > 0) RunOnce(1000), Private);
    SetAlarm(0, [] { throw std::system_error(1, std::generic_category()); });
    EXPECT_THROW(while (OutstandingAlarmCount() > 0) RunOnce(1000), std::system_error);
}

TEST(AProgram, casts_the_librarys_objects_to_what_they_are) {
    boost::shared_ptr<fd::Monitor> const monitor = Fd(0);
    EXPECT_NE(dynamic_cast<fd::MonitorImpl*>(monitor.get()), nullptr);
    EXPECT_EQ(dynamic_cast<ThreadMutex*>(static_cast<Mutex*>(alarm::managerMutex)), alarm::managerMutex);
    boost::shared_ptr<Receptacle<int, unsigned long>> const list = Signal(SIGUSR1);
    EXPECT_NE(dynamic_cast<HandlerList<int>*>(list.get()), nullptr);
    bool cast = false;
    bool done = false;
    RunTask([&](task::Controller* controller) {
        cast = dynamic_cast<task::ControllerImpl*>(controller) != nullptr;
        controller->Complete();
        done = true;
    });
    while (!done)
        RunOnce(1000);
    EXPECT_TRUE(cast);
}

int written = 0;
int asked = 0;

ssize_t counting_write(int fd, void const* data, size_t length) {
    ++written;
    return write(fd, data, length);
}

int counting_self() {
    ++asked;
    return o_pthread_self();
}

TEST(AProgram, replaces_what_the_library_calls_and_puts_it_back) {
    auto const write_before = orn_zel_thread_group_write;
    auto const self_before = orn_zel_pthread_self;
    orn_zel_thread_group_write = counting_write;
    orn_zel_pthread_self = counting_self;
    Exit();
    EXPECT_EQ(written, 1);
    EXPECT_GT(asked, 0);
    orn_zel_thread_group_write = write_before;
    orn_zel_pthread_self = self_before;
    Exit();
    EXPECT_EQ(written, 1);
    EXPECT_EQ(self_before(), o_pthread_self());
}

TEST(AProgram, sees_the_data_of_the_library) {
    SetAlarm(0, [] {});
    EXPECT_EQ(alarm::managerMap->size(), 1u);
    setenv("LOG_SINK", "", 1);
    Log_Reopen();
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
    setenv("LOG_SINK", "/dev/null", 1);
    Log_Reopen();
    EXPECT_TRUE(Log_Enabled(logSpecForceInfo));
}

} // namespace

// A function of the program that happens to have the name of one of the library's.
static int calls = 0;

extern "C" int o_pthread_mutex_lock(o_pthread_mutex_t*) {
    return ++calls;
}

TEST(AProgram, does_not_take_the_place_of_the_librarys_functions) {
    SetAlarm(0, [] {});
    RunOnce(0);
    EXPECT_EQ(calls, 0);
}
