// SPDX-License-Identifier: MIT
//
// The poll set of a group: how it is built, how it is changed in place, and which of its entries a large one
// asks poll() about. The turn that does so is in threadGroup.cpp.
#include <orn/zel/threadGroup.hpp>

#include <algorithm>
#include <optional>

#include "readiness.hpp"
#include "threadMonitor.hpp"
#include "threadRegistry.hpp"

namespace orn::zel::thread {

namespace {

// A question that finds nothing costs what a poll() of this many entries does. Where the loop mostly waits, a
// large set can so afford to ask in each turn, and a small one only now and then.
std::size_t const entries_per_miss = 1024;

bool is_polled(fd::MonitorImpl const& monitor) {
    return monitor.count() != 0 && monitor.expired() == 0;
}

// No two registrations have the same: two managers that live have different identifiers.
std::uint64_t stamp_of(fd::Manager const& manager, fd::MonitorImpl& monitor) {
    return std::uint64_t(manager.id().value()) << 32 |
           static_cast<std::uint32_t>(fd::Manager::registration(monitor).number);
}

} // namespace

// Delivers a poll result to the fd manager that registered the descriptor. Clears the result when the
// registration has been withdrawn. Small enough that boost::function keeps it without an allocation.
//
// The handler may run a nested turn, which rebuilds the set and so destroys this, and the manager with it.
// Once the handler is called neither is touched any more.
struct Group::Delivery {
    void operator()(pollfd& p) const {
        if (!watcher->manager->dispatch(p, registration, watcher->seen))
            p.revents = 0;
    }

