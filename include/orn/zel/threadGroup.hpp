// SPDX-License-Identifier: MIT
//
// The groups that threads form, and the poll loop of a group. Public. What is polled is registered through
// fd.hpp, and everything built on it; which group a thread belongs to is kept in threadRegistry.hpp.
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
//   1. reserve    Take the runner role, or go one level deeper in it. While another member has it, sleep
//                 for the timeout and skip the other steps.
//   2. leftovers  Dispatch what an outer turn polled and has not dispatched yet.
//   3. rebuild    If the descriptors changed since the poll set was built, bring it up to date.
//   4. poll       Wait for the first event, at most for the timeout. A large set first asks which entries
//                 poll() needs to be asked about.
//   5. dispatch   Call the handler of each ready descriptor, in the order of the poll set.
//   6. release    Give the role back, one level.
#ifndef ORN_ZEL_THREADGROUP_HPP
#define ORN_ZEL_THREADGROUP_HPP

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
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
#include <orn/zel/threadRegistry.hpp>

namespace orn::zel {

namespace detail {

class Answer;
class LoopRecord;
class Readiness;
struct ThisThread;

} // namespace detail

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

// Ends the wait that the calling thread's group is in. When nobody waits, the next wait ends at once instead.
// Sets no flag: a caller that loops decides by its own state whether to go on. To wake another group, hold it
// and call its WakeUp('x').
ORN_API void Exit();

// Moves the calling thread into a new group of its own, with all that it has registered. Allowed in a
// handler: the turn that runs ends in the old group. Throws std::system_error, and changes nothing, when
// there is no descriptor left.
ORN_API void NewThreadGroup();

// The identifier of the calling thread's group, which is made on first use.
ORN_API id_t GroupId();

namespace thread {

// Decides when a turn asks poll() without waiting before it waits. Asking costs a fraction of waiting for
// every idle descriptor, so a loop asks as long as it finds work. A miss costs a system call for nothing, so
// the loop then does not ask for a number of turns that doubles with each miss: one that mostly waits is not
// slowed down.
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
    void missed(unsigned longest = 63) {
        pause_ = std::min(2 * pause_ + 1, longest);
        turns_left_ = pause_;
    }

private:
    unsigned pause_;      // turns without asking after the latest miss
    unsigned turns_left_; // of that pause
};

// One poll loop, shared by the threads that are its members. Lock() and Unlock() are its mutex, which guards
// the member set and is taken before any fd manager's lock. They do not hold off a run call.
class ORN_API ZEL_CAPABILITY("mutex") Group : public basic_ProcessUnique<unsigned long>, public Lockable {
public:
    struct DispatchInfo {
        short events;
        int tid; // whose fd manager registered the descriptor; 0 for the control pipe
        boost::function<void(pollfd&)> handler;
    };

    // Opens the control pipe; the calling thread becomes a member. Throws std::system_error when there is no
    // descriptor left.
    Group();
    ~Group() override;
    Group(Group const&) = delete;
    Group& operator=(Group const&) = delete;

    void Lock() override ZEL_ACQUIRE(mutex_);
    void Unlock() override ZEL_RELEASE(mutex_);

    basic_Id<unsigned long> const& id() const { return id_; }

    // The members; the first two are the same number. Any thread.
    unsigned long tsize() const;
    unsigned long size() const;
    std::set<int> Threads() const;

    // Changes of the member set, which end the present wait. Any thread. They leave the thread's record
    // alone: to move a thread use Associations.
    void insert(int tid);
    void erase(int tid);

    // The descriptors of a member changed: the poll set is rebuilt before the next wait, and the present wait
    // ends. Any thread.
    void bump();
    bool bumped() const;
    // Like bump(), but for the runner itself, so that nobody has to be woken.
    void outdate();

    // Ends the present wait, or the next one when nobody waits. Writes one byte, without blocking; a full
    // pipe loses it, since any byte wakes. Any thread.
    void WakeUp(char c);

    // The run calls of the same names in orn::zel. Members only.
    int RunOnce(long timeoutMs);
    int RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs);
    short RunUntilEventOnFd(int fd, short events, long timeoutMs);

    // Take the runner role, or go one level deeper in it, and give one level back. They change nothing while
    // another thread has the role. Deeper than 99 levels is an assertion.
    void StartRunning(int tid);
    void EndRunning(int tid);
    bool IsRunner(int tid) const;

