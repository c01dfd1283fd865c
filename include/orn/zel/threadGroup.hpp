// SPDX-License-Identifier: MIT
//
// Threads, the groups that they form, and the poll loop of a group. Public. What is polled is registered
// through fd.hpp, and everything built on it.
//
// From examples/06_threadGroup.cpp:
//
//     std::promise<bool> handled;
//     std::atomic<bool> done(false);
//     orn::os::Thread const second([&] { // joins the group of the thread that makes it
//         orn::zel::fd::AutoReceptor receptor(pipe.ReadFD(), [&](orn::zel::fd::Event* event) {
//             char c;
//             if (read(event->fd(), &c, 1) == 1)
//                 handled.set_value(orn::zel::thread::self() == loop_thread);
//         });
//         if (write(pipe.WriteFD(), "x", 1) == 1)
//             on_loop = handled.get_future().get();
//         done = true;
//         orn::zel::Exit(); // ends the wait of the first thread, which then sees the flag
//     });
//     while (!done)
//         orn::zel::RunOnce(-1);
//
// Every thread belongs to one group. A thread made by o_pthread_create() or Thread joins its creator's group;
// any other thread gets a group of its own the first time it uses the library; NewThreadGroup() moves the
// caller into a fresh one. One member at a time, the runner, polls the descriptors of all members and calls
// their handlers.
//
// Let one member of a group make the run calls, and no other, not even bounded ones: between two turns of the
// loop the role is free, and whoever takes it then leaves that loop's RunOnce(-1) asleep for good. A member
// that only wants to wait calls poll(); one that wants a loop calls NewThreadGroup() first.
//
// One turn of the loop, RunOnce():
//   1. reserve    Take the runner role, or go one level deeper in it. Not the runner: sleep, and that is all.
//   2. leftovers  Dispatch what an outer turn polled and has not dispatched yet.
//   3. rebuild    If the descriptors changed since the poll set was built, build it anew.
//   4. poll       Wait for the first event, at most for the timeout.
//   5. dispatch   Call the handler of each ready descriptor, in the order of the poll set.
//   6. release    Give the role back, one level.
#ifndef ORN_ZEL_THREADGROUP_HPP
#define ORN_ZEL_THREADGROUP_HPP

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <poll.h>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/os/Pipe.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>
#include <orn/zel/threadFunctions.hpp>

namespace orn {
namespace zel {

// Runs one turn of the calling thread's group: waits at most timeoutMs milliseconds (negative: without limit,
// 0: not at all) and calls the handlers of what is ready. Returns the result of poll(): the number of ready
// descriptors (the group's own wake-ups included), 0 after the timeout, -1 with errno, EINTR among others.
// While another member of the group is the runner the call only sleeps for its timeout: no event ends that,
// nor does the other's return, so RunOnce(-1) sleeps for ever. An exception of a handler passes through; what
// was ready besides is dispatched by the next turn. May be called from a handler, 99 levels deep.
ORN_API int RunOnce(long timeoutMs);

// Waits until one of the caller's descriptors is ready, and serves the group meanwhile. Each pass waits for
// the whole timeout again. Returns the number of ready entries of fds, whose revents are filled in, 0 or -1.
// A descriptor that the group watches, too, is the caller's for the length of the call: its handler is not
// called. A caller that is not the runner polls its own descriptors, and serves nobody.
ORN_API int RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs);

// The same for one descriptor: its revents, 0 after a timeout or an error.
ORN_API short RunUntilEventOnFd(int fd, short events, long timeoutMs);

// Ends the wait that the calling thread's group is in. Sets no flag: a caller that loops decides by its own
// state whether to go on. To wake another group, hold it and call its WakeUp('x').
ORN_API void Exit();

// Moves the calling thread into a new group of its own. Allowed in a handler: the turn that runs ends in the
// old group.
ORN_API void NewThreadGroup();

// The identifier of the calling thread's group.
ORN_API id_t GroupId();

namespace thread {

class Associations;
class Group;
class Map;

// The calling thread's id, the kernel's, as the hook orn_zel_pthread_self says it.
ORN_API int self();

// The calling thread's group, made on first use. Throws std::system_error when there is no descriptor left.
ORN_API boost::shared_ptr<Group> ThisGroup();

// The fd manager of the calling thread, or of any thread, made on first use.
ORN_API boost::shared_ptr<fd::Manager> FdMgr();
ORN_API boost::shared_ptr<fd::Manager> FdMgr(int tid);

// The calling thread's record, made on first use. The reference is good until the thread ends or the library
// is taken down.
ORN_API Associations& This();

// What a thread belongs to and what belongs to it. A plain value: copies share the pointees.
class ORN_API Associations {
public:
    // Both make what is missing.
    boost::shared_ptr<Group> GetGroup();
    boost::shared_ptr<fd::Manager> GetFdMgr();