    Watcher const* watcher;
    fd::Manager::Registration registration;
};

Group::DispatchInfo Group::info_of(Watcher const& watcher, fd::MonitorImpl& monitor) {
    return {monitor.events(), watcher.tid, Delivery{&watcher, fd::Manager::registration(monitor)}};
}

// ---- Built anew -----------------------------------------------------------------------------------------

[[gnu::cold]] void Group::setup_pollset() {
    built_version_ = 0; // in case that what follows throws
    dispatchset_.clear();
    pollset_.clear();
    order_.clear();
    watchers_.clear();
    undispatched_ = 0;
    doubled_ = false;
    ++rebuilds_;
    if (readiness_)
        readiness_->begin();
    add_entry(ctrl_.ReadFD(), DispatchInfo{POLLIN | POLLHUP, 0, [this](pollfd& p) { ctrl_eater(p); }}, 0);

    AutoLock const guard(mutex_);
    watchers_.reserve(threads_.size()); // so that none moves: the entries point there
    for (int const tid : threads_) {
        boost::shared_ptr<fd::Manager> const manager = Registry::fd_manager_if_any(tid);
        if (!manager)
            continue;
        watchers_.push_back(Watcher{tid, manager, 0, pollset_.size()});
        add_monitors(watchers_.back());
    }
    if (readiness_)
        readiness_->end();
    built_membership_ = membership_;
    built_version_.store(poll_version_.load());
}

[[gnu::cold]] void Group::add_monitors(Watcher& watcher) {
    fd::Manager& manager = *watcher.manager;
    AutoLock const guard(manager.monitors());
    std::vector<int> all_are_looked_at;
    manager.changes(watcher.seen, all_are_looked_at);
    for (auto const& item : manager.monitors().entries()) {
        fd::MonitorImpl& monitor = *item.second;
        if (is_polled(monitor))
            add_entry(item.first, info_of(watcher, monitor), stamp_of(manager, monitor));
    }
}

[[gnu::cold]] void Group::add_entry(int fd, DispatchInfo const& info, std::uint64_t stamp) {
    std::size_t const before = dispatchset_.size();
    DispatchInfo& stored = dispatchset_[fd];
    doubled_ = doubled_ || dispatchset_.size() == before;
    stored = info;
    order_.push_back(&stored);
    pollset_.push_back(pollfd{fd, info.events, 0});
    if (readiness_)
        readiness_->set({fd, info.events, info.tid, stamp});
}

unsigned long Group::setup_pollset(pollfd* fds, unsigned long nfds, std::vector<pollfd>& out) {
    return combine(pollset_, fds, nfds, out);
}

unsigned long Group::combine(std::vector<pollfd>& own, pollfd* fds, unsigned long nfds,
                             std::vector<pollfd>& out) {
    out.clear();
    out.reserve(own.size() + nfds);
    for (pollfd& entry : own) {
        // A descriptor that the caller waits for is left to the caller.
        if (!isInPollset(entry, fds, nfds))
            out.push_back(entry);
    }
    unsigned long const base = out.size();
    out.insert(out.end(), fds, fds + nfds);
    return base;
}

bool isInPollset(pollfd& pfd, pollfd* fds, unsigned long nfds) {
    return std::any_of(fds, fds + nfds, [&pfd](pollfd const& entry) { return entry.fd == pfd.fd; });
}

// ---- Changed in place -----------------------------------------------------------------------------------

// False when the set has to be built anew: the members have changed, one does not know any more what has
// changed, or two watch one descriptor.
bool Group::refresh() {
    AutoLock const guard(mutex_);
    if (built_version_ == 0 || doubled_ || !same_watchers())
        return false;
    built_version_ = 0; // in case that what follows throws
    undispatched_ = 0;
    ++rebuilds_;
    for (Watcher& watcher : watchers_) {
        if (!refresh_entries(watcher))
            return false;
    }
    built_version_.store(poll_version_.load());
    return true;
}

bool Group::same_watchers() const {
    if (membership_ != built_membership_)
        return false;
    auto known = watchers_.begin();
    for (int const tid : threads_) {
        boost::shared_ptr<fd::Manager> const manager = Registry::fd_manager_if_any(tid);
        if (!manager)
            continue;
        if (known == watchers_.end() || known->tid != tid || known->manager != manager)
            return false;
        ++known;
    }
    return known == watchers_.end();
}

bool Group::refresh_entries(Watcher& watcher) {
    fd::Manager& manager = *watcher.manager;
    AutoLock const guard(manager.monitors());
    std::vector<int> changed;
    if (!manager.changes(watcher.seen, changed))
        return false;
    auto const& monitors = manager.monitors().entries();
    for (int const fd : changed) {
        auto const found = monitors.find(fd);
        bool const wanted = found != monitors.end() && is_polled(*found->second);
        if (!refresh_entry(watcher, fd, wanted ? found->second : nullptr))
            return false;
    }
    return true;
}

bool Group::refresh_entry(Watcher const& watcher, int fd, fd::MonitorImpl* monitor) {
    auto const found = dispatchset_.find(fd);
    bool const there = found != dispatchset_.end();
    bool const known = there && found->second.tid == watcher.tid;
    if (!monitor) {
        if (known)
            erase_entry(watcher, fd);
        return true;
    }
    if (there && !known)
        return false; // another member watches it, too
    DispatchInfo const info = info_of(watcher, *monitor);
    if (known) {
        found->second = info;
        pollset_[place_of(watcher, fd)].events = info.events;
    } else {
        insert_entry(watcher, fd, info);
    }
    if (readiness_)
        readiness_->set({fd, info.events, info.tid, stamp_of(*watcher.manager, *monitor)});
    return true;
}

// Moving what is behind costs 16 bytes for each entry, which is nothing beside a poll() of them.
void Group::insert_entry(Watcher const& watcher, int fd, DispatchInfo const& info) {
    std::ptrdiff_t const at = static_cast<std::ptrdiff_t>(place_of(watcher, fd));
    DispatchInfo const& stored = dispatchset_[fd] = info;
    pollset_.insert(pollset_.begin() + at, pollfd{fd, info.events, 0});
    order_.insert(order_.begin() + at, &stored);
    move_behind(watcher, 1);
}

void Group::erase_entry(Watcher const& watcher, int fd) {
    std::ptrdiff_t const at = static_cast<std::ptrdiff_t>(place_of(watcher, fd));
    pollset_.erase(pollset_.begin() + at);
    order_.erase(order_.begin() + at);
    dispatchset_.erase(fd);
    move_behind(watcher, -1);
    if (readiness_)
        readiness_->drop(fd);
}

void Group::move_behind(Watcher const& watcher, int by) {
    for (auto later = watchers_.rbegin(); later->tid != watcher.tid; ++later)
        later->begin += static_cast<std::size_t>(by);
}

// Where the entry of the descriptor is, or belongs.
std::size_t Group::place_of(Watcher const& watcher, int fd) const {
    Watcher const* const next = &watcher + 1;
    std::size_t const end = next == watchers_.data() + watchers_.size() ? pollset_.size() : next->begin;
    auto const begin = pollset_.begin();
    auto const place = std::lower_bound(begin + static_cast<std::ptrdiff_t>(watcher.begin),
                                        begin + static_cast<std::ptrdiff_t>(end), fd,
                                        [](pollfd const& entry, int number) { return entry.fd < number; });
    return static_cast<std::size_t>(place - begin);
}

// ---- Which of a large one to ask about ------------------------------------------------------------------

void Group::fit_readiness() {
    std::size_t const limit = detail::readiness_threshold;
    if (readiness_) {
        if (doubled_ || pollset_.size() <= limit / 2)
            readiness_.reset();
    } else if (!doubled_ && pollset_.size() > limit) {
        readiness_ = std::make_unique<detail::Readiness>();
        setup_pollset();
    }
}

// Whether asked_ has, with nothing left out, the entries that may be ready, and what poll() says of them.
// `asked` is whether poll() need not be asked about all of them before waiting.
bool Group::ask_readiness(int& ready, bool& asked) {
    ready = 0;
    asked = false;
    // A report shows all entries, and of two for one descriptor the epoll set knows one.
    if (!readiness_ || doubled_ || crowded_ || reports_polls())
        return false;
    asked = !probe_.due();
    if (asked)
        return false;
    std::optional<int> const answer = readiness_->ask(asked_);
    asked = answer.has_value();
    ready = answer.value_or(0);
    return asked;
}

bool Group::is_crowded(int ready, std::size_t entries) {
    return ready > 0 && detail::readiness_crowd * static_cast<std::size_t>(ready) >= entries;
}

void Group::probed(int ready) {
    crowded_ = is_crowded(ready, pollset_.size());
    if (ready != 0) {
        ++polls_;
        probe_.hit();
    } else {
        probe_.missed(static_cast<unsigned>(std::min<std::size_t>(entries_per_miss / pollset_.size(), 63)));
    }
}

void Group::take_results() {
    hits_.clear();
    for (pollfd const& entry : asked_) {
        if (entry.revents == 0)
            continue;
        hits_.push_back(place_of(entry.fd));
        pollset_[hits_.back()].revents = entry.revents;
    }
    std::sort(hits_.begin(), hits_.end());
}

void Group::audit(std::vector<pollfd> const& set) {
    for (pollfd const& entry : set) {
        if (entry.revents != 0)
            readiness_->confirm(entry.fd);
    }
    readiness_->audited();
}

// Mostly where it was the last time. What is active among thousands is found there in one line of the
// processor's cache, where a search looks into a dozen.
std::size_t Group::place_of(int fd) const {
    std::uint32_t& place = readiness_->place(fd);
    if (place >= pollset_.size() || pollset_[place].fd != fd)
        place = static_cast<std::uint32_t>(search_place(fd));
    return place;
}

std::size_t Group::search_place(int fd) const {
    int const tid = readiness_->owner(fd);
    if (tid == 0)
        return 0; // the control pipe
    auto const watcher = std::lower_bound(watchers_.begin(), watchers_.end(), tid,
                                          [](Watcher const& each, int number) { return each.tid < number; });
    return place_of(*watcher, fd);
}

} // namespace orn::zel::thread