    // The runner's own steps. The second setup_pollset() puts those entries of the group's set that fds does
    // not have, and then fds, into out, and returns the index of the first of fds. dispatch_pollset() serves
    // at most count results among the first n and returns what is left of count.
    void setup_pollset();
    unsigned long setup_pollset(pollfd* fds, unsigned long nfds, std::vector<pollfd>& out);
    void dispatch(pollfd& pfd);
    int dispatch_pollset(std::vector<pollfd>& set, unsigned long n, int count);
    void ctrl_eater(pollfd pfd);

    // Goes through the group under its locks as a listing would; shows nothing.
    void display();

    // What the loop is doing and has done. Any thread.
    std::shared_ptr<detail::LoopRecord> const& record() const { return record_; }

private:
    friend class Registry;
    friend void tell_groups(detail::Answer& answer);

    // Like insert(). watches: the thread has an fd manager, so the poll set is out of date, too.
    ORN_LOCAL void admit(int tid, bool watches);
    ORN_LOCAL void advance_version() ZEL_REQUIRES(mutex_);

    // A member whose descriptors are in the poll set.
    struct Watcher {
        int tid;
        boost::shared_ptr<fd::Manager> manager;
        std::uint64_t seen; // of the manager's changes
        std::size_t begin;  // where its entries begin in pollset_; they end where the next one's begin
    };
    struct ORN_LOCAL Delivery;
    struct ORN_LOCAL Serving;
    struct ORN_LOCAL Wait;

    friend int orn::zel::RunOnce(long timeoutMs);
    ORN_LOCAL int run_once(long timeoutMs, detail::ThisThread& here);

    // Steps of a turn.
    ORN_LOCAL void leftovers();
    ORN_LOCAL void rebuild();
    ORN_LOCAL int poll_own(int timeoutMs);
    ORN_LOCAL int poll_wait(Wait& wait, int timeoutMs);
    ORN_LOCAL int poll_whole(std::vector<pollfd>& set, int timeoutMs, bool asked);
    // Serves the group's entries of a combined set, which are those before base. Returns how many of the
    // caller's are ready.
    ORN_LOCAL int dispatch_combined(std::vector<pollfd>& combined, unsigned long base, int ready);
    ORN_LOCAL void serve(pollfd& pfd, Serving& serving);
    ORN_LOCAL std::size_t next_result(std::size_t i) const;

    // The poll set, built anew or changed in place.
    ORN_LOCAL static unsigned long combine(std::vector<pollfd>& own, pollfd* fds, unsigned long nfds,
                                           std::vector<pollfd>& out);
    ORN_LOCAL static DispatchInfo info_of(Watcher const& watcher, fd::MonitorImpl& monitor);
    ORN_LOCAL void add_monitors(Watcher& watcher);
    ORN_LOCAL void add_entry(int fd, DispatchInfo const& info, std::uint64_t stamp);
    ORN_LOCAL bool refresh();
    ORN_LOCAL bool same_watchers() const ZEL_REQUIRES(mutex_);
    ORN_LOCAL bool refresh_entries(Watcher& watcher);
    ORN_LOCAL bool refresh_entry(Watcher const& watcher, int fd, fd::MonitorImpl* monitor);
    ORN_LOCAL void insert_entry(Watcher const& watcher, int fd, DispatchInfo const& info);
    ORN_LOCAL void erase_entry(Watcher const& watcher, int fd);
    ORN_LOCAL void move_behind(Watcher const& watcher, int by);
    ORN_LOCAL std::size_t place_of(Watcher const& watcher, int fd) const;

    // A large set asks which entries are worth asking poll() about.
    ORN_LOCAL void fit_readiness();
    ORN_LOCAL static bool is_crowded(int ready, std::size_t entries);
    ORN_LOCAL bool ask_readiness(int& ready, bool& asked);
    ORN_LOCAL void probed(int ready);
    ORN_LOCAL void take_results();
    ORN_LOCAL int combine_results(Wait& wait, int ready);
    ORN_LOCAL void audit(std::vector<pollfd> const& set);
    ORN_LOCAL std::size_t place_of(int fd) const;
    ORN_LOCAL std::size_t search_place(int fd) const;

