// SPDX-License-Identifier: MIT
//
// The group's poll loop and what can be observed of it. The records of threads are in threadRegistry.cpp.
#include <orn/zel/threadGroup.hpp>

#include <algorithm>
#include <climits>
#include <functional>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/log.h>
#include <orn/zel/response.hpp>

#include "observer.hpp"
#include "plainText.hpp"
#include "threadRegistry.hpp"

namespace orn {
namespace zel {
namespace thread {

namespace {

std::atomic<bool> extendedLogging(false);

// What a pipe holds as the kernel makes it: the most that one turn takes out of the control pipe.
ssize_t const pipe_capacity = 65536;

// The longest that wait() goes without asking first, in turns: the cost of a miss, one system call, is spread
// over that many.
unsigned const longest_ask_pause = 63;

// As it is, negative ones included: observers see what the caller passed.
int clamp_timeout(long timeoutMs) {
    return static_cast<int>(std::min<long>(std::max<long>(timeoutMs, INT_MIN), INT_MAX));
}

template <class Member>
void list_pollset(std::ostream& os, pollfd const* fds, unsigned long nfds, Member member) {
    for (unsigned long i = 0; i < nfds; ++i)
        os << fds[i].fd << '/' << fds[i].*member << ' ';
    os << '}';
}

void log_pollset(char const* label, pollfd const* fds, unsigned long nfds) {
    detail::PlainText text;
    text << "(group=" << GroupId() << ") fd/events/revents={ ";
    for (unsigned long i = 0; i < nfds; ++i)
        text << fds[i].fd << '/' << fds[i].events << '/' << fds[i].revents << ' ';
    text << '}';
    Log_SpecEntry(logSpecForceInfo, "src/threadGroup", 87, "%s %s\n", label, text.str().c_str());
}

// poll() with its reports. Asking first tries without waiting; the observers see one call either way.
int traced_poll(pollfd* fds, unsigned long nfds, int timeoutMs, bool ask_first, bool& answered) {
    if (extendedLogging)
        log_pollset("zel_poll IN", fds, nfds);
    detail::poll_observer.report([&](std::ostream& line) {
        line << "poll in  group=" << GroupId() << " timeout=" << timeoutMs << " fd/event={ ";
        list_pollset(line, fds, nfds, &pollfd::events);
    });
    int rc = ask_first ? poll(fds, nfds, 0) : 0;
    answered = rc != 0;
    if (!answered)
        rc = poll(fds, nfds, timeoutMs);
    int const error = errno;
    detail::poll_observer.report([&](std::ostream& line) {
        line << "poll out group=" << GroupId() << " status=" << rc << " fd/revent={ ";
        list_pollset(line, fds, nfds, &pollfd::revents);
    });
    if (extendedLogging)
        log_pollset("zel_poll OUT", fds, nfds);
    errno = error;
    return rc;
}

// A poll set entry's way to its manager: small enough that boost::function keeps it without an allocation.
class Delivery {
public:
    Delivery(boost::shared_ptr<fd::Manager> const& manager, unsigned long registration)
        : manager_(manager), registration_(registration) {}

