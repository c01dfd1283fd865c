// SPDX-License-Identifier: MIT
//
// What the tests of the library's loop share; see Support.hpp.
#include "Support.hpp"

#include "../../src/threadRegistry.hpp"

#include "../../src/readiness.hpp"

namespace support {

namespace {

Dispositions dispositions() {
    int const by_the_system = 0x04000000; // SA_RESTORER
    Dispositions all;
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction action = {};
        if (sigaction(signo, nullptr, &action) == 0)
            all[signo] = {action.sa_handler, action.sa_flags & ~by_the_system};
    }
    return all;
}

// The timers' service thread, which stays until exit(), is not counted.
std::set<int> passing_descriptors() {
    std::set<int> found;
    for (int const fd : descriptors()) {
        if (!is_timer_clock(fd))
            found.insert(fd);
    }
    return found;
}

std::set<int> passing_threads() {
    std::set<int> all;
    for (auto const& thread : threads()) {
        if (thread.second != "orn-timer")
            all.insert(thread.first);
    }
    return all;
}

} // namespace

void always_by_readiness() {
    orn::zel::detail::readiness_threshold = 0;
    orn::zel::detail::readiness_crowd = 0;
}

bool run_until(std::function<bool()> const& condition, int limit_ms) {
    return wait_until(condition, limit_ms, [] { orn::zel::RunOnce(20); });
}

bool woken_until(std::function<bool()> const& condition) {
    while (!condition()) {
        if (orn::zel::RunOnce(10000L * scale()) < 1)
            return false;
    }
    return true;
}

bool waits(int tid) {
    // Twice, so that a short sleep on a lock on the way does not count.
    return wait_until([tid] {
        bool const before = is_asleep(tid);
        poll(nullptr, 0, 2);
        return before && is_asleep(tid);
    });
}

std::string without_tid(std::string lines, int tid) {
    std::string const prefix = "tid=" + std::to_string(tid) + " ";
    std::string::size_type at = 0;
    do {
        EXPECT_EQ(prefix, lines.substr(at, prefix.size()));
        lines.erase(at, prefix.size());
        at = lines.find('\n', at) + 1;
    } while (at != 0 && at < lines.size());
    return lines;
}

std::size_t known_threads() {
    return orn::zel::thread::Registry::entries().size();
}

orn::zel::task::Body once(int& slices) {
    return [&slices](orn::zel::task::Controller* self) {
        ++slices;
        self->Complete();
    };
}

// ---- Member ---------------------------------------------------------------------------------------------

Member::Member(std::function<void()> body) : body_(std::move(body)) {
    if (o_pthread_create(&handle_, nullptr, start, this) != 0)
        std::abort();
    while (tid_ == 0)
        poll(nullptr, 0, 1);
}

void* Member::start(void* self) {
    Member& thread = *static_cast<Member*>(self);
    struct Ended {
        std::atomic<bool>& flag;
        ~Ended() { flag = true; }
    } const ended{thread.ended_};
    thread.tid_ = o_pthread_self();
    thread.body_();
    return nullptr;
}

bool Member::join() {
    if (!joined_) {
        void* result = nullptr;
        o_pthread_join(handle_, &result);
        joined_ = true;
        cancelled_ = result == PTHREAD_CANCELED;
    }
    return cancelled_;
}

// ---- Loop -----------------------------------------------------------------------------------------------

WatchedPipe::WatchedPipe(std::function<void()> const& handler)
    : Pipe(false), receptor_(ReadFD(), [this, handler](orn::zel::fd::Event* event) {
          seen += take(event->fd());
          ++calls;
          handler();
      }) {}

Loop::Loop() {
    if (getenv("ZEL_TEST_READINESS"))
        always_by_readiness();
    std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first one
    descriptors_ = passing_descriptors();
    threads_ = passing_threads();
    dispositions_ = dispositions();
    orn::zel::thread::zel_thread_load();
    orn::zel::signal::zel_signal_load();
    orn::zel::alarm::zel_alarm_load();
    orn::zel::task::zel_task_load();
}

void Loop::settle() {
    for (int turn = 0; turn < 5 && orn::zel::RunOnce(0) > 0; ++turn) {
    }
}

void Loop::settle_all() {
    while (orn::zel::RunOnce(0) > 0) {
    }
}

Loop::~Loop() {
    orn::zel::thread::UnmonitorThread("", -1); // else the lines go to whatever has the number next
    orn::zel::thread::UnmonitorPoll("", -1);
    orn::zel::alarm::Unmonitor("", -1);
    orn::zel::task::Unmonitor("", -1);
    orn::zel::task::zel_task_unload();
    orn::zel::alarm::zel_alarm_unload();
    orn::zel::signal::zel_signal_unload();
    orn::zel::thread::zel_thread_unload();
    orn::zel::signal::release_managers();
    EXPECT_EQ(descriptors_, passing_descriptors());
    // A thread that has been joined may be listed for a moment longer: after the test, and before it, too.
    EXPECT_TRUE(wait_until([this] {
        std::set<int> const left = passing_threads();
        return std::includes(threads_.begin(), threads_.end(), left.begin(), left.end());
    })) << passing_threads().size()
        << " threads";
    EXPECT_EQ(dispositions_, dispositions());
}

} // namespace support
