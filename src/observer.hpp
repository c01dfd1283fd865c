// SPDX-License-Identifier: MIT
//
// Where the lines of a monitor go. Internal. The loop, the alarms and the tasks report here, and have the
// public functions that switch a monitor on and off. The command channel asks before it closes a descriptor.
#ifndef ZEL_SRC_OBSERVER_HPP
#define ZEL_SRC_OBSERVER_HPP

#include <atomic>
#include <mutex>
#include <new>
#include <string>

#include "lockInTime.hpp"
#include "plainText.hpp"

namespace orn::zel::detail {

// One monitor of the process. Any thread may call it. Reading the descriptor's number and writing the line
// are one step under a lock. So when unwatch(), watch() or forget() has returned nobody writes to the
// descriptor that was there before, and it may be closed: no line lands in another file that gets its number.
// These three wait for a second at most, because a write that blocks for longer has the right file in the
// kernel already. There is nothing to construct or destroy, so threads that exit() leaves running may go on
// reporting.
class Observer {
public:
    constexpr Observer() : fd_(-1) {}
    Observer(Observer const&) = delete;
    Observer& operator=(Observer const&) = delete;

    void watch(int fd);
    void unwatch() { watch(-1); }

    // False means that nobody is writing to fd, provided that fd is a client's. Writing to a client never
    // blocks, so watch() and forget() have always got the lock, and no write is under way when they change
    // fd_.
    bool is(int fd) const { return fd_.load(std::memory_order_acquire) == fd; }
    // Where it writes to; -1 when it is off. Another thread may change that at any time.
    int fd() const { return fd_.load(std::memory_order_relaxed); }
    // Switches the monitor off if it writes to fd, and only then.
    void forget(int fd);

    // Writes the line that compose(line) adds to, if somebody watches. compose runs with the lock released,
    // because it may take others. Keeps errno.
    template <class Compose>
    void report(Compose compose) {
        if (fd_.load(std::memory_order_relaxed) != -1)
            write_line(compose);
    }

    // For a child of fork(), which has not got the thread that held the lock, if any.
    void renew() { new (&lock_) std::mutex; }

    // Writes the text as it is, if somebody watches. Switches the monitor off when its reader has gone, so
    // that it costs nothing any more. Keeps errno.
    void write(std::string const& text);

private:
    template <class Compose>
    [[gnu::cold]] void write_line(Compose& compose) {
        PlainText line = PlainText::of_this_thread();
        compose(line);
        line << '\n';
        write(line.str());
    }

    // An application may have set a descriptor that blocks, and whose reader does not read. Whoever switches
    // the monitor off must not wait for that reader: it may be the command thread, and taking the library
    // down waits for that one.
    static constexpr unsigned longest_wait_ms = 1000;

    std::mutex lock_; // a leaf, held for one write()
    std::atomic<int> fd_;
};

// One for each word of "zel monitor".
extern Observer thread_observer;
extern Observer poll_observer;
extern Observer alarm_observer;
extern Observer task_observer;

// Whether one of them is(fd); forget() and renew() for all of them.
bool is_observer(int fd);
void forget_observer(int fd);
void renew_observers();

} // namespace orn::zel::detail

#endif
