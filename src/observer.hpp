// SPDX-License-Identifier: MIT
//
// Whom a monitor's lines go to. Internal: the loop, the alarms and the tasks report here, and the command
// channel asks before it closes a descriptor.
#ifndef ZEL_SRC_OBSERVER_HPP
#define ZEL_SRC_OBSERVER_HPP

#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <string>

#include <orn/zel/response.hpp>

namespace orn {
namespace zel {
namespace detail {

// One monitor of the process. Reading the descriptor's number and writing the line are one step under a lock:
// when unwatch(), watch() or forget() has returned, nobody writes to the descriptor that was there before,
// and it may be closed without a line landing in another file that gets the number; unless that write has
// been blocked for a second, and is inside the kernel with its file for as long as it takes. Any thread.
// There is nothing to construct or destroy, so that threads which the process's exit leaves running may go on
// reporting.
class Observer {
public:
    constexpr Observer() : fd_(-1) {}
    Observer(Observer const&) = delete;
    Observer& operator=(Observer const&) = delete;

    void watch(int fd);
    void unwatch() { watch(-1); }

    // A client's descriptor, whose writers never wait, changes under the lock only: if it is not its number
    // here nobody is writing to it.
    bool is(int fd) const { return fd_.load(std::memory_order_acquire) == fd; }
    // Switches the monitor off if it writes to fd, and only then.
    void forget(int fd);

    // A line, for which compose is called only when somebody watches. It is called without the lock: it may
    // take others. Keeps errno.
    template <class Compose>
    void report(Compose compose) {
        if (fd_.load(std::memory_order_relaxed) == -1)
            return;
        cmd::Response line;
        compose(line);
        line << '\n';
        write(line.str());
    }

    // In a child of fork(): the thread that held the lock, if any, is not there.
    void renew() { new (&lock_) std::timed_mutex; }

    // A text as it is. Lost when nobody watches. An observer whose reader has gone is dropped: it must not
    // cost anything any more. Keeps errno.
    void write(std::string const& text);

private:
    // An application may have set an observer that blocks, and whose reader does not read. Whoever switches
    // it off must not wait for that reader: the command thread is waited for when the library is taken down.
    using Lock = std::unique_lock<std::timed_mutex>;
    // By the wall clock: ThreadSanitizer knows no mutex that waits by another.
    Lock lock_in_time() { return Lock(lock_, std::chrono::system_clock::now() + std::chrono::seconds(1)); }

    std::timed_mutex lock_; // a leaf, held for one write()
    std::atomic<int> fd_;
};

// One for each of the words of "zel monitor".
extern Observer thread_observer;
extern Observer poll_observer;
extern Observer alarm_observer;
extern Observer task_observer;

// The same for all of them.
bool is_observer(int fd);
void forget_observer(int fd);
void renew_observers();

} // namespace detail
} // namespace zel
} // namespace orn

#endif
