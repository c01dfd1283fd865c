// SPDX-License-Identifier: MIT
//
// Looking at the managers of all threads while threads come.
#include "../src/inspect.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

// What the thread does before it takes a lock of the library's, while it has none.
thread_local std::function<void()> const* before_lock = nullptr;
thread_local int locks = 0;

} // namespace

// The linker has the library call these.
extern "C" {

int __real_o_pthread_mutex_lock(o_pthread_mutex_t*);
int __real_o_pthread_mutex_unlock(o_pthread_mutex_t*);

int __wrap_o_pthread_mutex_lock(o_pthread_mutex_t* mutex) {
    if (locks++ == 0 && before_lock)
        (*before_lock)();
    return __real_o_pthread_mutex_lock(mutex);
}

int __wrap_o_pthread_mutex_unlock(o_pthread_mutex_t* mutex) {
    --locks;
    return __real_o_pthread_mutex_unlock(mutex);
}
}

namespace {

using PerThread = Loop;

TEST_F(PerThread, tells_of_no_thread_as_ended_that_comes_at_any_moment_of_the_look) {
    std::vector<std::thread> newcomers;
    std::size_t most = 0;
    Count here;
    Count over;
    std::function<void()> const come = [&] {
        if (newcomers.size() == most)
            return;
        newcomers.emplace_back([&] {
            signal::AutoReceptor const watched(SIGUSR2, [](int) {});
            Alarm const alarm(60000, [] {});
            Task task([](task::Controller*) {});
            task.Run();
            here.up();
            over.reaches(1);
        });
        ASSERT_TRUE(here.reaches(newcomers.size()));
    };
    for (auto* const tell : {alarm::tell_alarms, task::tell_tasks, signal::tell_signals}) {
        orn::os::Pipe const pipe(false);
        detail::Answer answer("", "", pipe.WriteFD());
        most += 2; // one before each of the locks of the managers and of the threads
        {
            Replaced const coming(before_lock, &come);
            tell(answer);
        }
        answer.finish();
        EXPECT_EQ(most, newcomers.size());
        std::string const told = take(pipe.ReadFD());
        EXPECT_NE(std::string::npos, told.find("\"thread\":"));
        EXPECT_EQ(std::string::npos, told.find("\"thread\":0"));
    }
    over.up();
    for (std::thread& newcomer : newcomers)
        newcomer.join();
}

} // namespace