    ORN_LOCAL DispatchInfo const& dispatch_info(pollfd const& pfd) const;
    ORN_LOCAL bool left_group(int tid) const;

    basic_Id<unsigned long> id_;
    int const creator_;
    std::set<int> threads_ ZEL_GUARDED_BY(mutex_);
    os::Pipe ctrl_;
    std::vector<pollfd> pollset_;             // the runner's
    std::map<int, DispatchInfo> dispatchset_; // the runner's: by descriptor, what to do with its results
    std::atomic<unsigned long> built_version_;
    std::atomic<unsigned long> poll_version_;
    mutable ThreadMutex mutex_;
    std::atomic<int> runner_;
    std::atomic<unsigned long> runner_depth_; // changed by the runner only
    std::atomic<unsigned long> membership_;   // counts insert() and erase(), by any thread
    std::shared_ptr<detail::LoopRecord> const record_;

    // The rest is the runner's.
    std::vector<DispatchInfo const*> order_; // by position in pollset_: what dispatchset_ has for it
    std::uint64_t rebuilds_; // how many sets were built: tells a turn whether nested ones have built any
    unsigned long polls_;    // how many polls there were: tells a turn whether nested ones have polled
    int undispatched_;       // results in pollset_ that the latest poll brought and nobody has dispatched
    unsigned long built_membership_; // membership_ when the set was built
    PollProbe probe_;
    std::vector<Watcher> watchers_; // in ascending order of tid
    bool doubled_;                  // two members watch one descriptor
    bool crowded_;                  // much of it had results, so that poll() about all of it is the cheapest
    std::unique_ptr<detail::Readiness> readiness_; // of a large set
    std::vector<pollfd> asked_;                    // what it named, and poll() said of it
    std::vector<std::size_t> hits_; // places in pollset_ of all results of the latest poll, when sparse_
    bool sparse_;
};

// Reserves the runner role for a scope and releases it at the end. While another thread has the role neither
// does anything: ask IsRunner().
class ORN_API RunReservation {
public:
    explicit RunReservation(Group& group) : RunReservation(group, self()) {}
    ~RunReservation() { group_.EndRunning(tid_); }
    int tid() const { return tid_; }

    RunReservation(RunReservation const&) = delete;
    RunReservation& operator=(RunReservation const&) = delete;

private:
    friend class Group;
    // For who knows the calling thread's id.
    RunReservation(Group& group, int tid) : group_(group), tid_(tid) { group_.StartRunning(tid_); }

    Group& group_;
    int const tid_;
};

// poll(2), reported to the poll monitor and the extended log when those are on. Blocks as poll() does, and
// serves nobody.
ORN_API int zel_poll(pollfd* fds, unsigned long nfds, int timeoutMs);

// Whether some entry has the same descriptor; events are not compared.
ORN_API bool isInPollset(pollfd& pfd, pollfd* fds, unsigned long nfds);

// ---- Observation ----------------------------------------------------------------------------------------

// There are two monitors in the process: a descriptor that gets a line for each thread operation, and one for
// each poll() and dispatch, in all threads. Another Monitor call replaces the descriptor, an Unmonitor call
// switches the monitor off; neither uses the tag, and the latter no descriptor.
//
// The descriptor stays the caller's. Close it when the call that replaced it or switched it off has returned:
// nothing is written to it then. It must not block (O_NONBLOCK): one that does holds up every thread that
// reports while it is full, and whoever ends the process. Lines that it has no room for are lost. The first
// line that cannot be delivered because the reader has gone switches the monitor off.

ORN_API void MonitorThread(std::string const& tag, int fd);
ORN_API void UnmonitorThread(std::string const& tag, int fd);
ORN_API void MonitorPoll(std::string const& tag, int fd);
ORN_API void UnmonitorPoll(std::string const& tag, int fd);

// Logs every poll set from now on, in all groups. There is no way back.
ORN_API void enableExtendedLogging();

// Each writes a line to its monitor. The library calls them.
ORN_API void display_thread_op(std::string const& op);
ORN_API void display_dispatch(pollfd& pfd);

// Writes the list of known threads to the poll monitor, and only there: neither parameter is used, and
// without that monitor the list is lost.
ORN_API void ListThreads(std::string const& args, int fd);

} // namespace thread
} // namespace orn::zel

#endif
