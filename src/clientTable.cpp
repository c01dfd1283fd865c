// SPDX-License-Identifier: MIT
//
// The descriptors that answers go to: how they are opened, kept and given back.
#include "clientTable.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "observer.hpp"
#include "procFile.hpp"
#include "shutdown.hpp"
#include "trace.hpp"

namespace orn::zel::detail {

namespace {

std::string path_of(int fd) {
    return shared_in_proc("fd/" + std::to_string(fd));
}

// Opens the same pipe anew, on a descriptor that does not block whatever the client does. Setting O_NONBLOCK
// would not do: the flag belongs to the open file, which the client shares and may change at any time. Only a
// pipe is still itself when it is opened anew. Returns -1 and why when that fails.
int open_anew(int fd, std::string& why) {
    struct stat what = {};
    if (fstat(fd, &what) == 0 && !S_ISFIFO(what.st_mode)) {
        why = "it is no pipe";
        return -1;
    }
    int const own = open(("/proc/self/" + path_of(fd)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (own == -1)
        why = strerror(errno);
    return own;
}

std::size_t limit_of_unused() {
    std::size_t const most = 64;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur / 8 > most)
        return most;
    return static_cast<std::size_t>(limit.rlim_cur / 8);
}

bool has_reader(int fd) {
    pollfd entry = {fd, 0, 0};
    return poll(&entry, 1, 0) < 1;
}

// A pipe that has a name in a directory may: somebody opens it again.
bool may_get_a_reader(int fd) {
    return link_in_proc(path_of(fd).c_str()).compare(0, 5, "pipe:") != 0;
}

} // namespace

bool ClientTable::connect(int pid, int offered, std::string& why) {
    int const own = open_anew(offered, why);
    if (own != -1)
        remember(pid, own);
    return own != -1;
}

void ClientTable::remember(int pid, int fd) {
    all_.push_back({pid, fd});
    by_pid_[pid] = fd;
    if (all_.size() < next_look_)
        return;
    give_back(limit_of_unused());
    empty_unread();
    // Looking at all of them takes long in a large table, so the table has to grow by a share first.
    next_look_ = all_.size() + std::max<std::size_t>(all_.size() / 64, 8);
}

int ClientTable::at(int fd) const {
    auto const it =
        std::find_if(all_.begin(), all_.end(), [fd](Client const& client) { return client.fd == fd; });
    return it == all_.end() ? 0 : it->pid;
}

int ClientTable::of(int pid) const {
    auto const it = by_pid_.find(pid);
    return it == by_pid_.end() ? -1 : it->second;
}

// False when the client has connected again since, or does not read any more.
bool ClientTable::in_use(Client const& client) const {
    return of(client.pid) == client.fd && has_reader(client.fd);
}

void ClientTable::give_back(std::size_t most_unused) {
    std::vector<int> unused; // not of bool, which is a kilobyte of code
    for (Client const& client : all_)
        unused.push_back(in_use(client) ? 0 : 1);
    std::size_t const count = static_cast<std::size_t>(std::count(unused.begin(), unused.end(), 1));
    std::size_t excess = count - std::min(count, most_unused);
    std::vector<Client> kept;
    for (std::size_t i = 0; i < all_.size(); ++i) {
        Client const& client = all_[i];
        bool const oldest = unused[i] != 0 && excess > 0;
        if (oldest)
            --excess;
        if (!oldest || is_observer(client.fd)) {
            kept.push_back(client);
            continue;
        }
        if (of(client.pid) == client.fd)
            by_pid_.erase(client.pid);
        if (Trace* const trace = Trace::current())
            trace->forget(client.fd);
        close(client.fd);
    }
    all_.swap(kept);
}

// Puts one pipe without a reader, in which nothing has ever been, behind all numbers that have nobody to read
// them. Who writes there is told the same as before. A monitor may be writing just now, so its number waits
// until the monitor has found out.
void ClientTable::empty_unread() {
    int ends[2] = {-1, -1};
    for (Client& client : all_) {
        if (client.emptied || has_reader(client.fd) || is_observer(client.fd) || may_get_a_reader(client.fd))
            continue;
        if (ends[1] == -1) {
            if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
                return; // tried again with the next clients
            close(ends[0]);
        }
        client.emptied = dup3(ends[1], client.fd, O_CLOEXEC) != -1;
    }
    if (ends[1] != -1)
        close(ends[1]);
}

void ClientTable::forget() {
    // A thread that exit() leaves running may be about to write a line, so the descriptors stay open then.
    bool const closing = !Shutdown::keeps();
    for (Client const& client : all_) {
        forget_observer(client.fd);
        if (closing)
            close(client.fd);
    }
    all_.clear();
    by_pid_.clear();
}

} // namespace orn::zel::detail
