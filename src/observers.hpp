// SPDX-License-Identifier: MIT
//
// What the subsystems' monitors write to. Internal: the command channel asks before it closes a descriptor,
// since a line must never reach another file that got the number.
#ifndef ZEL_SRC_OBSERVERS_HPP
#define ZEL_SRC_OBSERVERS_HPP

#include <atomic>

namespace orn {
namespace zel {

namespace thread {
bool is_observer(int fd);
void forget_observer(int fd);
} // namespace thread

namespace alarm {
bool is_observer(int fd);
void forget_observer(int fd);
} // namespace alarm

namespace task {
bool is_observer(int fd);
void forget_observer(int fd);
} // namespace task

namespace detail {

inline bool is_observer(int fd) {
    return thread::is_observer(fd) || alarm::is_observer(fd) || task::is_observer(fd);
}

inline void forget_observer(int fd) {
    thread::forget_observer(fd);
    alarm::forget_observer(fd);
    task::forget_observer(fd);
}

// Switches a monitor off if it writes to fd, and only then.
inline void forget(std::atomic<int>& monitor, int fd) {
    monitor.compare_exchange_strong(fd, -1);
}

} // namespace detail
} // namespace zel
} // namespace orn

#endif