    // Leaves the group, if any, and joins the given one, which must not be empty (assertion).
    void Associate(boost::shared_ptr<Group> group);
    // Leaves the group, if any, for a new one. When that cannot be made nothing has changed.
    void NewGroup();

private:
    friend class Registry;

    boost::shared_ptr<Group> group_;
    boost::shared_ptr<fd::Manager> fd_manager_; // released before the group
};

// Decides when a turn asks poll() without waiting before it waits. An answer that is there at once costs a
// fraction of a wait for every idle descriptor, so a loop asks as long as it finds work. A miss costs a
// system call for nothing: the loop then pauses for a number of turns that doubles with each miss, so that
// one which mostly waits is not slowed down.
class PollProbe {
public:
    PollProbe() : pause_(0), turns_left_(0) {}

    // Once in each turn that may wait: whether to ask in this one. If so, say what came of it.
    bool due() {
        if (turns_left_ == 0)
            return true;
        --turns_left_;
        return false;
    }
    void hit() { pause_ = 0; }
    void missed() {
        pause_ = std::min(2 * pause_ + 1, 63U);
        turns_left_ = pause_;
    }

private:
    unsigned pause_;      // in turns, after the latest miss
    unsigned turns_left_; // of it
};

// One poll loop, shared by the threads that are its members. Lock() and Unlock() are its mutex, which guards
// the member set and is taken before any fd manager's lock.
class ORN_API ZEL_CAPABILITY("mutex") Group : public basic_ProcessUnique<unsigned long>, public Lockable {
public:
    struct DispatchInfo {
        short events;
        int tid; // whose fd manager registered the descriptor; 0 for the control pipe
        boost::function<void(pollfd&)> handler;
    };

    Group();
    ~Group() override;
    Group(Group const&) = delete;
    Group& operator=(Group const&) = delete;

    void Lock() override ZEL_ACQUIRE();
    void Unlock() override ZEL_RELEASE();

    basic_Id<unsigned long> const& id() const { return id_; }

    // Any thread.
    unsigned long tsize() const;
    unsigned long size() const;
    std::set<int> Threads() const;
    void insert(int tid);
    void erase(int tid);
    // The descriptors of a member changed: the poll set is rebuilt before the next wait, and the present wait
    // ends.
    void bump();
    bool bumped() const;
    // Like bump(), for the runner itself: nobody has to be woken.
    void outdate();
    // Ends the present wait, or the next one. Writes one byte; a full pipe loses it, since any byte wakes.
    void WakeUp(char c);

    // Members only: the run calls of the same names in orn::zel.
    int RunOnce(long timeoutMs);
    int RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs);
    short RunUntilEventOnFd(int fd, short events, long timeoutMs);

    // The runner's own steps.
    void StartRunning(int tid);
    void EndRunning(int tid);
    bool IsRunner(int tid) const;
    void setup_pollset();
    unsigned long setup_pollset(pollfd* fds, unsigned long nfds, std::vector<pollfd>& out);
    void dispatch(pollfd& pfd);
    int dispatch_pollset(std::vector<pollfd>& set, unsigned long n, int count);
    void ctrl_eater(pollfd pfd);

    // Goes through the group under its locks as a listing would; shows nothing.
    void display();

private:
    void add_monitors(int tid, boost::shared_ptr<fd::Manager> const& manager);
    void add_entry(int fd, DispatchInfo const& info);
    DispatchInfo const& dispatch_info(pollfd const& pfd) const;
    bool left_group(int tid) const;
    void leftovers();
    void rebuild();
    int poll_set(std::vector<pollfd>& set, int timeoutMs);
    int dispatch_combined(std::vector<pollfd>& combined, unsigned long base, int ready);

    // insert(), for a thread that may have descriptors already.
    void admit(int tid, bool watches);
    void advance_version() ZEL_REQUIRES(mutex_);
    friend class Registry;

    basic_Id<unsigned long> id_;
    int const creator_;
    std::set<int> threads_ ZEL_GUARDED_BY(mutex_);
    os::Pipe ctrl_;
    std::vector<pollfd> pollset_;             // the runner's
    std::map<int, DispatchInfo> dispatchset_; // the runner's, one entry for each of pollset_
    std::atomic<unsigned long> built_version_;
    std::atomic<unsigned long> poll_version_;
    mutable ThreadMutex mutex_;
    std::atomic<int> runner_;
    std::atomic<unsigned long> runner_depth_;

