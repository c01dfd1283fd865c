// SPDX-License-Identifier: MIT
//
// Monitors and the managers that they are tied to: registration, delivery and the listing. What polls the
// descriptors is in threadGroup.cpp.
#include <orn/zel/fd.hpp>

#include <vector>

#include <boost/make_shared.hpp>

#include <orn/clock.hpp>
#include <orn/log.h>
#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "fixedLine.hpp"
#include "inspect.hpp"
#include "plainText.hpp"
#include "procFile.hpp"
#include "threadRegistry.hpp"
#include "uniqueId.hpp"

namespace orn::zel {
namespace fd {

// ---- ManagerAssociation ---------------------------------------------------------------------------------

ManagerAssociation::ManagerAssociation(MonitorImpl* monitor)
    : monitor_(monitor), enabled_(false), associated_(false) {}

ManagerAssociation::~ManagerAssociation() {
    if (associated_)
        dissociate();
}

ManagerAssociation& ManagerAssociation::operator=(bool want) {
    if (want == enabled_)
        return *this;
    if (enabled_)
        dissociate();
    enabled_ = want;
    associate();
    return *this;
}

ManagerAssociation& ManagerAssociation::operator=(boost::shared_ptr<Manager> manager) {
    if (manager == manager_)
        return *this;
    if (manager_)
        dissociate();
    manager_.swap(manager);
    associate();
    return *this;
}

void ManagerAssociation::associate() {
    if (enabled_ && monitor_ && manager_) {
        manager_->insert(monitor_);
        associated_ = true;
    }
}

void ManagerAssociation::dissociate() {
    if (monitor_ && manager_) {
        manager_->remove(monitor_);
        associated_ = false;
    }
}

// ---- MonitorImpl ----------------------------------------------------------------------------------------

MonitorImpl::MonitorImpl() : MonitorImpl(-1, 0) {}

MonitorImpl::MonitorImpl(int fd, short events)
    : id_(detail::draw_id()), fd_(fd), events_(events), expired_(0), registration_(0), dispatches_(0),
      association_(this) {}

MonitorImpl::~MonitorImpl() = default;

[[gnu::cold]] unsigned long MonitorImpl::insert(boost::function<void(Event*)> const& handler) {
    if (fd_ == -1)
        throw Exception("invalid FD (-1)");
    if (receptacle_.count() != 0)
        return 0;
    if (handler.empty())
        throw Exception("Empty handler function");
    unsigned long id = 0;
    if (association_.manager()) {
        // The lock is needed because another member, the group's runner, may be delivering an older event.
        AutoLock const guard(association_.manager()->monitors());
        id = receptacle_.insert(handler);
    } else {
        id = receptacle_.insert(handler);
    }
    try {
        association_ = true;
    } catch (...) {
        remove(id);
        throw;
    }
    return id;
}

MonitorImpl::HeldHandler MonitorImpl::take_handler(unsigned long id) {
    if (!association_.manager())
        return receptacle_.take(id);
    AutoLock const guard(association_.manager()->monitors());
    return receptacle_.take(id);
}

void MonitorImpl::remove(unsigned long id) {
    // Destroyed on return, when no lock is held: what it captured may call the library.
    HeldHandler const removed = take_handler(id);
    association_ = false;
}

unsigned MonitorImpl::capacity() const {
    return receptacle_.capacity();
}

unsigned MonitorImpl::count() const {
    return receptacle_.count();
}

void MonitorImpl::events(short events) {
    events_ = events;
    outdate_manager();
}

short MonitorImpl::events() const {
    return events_;
}

[[gnu::cold]] void MonitorImpl::expired(short errors) {
    expired_ = errors;
    outdate_manager();
}

void MonitorImpl::outdate_manager() {
    if (association_.associated())
        association_.manager()->outdate();
}

void MonitorImpl::Associate(boost::shared_ptr<Manager> manager) {
    association_ = manager;
}

// ---- MonitorMap and Manager -----------------------------------------------------------------------------

MonitorMap::~MonitorMap() = default;

// The analysis cannot see that mutex_ stands for the whole map.
void MonitorMap::Lock() ZEL_NO_ANALYSIS {
    mutex_.lock();
}

void MonitorMap::Unlock() ZEL_NO_ANALYSIS {
    mutex_.unlock();
}

bool MonitorMap::TryLock(unsigned ms) ZEL_NO_ANALYSIS {
    // Waiting for the mutex itself would go by the wall clock, which may be set back meanwhile.
    internal::Patience const patience(ms);
    while (!mutex_.try_lock()) {
        if (!patience.nap())
            return false;
    }
    return true;
}

[[gnu::cold]] Manager::Manager()
    : id_(detail::draw_live_id()), registrations_(0), change_count_(0), changed_{}, outdated_(false) {
    Log_SpecEntry(logSpecForceInfo, "src/fd", detail::line_of_manager_made, "%s",
                  "orn::zel::fd::Manager::Manager()");
}

[[gnu::cold]] Manager::~Manager() {
    detail::end_live_id(id_.value());
}

[[gnu::cold]] void Manager::insert(MonitorImpl* monitor) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    Log_SpecEntry(logSpecForceInfo, "src/fd", detail::line_of_monitor_inserted, "%s: fd=%d, group=%lu",
                  "void orn::zel::fd::Manager::insert(orn::zel::fd::MonitorImpl*)", monitor->fd(),
                  group->id().value());
    {
        AutoLock const guard(monitors_);
        monitors_.entries()[monitor->fd()] = monitor;
        if (++registrations_ == any_registration) // wrapped
            ++registrations_;
        monitor->registration_ = registrations_;
        note_change(monitor->fd());
    }
    bump();
}

void Manager::remove(MonitorImpl* monitor) {
    {
        AutoLock const guard(monitors_);
        // The number decides, not the monitor: another monitor that has taken the number over goes with it.
        monitors_.entries().erase(monitor->fd());
        note_change(monitor->fd());
    }
    bump();
}

MonitorImpl* Manager::find(int fd, unsigned long registration) {
    auto const it = monitors_.entries().find(fd);
    if (it == monitors_.entries().end())
        return nullptr;
    bool const meant = registration == any_registration || it->second->registration_ == registration;
    return meant ? it->second : nullptr;
}

void Manager::dispatch(pollfd p) {
    std::uint64_t const nothing_seen = ~std::uint64_t(0);
    dispatch(p, Registration{nullptr, any_registration}, nothing_seen);
}

bool Manager::dispatch(pollfd const& p, Registration const& meant, std::uint64_t seen) {
    short const errors = static_cast<short>(p.revents & (POLLERR | POLLNVAL));
    MonitorImpl* monitor = nullptr;
    MonitorImpl::HeldHandler handler;
    {
        AutoLock const guard(monitors_);
        // While nothing has changed, the monitor that the poll set knows is the one in the map.
        monitor = seen == change_count_ ? meant.monitor : find(p.fd, meant.number);
        if (!monitor)
            return false;
        if (errors != 0) {
            monitor->expired_ = errors;
            note_change(p.fd);
        }
        // The lock is held, so that no instruction needs to lock the bus.
        monitor->dispatches_.store(monitor->dispatches() + 1, std::memory_order_relaxed);
        handler = monitor->receptacle_.handler();
    }
    if (errors != 0)
        bump(); // the poll set still has the descriptor, and the loop would spin on it
    if (handler) {
        // No lock is held here. The monitor may go at any time from now on: its handler may destroy it, and
        // so may another member.
        EventImpl event(monitor, p.fd, p.revents);
        (*handler)(&event);
    }
    return true;
}

void Manager::note_change(int fd) {
    changed_[change_count_++ % changes_kept] = fd;
}

// The analysis does not know that the caller's monitors() and monitors_ are the same lock.
bool Manager::changes(std::uint64_t& seen, std::vector<int>& fds) ZEL_NO_ANALYSIS {
    if (outdated_.exchange(false))
        change_count_ += changes_kept + 1; // too many, for whoever asks
    std::uint64_t const before = seen;
    seen = change_count_;
    if (change_count_ - before > changes_kept)
        return false;
    for (std::uint64_t i = before; i < change_count_; ++i)
        fds.push_back(changed_[i % changes_kept]);
    return true;
}

unsigned long Manager::size() {
    AutoLock const guard(monitors_);
    return monitors_.entries().size();
}

void Manager::bump() {
    boost::shared_ptr<thread::Group> const group = thread::Registry::group_if_any();
    if (group)
        group->bump();
}

void Manager::WakeUp(char c) {
    thread::ThisGroup()->WakeUp(c);
}

// ---- Registration and listing ---------------------------------------------------------------------------

[[gnu::cold]] boost::shared_ptr<Monitor> Fd(int fd, boost::shared_ptr<Manager> manager) {
    boost::shared_ptr<MonitorImpl> const monitor = boost::make_shared<MonitorImpl>(fd, POLLIN);
    monitor->Associate(manager);
    return monitor;
}

AutoReceptor::AutoReceptor(int fd, boost::function<void(Event*)> handler)
    : monitor_(orn::zel::Fd(fd)), receptor_(*monitor_, handler) {}

AutoReceptor::~AutoReceptor() = default;

namespace {

[[gnu::cold]] std::string names_of(short events) {
    static struct {
        short bit;
        char const* name;
    } const names[] = {{POLLIN, "IN"},   {POLLPRI, "PRI"}, {POLLOUT, "OUT"},
                       {POLLERR, "ERR"}, {POLLHUP, "HUP"}, {POLLNVAL, "NVAL"}};
    std::string text;
    char const* separator = "";
    for (auto const& item : names) {
        if (events & item.bit) {
            text += separator;
            text += item.name;
            separator = ",";
        }
    }
    return text;
}

} // namespace

[[gnu::cold]] std::ostream& operator<<(std::ostream& os, Events const& events) {
    // Composed as a string, because the stream may be writing in another base.
    return os << '{' + std::to_string(events.value()) + ':' + names_of(events.value()) + '}';
}

[[gnu::cold]] void ListFds(std::string const&, int responseFd) {
    detail::PlainText text;
    text << "FdMgrs:\n";
    for (thread::Registry::Entry const& entry : thread::Registry::entries()) {
        // A thread that watches nothing has no line: making a manager for it would change what is looked at.
        if (!entry.group || !entry.fd_manager)
            continue;
        text << '[' << entry.fd_manager->id() << "] thread=" << entry.tid << " group=" << entry.group->id()
             << " fds={ ";
        AutoLock const guard(entry.fd_manager->monitors());
        for (auto const& item : entry.fd_manager->monitors().entries())
            text << item.first << ' ';
        text << "}\n";
    }
    cmd::Write(responseFd, text.str());
}

namespace {

// What is told of a monitor, which may be gone when the lock of its manager is released.
struct Watched {
    int fd;
    short events;
    short expired;
    unsigned long dispatches;
};

// False when a handler has the lock. The analysis cannot follow a lock that is adopted.
[[gnu::cold]] bool look_at(MonitorMap& monitors, std::vector<Watched>& all) ZEL_NO_ANALYSIS {
    unsigned const longest_wait_ms = 50;
    if (!monitors.TryLock(longest_wait_ms))
        return false;
    struct Held {
        ~Held() ZEL_NO_ANALYSIS { monitors.Unlock(); }
        MonitorMap& monitors;
    } const held{monitors};
    for (auto const& item : monitors.entries()) {
        if (MonitorImpl const* const monitor = item.second)
            all.push_back({item.first, monitor->events(), monitor->expired(), monitor->dispatches()});
    }
    return true;
}

} // namespace

[[gnu::cold]] void tell_fds(detail::Answer& answer) {
    std::string const descriptors = detail::shared_in_proc("fd/");
    for (thread::Registry::Entry const& entry : thread::Registry::living()) {
        if (!entry.fd_manager)
            continue;
        id_t const manager = entry.fd_manager->id().value();
        std::vector<Watched> all;
        if (!look_at(entry.fd_manager->monitors(), all)) {
            answer.begin().field("thread", entry.tid).field("manager", manager).field("busy", true);
            answer.end();
        }
        for (Watched const& each : all) {
            detail::Json& object = answer.begin();
            object.field("fd", each.fd);
            object.field("path", detail::link_in_proc((descriptors + std::to_string(each.fd)).c_str()));
            object.field("thread", entry.tid).field("manager", manager);
            object.field("events", each.events).field("event_names", names_of(each.events));
            object.field("dispatches", each.dispatches).field("expired", each.expired != 0);
            answer.end();
        }
    }
}

} // namespace fd

boost::shared_ptr<fd::Monitor> Fd(int fd) {
    return fd::Fd(fd, thread::FdMgr());
}

} // namespace orn::zel
