// SPDX-License-Identifier: MIT
#include "responseFds.hpp"

#include <algorithm>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "observers.hpp"
#include "registry.hpp"

namespace orn {
namespace zel {
namespace detail {

namespace {

std::size_t const most_ended = 64;

// The other end has been closed: for a pipe's write end that is an error, for a socket a hang-up.
bool ended(int fd) {
    pollfd entry = {fd, 0, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

} // namespace

void ResponseFds::remember(int pid, int fd) {
    all_.push_back(fd);
    by_pid_[pid] = fd;
    if (all_.size() > most_ended)
        give_back();
}

int ResponseFds::of(int pid) const {
    std::map<int, int>::const_iterator const it = by_pid_.find(pid);
    return it == by_pid_.end() ? 0 : it->second;
}

void ResponseFds::give_back() {
    std::vector<int> gone;
    std::copy_if(all_.begin(), all_.end(), std::back_inserter(gone), ended);
    if (gone.size() <= most_ended)
        return;
    gone.resize(gone.size() - most_ended);
    for (int const fd : gone) {
        if (is_observer(fd))
            continue;
        all_.erase(std::find(all_.begin(), all_.end(), fd));
        for (std::map<int, int>::iterator it = by_pid_.begin(); it != by_pid_.end();)
            it = it->second == fd ? by_pid_.erase(it) : std::next(it);
        close(fd);
    }
}

void ResponseFds::forget() {
    // A thread that exit() leaves running may be about to write a line: then the descriptors stay open.
    bool const closing = !thread::Registry::survivors();
    for (int const fd : all_) {
        forget_observer(fd);
        if (closing)
            close(fd);
    }
    all_.clear();
    by_pid_.clear();
}

} // namespace detail
} // namespace zel
} // namespace orn