    // The rest is the runner's own. By position in pollset_: what dispatchset_ has for it.
    std::vector<DispatchInfo const*> order_;
    unsigned long rebuilds_;
    unsigned long polls_;
    int undispatched_;
    std::atomic<unsigned long> membership_; // counts insert() and erase()
    unsigned long built_membership_;
    PollProbe probe_;
};

// Holds the runner role for a scope, if it is to be had.
class ORN_API RunReservation {
public:
    explicit RunReservation(Group& group) : group_(group), tid_(self()) { group_.StartRunning(tid_); }
    ~RunReservation() { group_.EndRunning(tid_); }
    int tid() const { return tid_; }

    RunReservation(RunReservation const&) = delete;
    RunReservation& operator=(RunReservation const&) = delete;

private:
    Group& group_;
    int const tid_;
};

// poll(2), reported to the poll monitor and the extended log when those are on.
ORN_API int zel_poll(pollfd* fds, unsigned long nfds, int timeoutMs);

// Whether some entry has the same descriptor; events are not compared.
ORN_API bool isInPollset(pollfd& pfd, pollfd* fds, unsigned long nfds);

// ---- Observation ----------------------------------------------------------------------------------------

// One monitor of each kind per process: a descriptor that a line is written to for each thread operation, or
// each poll() and dispatch. Any thread; takes effect from the next report. The tag is not used; switching off
// ignores the descriptor too.

ORN_API void MonitorThread(std::string const& tag, int fd);
ORN_API void UnmonitorThread(std::string const& tag, int fd);
ORN_API void MonitorPoll(std::string const& tag, int fd);
ORN_API void UnmonitorPoll(std::string const& tag, int fd);

// Logs every poll set from now on. There is no way back.
ORN_API void enableExtendedLogging();

ORN_API void display_thread_op(std::string const& op);
ORN_API void display_dispatch(pollfd& pfd);

// Writes the list of known threads to the poll monitor, and only there: neither parameter is used.
ORN_API void ListThreads(std::string const& args, int fd);

// ---- The registry of threads ----------------------------------------------------------------------------

} // namespace thread

// Records by thread id. Add, Erase and This concern the calling thread's record and take the lock.
template <class T, class R>
class ThreadMap {
public:
    explicit ThreadMap(ThreadMutex& lock) : lock_(lock) {}
    virtual ~ThreadMap() {}
    ThreadMap(ThreadMap const&) = delete;
    ThreadMap& operator=(ThreadMap const&) = delete;

    virtual void Add(T& value) {
        AutoLock const guard(lock_);
        entries_[thread::self()] = value;
    }

    // The record must be there.
    virtual void Erase() {
        typename std::map<int, T>::node_type erased; // destroyed with the lock released
        AutoLock const guard(lock_);
        erased = entries_.extract(thread::self());
    }

    // The reference stays good until the record is erased: map nodes do not move.
    virtual R This() {
        AutoLock const guard(lock_);
        return entry(thread::self());
    }

    virtual T construct() { return T(); }

protected:
    T& entry(int tid) ZEL_REQUIRES(lock_) {
        typename std::map<int, T>::iterator it = entries_.lower_bound(tid);
        if (it == entries_.end() || it->first != tid)
            it = entries_.insert(it, std::make_pair(tid, construct()));
        return it->second;
    }

    // Outlives the map, since threads may still come for it while the process exits.
    ThreadMutex& lock_;
    std::map<int, T> entries_ ZEL_GUARDED_BY(lock_);
};

namespace thread {

class ORN_API Map : public ThreadMap<Associations, Associations&> {
public:
    Map();
    ~Map() override;
    // The record of any thread, made when it is missing.
    Associations& operator[](int tid);

private:
    friend class Registry;
};

// Registers the three hooks below with the thread layer.
class ORN_API o_pthread_extension {
public:
    o_pthread_extension();
    virtual ~o_pthread_extension();
};

// The one registry: made at load or on first use, destroyed at unload.
class ORN_API StaticStuff : public o_pthread_extension {
public:
    StaticStuff();
    ~StaticStuff() override;
    Map& map() { return map_; }

private:
    Map map_;
};

// What o_pthread_register_extension() takes: five words of pointer size.
struct ThreadExtensionRecord {
    unsigned long magic; // 0xDEAD
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

// Goes from the create hook to the start hook.
struct InheritRecord {
    int creatorTid;
    boost::shared_ptr<Group> group;
};

ORN_API void zel_thread_load();
ORN_API void zel_thread_unload();

} // namespace thread

// The map of the one registry, which is made when there is none.
ORN_API thread::Map* TheThreadMap();

} // namespace zel
} // namespace orn

extern "C" {
// Runs in the creating thread; the result goes to the start hook.
ORN_API void* ZEL_Thread_create_extension();
// Runs first in the new thread, which joins its creator's group.
ORN_API int ZEL_Thread_start_extension(void* record);
// Runs last in the ending thread, which leaves its group and gives up its record.
ORN_API int ZEL_Thread_cleanup_extension();
}

#endif
