// SPDX-License-Identifier: MIT
//
// Watching file descriptors. Public. A thread registers a handler for a descriptor; the group that the thread
// belongs to polls the descriptor and calls the handler. The loop itself is in threadGroup.hpp.
//
// From examples/02_fd.cpp:
//
//     bool open = true;
//     orn::zel::fd::AutoReceptor output(fileno(child), [&open](orn::zel::fd::Event* event) {
//         char buffer[4096];
//         ssize_t const got = read(event->fd(), buffer, sizeof buffer);
//         if (got > 0)
//             std::fwrite(buffer, 1, static_cast<std::size_t>(got), stdout);
//         else
//             open = false; // end of file is readable, too
//     });
//     while (open)
//         orn::zel::RunOnce(-1);
//
// Handlers run on the thread that runs the group's loop, one at a time, with no lock held: a handler may
// register, remove and destroy whatever it likes, itself included, may throw (the exception leaves the run
// call) and may run a nested loop. The library never closes a descriptor that it was given: close it after
// its registration is gone. Error events (POLLERR, POLLNVAL) are delivered once; the descriptor is then
// polled no more. A hang-up is delivered until the handler removes itself.
#ifndef ORN_ZEL_FD_HPP
#define ORN_ZEL_FD_HPP

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <poll.h>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>
#include <orn/zel/receptacle.hpp>

namespace orn::zel {

namespace fd {

class Event;
class Manager;
class Monitor;
class MonitorImpl;

} // namespace fd

namespace detail {

template <>
struct TypeName<fd::Event*> {
    static char const* text() { return "orn::zel::fd::Event*"; }
};

} // namespace detail

namespace fd {

// What a handler receives. Lives for the length of the call.
class Event {
public:
    virtual ~Event() {}
    // The monitor that delivered the event. A handler that destroyed it must not use this any more.
    virtual Monitor* context() const = 0;
    virtual int fd() const = 0;
    // The events that poll() returned.
    virtual short revents() const = 0;
};

// One watched descriptor and its one handler. Change it on the thread that it was made on; a removal from
// another thread does not wait for a call of the handler that is under way.
class Monitor : public Receptacle<Event*, unsigned long> {
public:
    ~Monitor() override {}

    // Installs the handler and starts watching. Throws orn::zel::Exception "invalid FD (-1)", or "Empty
    // handler function". Returns 0, and changes nothing, when there is a handler already.
    unsigned long insert(boost::function<void(Event*)> const& handler) override = 0;
    // Stops watching, whatever the id; the handler goes only when the id is its own.
    void remove(unsigned long id) override = 0;
    unsigned capacity() const override = 0;
    unsigned count() const override = 0;

    // The events to ask poll() for; POLLIN at first. Takes effect when the poll set is next rebuilt for
    // another reason: set it before insert().
    virtual void events(short events) = 0;
    virtual short events() const = 0;
};

// A monitor for a descriptor on the given manager, with no handler and so not watched yet.
ORN_API boost::shared_ptr<Monitor> Fd(int fd, boost::shared_ptr<Manager> manager);

// Watches a descriptor for as long as it lives, with POLLIN asked for. Make and destroy it on one thread.
class ORN_API AutoReceptor {
public:
    // Throws what Monitor::insert() throws.
    AutoReceptor(int fd, boost::function<void(Event*)> handler);
    ~AutoReceptor();

    AutoReceptor(AutoReceptor const&) = delete;
    AutoReceptor& operator=(AutoReceptor const&) = delete;

private:
    boost::shared_ptr<Monitor> monitor_;
    orn::zel::AutoReceptor<Event*> receptor_;
};

// A set of poll events, for printing: 25 prints as "{25:IN,ERR,HUP}".
class Events {
public:
    explicit Events(short events) : events_(events) {}
    short value() const { return events_; }

private:
    short events_;
};

ORN_API std::ostream& operator<<(std::ostream& os, Events const& events);

// Writes a line to responseFd for every thread that has an fd manager and a group, with the descriptors that
// it watches. The arguments are not used.
ORN_API void ListFds(std::string const& args, int responseFd);

// ---- The implementation behind the interfaces -----------------------------------------------------------

class EventImpl : public Event {
public:
    EventImpl(Monitor* context, int fd, short revents) : context_(context), fd_(fd), revents_(revents) {}
    Monitor* context() const override { return context_; }
    int fd() const override { return fd_; }
    short revents() const override { return revents_; }

private:
    Monitor* context_;
    int fd_;
    short revents_;
};

// Ties one monitor to at most one manager, and keeps the manager alive. The monitor is in the manager's map
// exactly while it is wanted there and there is a manager.
class ORN_API ManagerAssociation {
public:
    explicit ManagerAssociation(MonitorImpl* monitor);
    ~ManagerAssociation();

    ManagerAssociation& operator=(bool want);
    ManagerAssociation& operator=(boost::shared_ptr<Manager> manager);

    void associate();
    void dissociate();

    boost::shared_ptr<Manager> const& manager() const { return manager_; }
    bool associated() const { return associated_; }