    void operator()(pollfd& p) const {
        if (!manager_->dispatch(p, registration_)) {
            // Withdrawn by a thread of another group, whose own set was rebuilt instead: rebuild ours.
            boost::shared_ptr<Group> const group = Registry::group_if_any();
            if (group)
                group->outdate();
        }
    }

private:
    boost::shared_ptr<fd::Manager> manager_;
    unsigned long registration_;
};

} // namespace

// ---- Life and members -----------------------------------------------------------------------------------

Group::Group()
    : id_(detail::draw_id()), creator_(self()), ctrl_(false), built_version_(0), poll_version_(1), runner_(0),
      runner_depth_(0), rebuilds_(0), polls_(0), undispatched_(0), membership_(0), built_membership_(0),
      ask_again_(0), ask_pause_(0) {
    Log_SpecEntry(logSpecForceInfo, "src/threadGroup", 345, "%s: group %lu: ctrl pipe rd fd=%d",
                  "orn::zel::thread::Group::Group()", id_.value(), ctrl_.ReadFD());
    AutoLock const guard(mutex_);
    threads_.insert(creator_);
}

Group::~Group() = default;

void Group::Lock() ZEL_NO_ANALYSIS {
    mutex_.Lock();
}

void Group::Unlock() ZEL_NO_ANALYSIS {
    mutex_.Unlock();
}

unsigned long Group::tsize() const {
    AutoLock const guard(mutex_);
    return threads_.size();
}

unsigned long Group::size() const {
    return tsize();
}

std::set<int> Group::Threads() const {
    AutoLock const guard(mutex_);
    return threads_;
}

void Group::insert(int tid) {
    admit(tid, false);
}

void Group::admit(int tid, bool watches) {
    {
        AutoLock const guard(mutex_);
        threads_.insert(tid);
        ++membership_;
        // In the same step: a set that the runner builds in between would be without the new member, and
        // taken for the latest.
        if (watches)
            advance_version();
    }
    WakeUp('i');
}

void Group::erase(int tid) {
    {
        AutoLock const guard(mutex_);
        threads_.erase(tid);
        ++membership_;
    }
    WakeUp('e');
}

void Group::outdate() {
    AutoLock const guard(mutex_);
    advance_version();
}

void Group::advance_version() {
    unsigned long const version = poll_version_ + 1;
    if (version < built_version_) { // wrapped
        built_version_ = 0;
        poll_version_ = 1;
    } else {
        poll_version_ = version;
    }
}

void Group::bump() {
    outdate();
    WakeUp('b');
}

bool Group::bumped() const {
    return built_version_ < poll_version_;
}

void Group::WakeUp(char c) {
    internal::CancelShield const shield; // registrations end in destructors
    // A full pipe loses the byte; the ones that are in it wake the loop all the same.
    orn_zel_thread_group_write(ctrl_.WriteFD(), &c, 1);
}

void Group::ctrl_eater(pollfd pfd) {
    if (!(pfd.revents & POLLIN))
        return;
    // Bounded, because members that wake the loop all the time would fill the pipe as fast as it is read and
    // hold the runner here. What is left, or comes after a read that has emptied the pipe, wakes the next
    // turn.
    char block[4096];
    ssize_t const size = sizeof block;
    for (ssize_t taken = 0; taken < pipe_capacity; taken += size) {
        if (read(pfd.fd, block, sizeof block) < size)
            return;
    }
}

void Group::display() {
    AutoLock const guard(mutex_);
    for (int const tid : threads_) {
        boost::shared_ptr<fd::Manager> const manager = Registry::fd_manager_if_any(tid);
        if (manager)
            AutoLock const walk(manager->monitors());
    }
}

// ---- The runner role ------------------------------------------------------------------------------------

void Group::StartRunning(int tid) {
    // A turn must not cost two system-wide locked operations for this: the role itself is the lock. Only its
    // holder touches the depth.
    int holder = 0;
    if (runner_.compare_exchange_strong(holder, tid, std::memory_order_acquire))
        runner_depth_.store(1, std::memory_order_relaxed);
    else if (holder == tid)
        runner_depth_.store(runner_depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    detail::check(runner_depth_.load(std::memory_order_relaxed) < 100, "runnerDepth < 100", "src/threadGroup",
                  789);
}

void Group::EndRunning(int tid) {
    if (!IsRunner(tid))
        return;
    unsigned long const depth = runner_depth_.load(std::memory_order_relaxed) - 1;
    runner_depth_.store(depth, std::memory_order_relaxed);
    if (depth == 0)
        runner_.store(0, std::memory_order_release);
}

bool Group::IsRunner(int tid) const {
    return runner_.load(std::memory_order_relaxed) == tid;
}

// ---- The poll set ---------------------------------------------------------------------------------------

void Group::setup_pollset() {
    dispatchset_.clear();
    pollset_.clear();
    order_.clear();
    undispatched_ = 0;
    ++rebuilds_;

    add_entry(ctrl_.ReadFD(), DispatchInfo{POLLIN | POLLHUP, 0, [this](pollfd& p) { ctrl_eater(p); }});

    AutoLock const guard(mutex_);
    for (int const tid : threads_) {
        boost::shared_ptr<fd::Manager> const manager = Registry::fd_manager_if_any(tid);
        if (manager)
            add_monitors(tid, manager);
    }
    built_membership_ = membership_;
    built_version_.store(poll_version_.load());
}

void Group::add_monitors(int tid, boost::shared_ptr<fd::Manager> const& manager) {
    AutoLock const guard(manager->monitors());
    for (auto const& item : manager->monitors().entries()) {
        fd::MonitorImpl const& monitor = *item.second;
        if (monitor.count() == 0 || monitor.expired() != 0)
            continue;
        Delivery const delivery(manager, fd::Manager::registration(monitor));
        add_entry(item.first, DispatchInfo{monitor.events(), tid, delivery});
    }
}

void Group::add_entry(int fd, DispatchInfo const& info) {
    DispatchInfo& stored = dispatchset_[fd];
    stored = info;
    order_.push_back(&stored);
    pollset_.push_back(pollfd{fd, info.events, 0});
}

unsigned long Group::setup_pollset(pollfd* fds, unsigned long nfds, std::vector<pollfd>& out) {
    out.clear();
    out.reserve(pollset_.size() + nfds);
    for (pollfd& entry : pollset_) {
        // A descriptor that the caller waits for is the caller's for this wait.
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

// ---- Dispatching ----------------------------------------------------------------------------------------

Group::DispatchInfo const& Group::dispatch_info(pollfd const& pfd) const {
    // Mostly an entry of the group's own set, where its position says more quickly than a search what it is.
    std::less<pollfd const*> const before;
    pollfd const* const begin = pollset_.data();
    if (!before(&pfd, begin) && before(&pfd, begin + pollset_.size()))
        return *order_[static_cast<std::size_t>(&pfd - begin)];
    std::map<int, DispatchInfo>::const_iterator const it = dispatchset_.find(pfd.fd);
    detail::check(it != dispatchset_.end(), "dispatchset.find(pfd.fd) != dispatchset.end()",
                  "src/threadGroup", 663);
    return it->second;
}

bool Group::left_group(int tid) const {
    if (membership_.load(std::memory_order_relaxed) == built_membership_)
        return false; // nobody has come or gone since the set was built
    AutoLock const guard(mutex_);
    return threads_.count(tid) == 0;
}

void Group::dispatch(pollfd& pfd) {
    DispatchInfo const& info = dispatch_info(pfd);
    pollfd result = pfd;
    pfd.revents = 0; // first, so that a nested turn does not dispatch it again
    if (info.tid != 0 && left_group(info.tid)) {
        detail::poll_observer.report([&](std::ostream& line) {
            line << "fd=" << result.fd << " from tid=" << info.tid << ": fdMgr no longer in group";
        });
        bump();
        return;
    }
    display_dispatch(result);
    // A copy, since a nested turn may rebuild the set, and so destroy the entry, before the handler returns.
    boost::function<void(pollfd&)> const handler = info.handler;
    // No lock is held here: the handler may run a nested turn, change any registration or leave the group.
    if (handler)
        handler(result);
}

int Group::dispatch_pollset(std::vector<pollfd>& set, unsigned long n, int count) {
    bool const own = &set == &pollset_;
    unsigned long const polled = polls_;
    for (unsigned long i = 0; i < n && i < set.size() && count > 0; ++i) {
        if (set[i].revents == 0)
            continue;
        --count;
        if (own) {
            --undispatched_;
            dispatch(set[i]);
        } else if (polls_ == polled) {
            dispatch(set[i]);
        } else {
            // A nested turn has polled the group's own set and may have served this descriptor, or rebuilt
            // the set without it: the next poll tells again what is still true of this result.
            set[i].revents = 0;
        }
    }
    return count;
}

// ---- Turns of the loop ----------------------------------------------------------------------------------

void Group::leftovers() {
    if (undispatched_ == 0)
        return;
    dispatch_pollset(pollset_, pollset_.size(), static_cast<int>(pollset_.size()));
    // A nested turn of one of those handlers may have left results again, at places that this has passed.
    // They are dropped: the next poll tells what is still true of them. A poll of a combined set would not
    // clear them, and they would be dispatched a second time.
    for (pollfd& entry : pollset_)
        entry.revents = 0;
    undispatched_ = 0;
}

void Group::rebuild() {
    if (bumped())
        setup_pollset();
}

// While turns keep finding work, poll() is asked first without waiting, which costs a fraction for every idle
// descriptor. A miss is paid for with pauses that double, so that a loop which mostly waits is not slowed
// down.
int Group::wait(std::vector<pollfd>& set, long timeoutMs) {
    bool ask_first = timeoutMs != 0;
    if (ask_first && ask_again_ > 0) {
        --ask_again_;
        ask_first = false;
    }
    bool answered = false;
    ++polls_;
    int const rc = traced_poll(set.data(), set.size(), clamp_timeout(timeoutMs), ask_first, answered);
    if (ask_first) {
        ask_pause_ = answered ? 0 : std::min(2 * ask_pause_ + 1, longest_ask_pause);
        ask_again_ = ask_pause_;
    }
    return rc;
}

int Group::RunOnce(long timeoutMs) {
    RunReservation const reservation(*this);
    if (!IsRunner(reservation.tid()))
        return zel_poll(nullptr, 0, clamp_timeout(timeoutMs));
    leftovers();
    rebuild();
    int const rc = wait(pollset_, timeoutMs);
    if (rc > 0) {
        undispatched_ = rc;
        dispatch_pollset(pollset_, pollset_.size(), rc);
    }
    return rc;
}

int Group::RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs) {
    RunReservation const reservation(*this);
    if (extendedLogging)
        log_pollset("RunFdSet in set", fds, nfds);
    if (!IsRunner(reservation.tid()))
        return zel_poll(fds, nfds, clamp_timeout(timeoutMs));
    leftovers();
    rebuild();

    std::vector<pollfd> combined;
    unsigned long base = setup_pollset(fds, nfds, combined);
    unsigned long built = rebuilds_;
    int rc;
    for (;;) {
        rc = wait(combined, timeoutMs);
        if (rc <= 0)
            break;
        unsigned long const polled = polls_;
        int left = dispatch_pollset(combined, base, rc);
        if (polls_ != polled) {
            // Nested turns: an exception that a handler has caught may have left results of theirs, which
            // must not outlast the next poll of this set; and they may have served what the caller waits for,
            // too.
            leftovers();
            left = left > 0 ? poll(combined.data() + base, nfds, 0) : 0;
        }
        if (left > 0) {
            rc = left;
            break;
        }
        rebuild();
        if (built != rebuilds_) { // here, or by a nested turn
            base = setup_pollset(fds, nfds, combined);
            built = rebuilds_;
        }
    }
    std::copy(combined.begin() + static_cast<std::ptrdiff_t>(base), combined.end(), fds);
    return rc;
}

short Group::RunUntilEventOnFd(int fd, short events, long timeoutMs) {
    pollfd entry = {fd, events, 0};
    RunUntilEventOnFdSet(&entry, 1, timeoutMs);
    return entry.revents;
}

int zel_poll(pollfd* fds, unsigned long nfds, int timeoutMs) {
    bool answered;
    return traced_poll(fds, nfds, timeoutMs, false, answered);
}

// ---- Observation ----------------------------------------------------------------------------------------

void MonitorThread(std::string const&, int fd) {
    detail::thread_observer.watch(fd);
}

void UnmonitorThread(std::string const&, int) {
    detail::thread_observer.unwatch();
}

void MonitorPoll(std::string const&, int fd) {
    detail::poll_observer.watch(fd);
}

void UnmonitorPoll(std::string const&, int) {
    detail::poll_observer.unwatch();
}

void enableExtendedLogging() {
    extendedLogging = true;
}

void display_thread_op(std::string const& op) {
    detail::thread_observer.report([&](std::ostream& line) { line << "thread " << op; });
}

void display_dispatch(pollfd& pfd) {
    detail::poll_observer.report(
        [&](std::ostream& line) { line << "dispatching fd=" << pfd.fd << " revents=" << pfd.revents; });
}

void ListThreads(std::string const&, int) {
    detail::PlainText text;
    text << "Threads:\n";
    for (Registry::Entry const& entry : Registry::entries()) {
        text << "thread: " << entry.tid << " group=";
        if (entry.group)
            text << entry.group->id();
        else
            text << "none";
        text << " fdMgr=";
        if (entry.fd_manager)
            text << entry.fd_manager->id();
        else
            text << "none";
        text << '\n';
    }
    detail::poll_observer.write(text.str());
}

} // namespace thread

int RunOnce(long timeoutMs) {
    return thread::ThisGroup()->RunOnce(timeoutMs);
}

int RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs) {
    return thread::ThisGroup()->RunUntilEventOnFdSet(fds, nfds, timeoutMs);
}

short RunUntilEventOnFd(int fd, short events, long timeoutMs) {
    return thread::ThisGroup()->RunUntilEventOnFd(fd, events, timeoutMs);
}

void Exit() {
    thread::ThisGroup()->WakeUp('x');
}

} // namespace zel
} // namespace orn
