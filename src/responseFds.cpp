// SPDX-License-Identifier: MIT
#include "responseFds.hpp"

#include <algorithm>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "observers.hpp"
#include "shutdown.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::size_t const most_unused = 64;

// The other end has been closed: for a pipe's write end that is an error, for a socket a hang-up.
bool ended(int fd) {
    pollfd entry = {fd, 0, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

} // namespace

void ResponseFds::remember(int pid, int fd) {
    all_.push_back(fd);
    by_pid_[pid] = fd;
    if (all_.size() > most_unused)
        give_back();
}

bool ResponseFds::knows(int pid) const {
    return by_pid_.count(pid) != 0;
}

int ResponseFds::of(int pid) const {
    std::map<int, int>::const_iterator const it = by_pid_.find(pid);
    return it == by_pid_.end() ? 0 : it->second;
}

bool ResponseFds::in_use(int fd) const {
    for (auto const& client : by_pid_) {
        if (client.second == fd)
            return !ended(fd);
    }
    return false; // its process has connected again since
}

void ResponseFds::give_back() {
    std::vector<int> unused;
    std::copy_if(all_.begin(), all_.end(), std::back_inserter(unused),
                 [this](int fd) { return !in_use(fd); });
    if (unused.size() <= most_unused)
        return;
    unused.resize(unused.size() - most_unused);
    for (int const fd : unused) {
        if (is_observer(fd)) {
            quiet_.erase(fd);
            continue;
        }
        // Not at once: a thread may have read the monitor's number before it was switched off, and be about
        // to write.
        if (quiet_.insert(fd).second)
            continue;
        quiet_.erase(fd);
        all_.erase(std::find(all_.begin(), all_.end(), fd));
        for (std::map<int, int>::iterator it = by_pid_.begin(); it != by_pid_.end();)
            it = it->second == fd ? by_pid_.erase(it) : std::next(it);
        close(fd);
    }
}

void ResponseFds::forget() {
    // A thread that exit() leaves running may be about to write a line: then the descriptors stay open.
    bool const closing = !Shutdown::keeps();
    for (int const fd : all_) {
        forget_observer(fd);
        if (closing)
            close(fd);
    }
    all_.clear();
    quiet_.clear();
    by_pid_.clear();
}

} // namespace detail
} // namespace zel
} // namespace orn