    ManagerAssociation(ManagerAssociation const&) = delete;
    ManagerAssociation& operator=(ManagerAssociation const&) = delete;

private:
    MonitorImpl* const monitor_;
    boost::shared_ptr<Manager> manager_;
    bool enabled_;
    bool associated_;
};

class ORN_API MonitorImpl : public Monitor, public basic_ProcessUnique<unsigned long> {
public:
    MonitorImpl();
    MonitorImpl(int fd, short events);
    ~MonitorImpl() override;

    unsigned long insert(boost::function<void(Event*)> const& handler) override;
    void remove(unsigned long id) override;
    unsigned capacity() const override;
    unsigned count() const override;
    void events(short events) override;
    short events() const override;

    basic_Id<unsigned long> const& id() const { return id_; }
    int fd() const { return fd_; }
    // The error bits that ended the polling, 0 before; never goes back to 0.
    short expired() const { return expired_; }
    void expired(short errors);
    // How many results were delivered. Any thread.
    unsigned long dispatches() const { return dispatches_; }
    void Associate(boost::shared_ptr<Manager> manager);

private:
    friend class Manager;
    using HeldHandler = boost::shared_ptr<boost::function<void(Event*)>>;

    ORN_LOCAL HeldHandler take_handler(unsigned long id);
    ORN_LOCAL void outdate_manager();

    basic_Id<unsigned long> id_;
    SingleReceptacle<Event*> receptacle_; // guarded by the manager's lock, when there is a manager
    int fd_;
    std::atomic<short> events_;
    std::atomic<short> expired_;
    unsigned long registration_; // set by the manager, under its lock
    std::atomic<unsigned long> dispatches_;
    ManagerAssociation association_;
};

// A manager's lock and its map in one. The map holds plain pointers, because a monitor withdraws itself
// before it dies.
class ORN_API ZEL_CAPABILITY("mutex") MonitorMap : public Lockable {
public:
    using map_type = std::map<int, MonitorImpl*>;

    ~MonitorMap() override;
    void Lock() override ZEL_ACQUIRE();
    void Unlock() override ZEL_RELEASE();
    // For a caller who must not wait for a handler that has the lock. False: it was not free for so long.
    bool TryLock(unsigned ms) ZEL_TRY_ACQUIRE(true);

    map_type& entries() ZEL_REQUIRES(this) { return entries_; }

private:
    std::mutex mutex_;
    map_type entries_;
};

// Keeps the monitors of one thread, and delivers poll results to their handlers. It is kept alive by the
// thread's record, by every monitor that is tied to it and by the poll sets that it is in.
class ORN_API Manager : public basic_ProcessUnique<unsigned long> {
public:
    Manager();
    ~Manager() override;

    basic_Id<unsigned long> const& id() const { return id_; }

    // Enter and withdraw a monitor; the calling thread's group is told. Only ManagerAssociation calls these.
    void insert(MonitorImpl* monitor);
    void remove(MonitorImpl* monitor);

    // Calls the handler of p.fd with p.revents; does nothing when the descriptor is not in the map any more.
    // The caller is the runner of the group. No lock is held during the call.
    void dispatch(pollfd p);

    // What a poll set remembers of a monitor, which may be gone by the time that a result is there.
    struct Registration {
        MonitorImpl* monitor;
        unsigned long number;
    };
    static Registration registration(MonitorImpl& monitor) { return {&monitor, monitor.registration_}; }

    // The same for a poll set that had the given registration when changes() left `seen`: a result that was
    // meant for an earlier registration of the same descriptor number is dropped. Returns false when the
    // registration has been withdrawn. Does not touch the manager any more once the handler is called.
    ORN_LOCAL bool dispatch(pollfd const& p, Registration const& meant, std::uint64_t seen);

    unsigned long size();

    // Has the calling thread's group rebuild its poll set. Does nothing when the thread has no group.
    void bump();
    // Writes one control byte to the calling thread's group.
    void WakeUp(char c);

    // Lock it before walking it. A group's mutex is taken before this lock, never after.
    MonitorMap& monitors() { return monitors_; }

    // For the poll sets that have the manager's descriptors. Adds to fds those whose entries have changed
    // since the caller last asked, when it left `seen`. Returns false when all have to be looked at: too many
    // have changed, or it is not known which. Either way `seen` is up to date afterwards. Lock
    // monitors() before.
    bool changes(std::uint64_t& seen, std::vector<int>& fds);
    // Something of the monitors has changed besides what insert() and remove() enter. Takes no lock, because
    // who walks the map may come here.
    void outdate() { outdated_ = true; }

private:
    friend class MonitorImpl;

    static unsigned long const any_registration = 0;
    static std::uint64_t const changes_kept = 64;

    ORN_LOCAL MonitorImpl* find(int fd, unsigned long registration) ZEL_REQUIRES(monitors_);
    ORN_LOCAL void note_change(int fd) ZEL_REQUIRES(monitors_);

    basic_Id<unsigned long> id_;
    MonitorMap monitors_;
    unsigned long registrations_ ZEL_GUARDED_BY(monitors_);
    std::uint64_t change_count_ ZEL_GUARDED_BY(monitors_);
    int changed_[changes_kept] ZEL_GUARDED_BY(monitors_); // the latest ones, in a ring
    std::atomic<bool> outdated_;
};

} // namespace fd

// A monitor for a descriptor on the calling thread's own fd manager, with no handler yet.
ORN_API boost::shared_ptr<fd::Monitor> Fd(int fd);

} // namespace orn::zel

#endif
