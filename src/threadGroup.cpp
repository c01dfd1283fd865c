// SPDX-License-Identifier: MIT
//
// The poll loop of a group: its members, the runner role, dispatching, and the turn. The poll set is in
// threadGroupSet.cpp, the reports in threadMonitor.cpp, the records of threads in threadRegistry.cpp.
#include <orn/zel/threadGroup.hpp>

#include <algorithm>
#include <climits>
#include <functional>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/log.h>

#include "fixedLine.hpp"
#include "loopRecord.hpp"
#include "observer.hpp"
#include "readiness.hpp"
#include "shared.hpp"
#include "threadMonitor.hpp"
#include "threadRegistry.hpp"
#include "uniqueId.hpp"

namespace orn::zel {
namespace thread {

namespace {

// The most that one turn takes out of the control pipe: what a pipe holds as the kernel makes it.
ssize_t const pipe_capacity = 65536;

// Keeps negative values as they are, because observers see what the caller passed.
int clamp_timeout(long timeoutMs) {
    return static_cast<int>(std::min<long>(std::max<long>(timeoutMs, INT_MIN), INT_MAX));
}

// poll(), noted in the record as a sleep when it may wait.
int poll_and_note(detail::LoopRecord& record, std::vector<pollfd>& set, int timeoutMs) {
    if (timeoutMs == 0)
        return poll(set.data(), set.size(), 0);
    detail::LoopRecord::Sleep const sleep(record);
    return poll(set.data(), set.size(), timeoutMs);
}

} // namespace

// ---- Life and members -----------------------------------------------------------------------------------

[[gnu::cold]] Group::Group()
    : id_(0), creator_(self()), ctrl_(false), built_version_(0), poll_version_(1), runner_(0),
      runner_depth_(0), membership_(0), record_(std::make_shared<detail::LoopRecord>()), rebuilds_(0),
      polls_(0), undispatched_(0), built_membership_(0), doubled_(false), crowded_(false), sparse_(false) {
    {
        AutoLock const guard(mutex_);
        threads_.insert(creator_);
    }
    // Comes after all that may throw, because the destructor gives it back, and runs for a whole group only.
    id_ = basic_Id<unsigned long>(detail::draw_live_id());
    Log_SpecEntry(logSpecForceInfo, "src/threadGroup", detail::line_of_group_made,
                  "%s: group %lu: ctrl pipe rd fd=%d", "orn::zel::thread::Group::Group()", id_.value(),
                  ctrl_.ReadFD());
}

[[gnu::cold]] Group::~Group() {
    detail::end_live_id(id_.value());
}

void Group::Lock() {
    mutex_.Lock();
}

void Group::Unlock() {
    mutex_.Unlock();
}

unsigned long Group::tsize() const {
    AutoLock const guard(mutex_);
    return threads_.size();
}

unsigned long Group::size() const {
    return tsize();
}

[[gnu::cold]] std::set<int> Group::Threads() const {
    AutoLock const guard(mutex_);
    return threads_;
}

[[gnu::cold]] void Group::insert(int tid) {
    admit(tid, false);
}

[[gnu::cold]] void Group::admit(int tid, bool watches) {
    {
        AutoLock const guard(mutex_);
        threads_.insert(tid);
        ++membership_;
        // Advance in the same step. A set that the runner builds in between would lack the new member's
        // descriptors, and still be taken for the latest.
        if (watches)
            advance_version();
    }
    WakeUp('i');
}

[[gnu::cold]] void Group::erase(int tid) {
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
    if (version == 0) { // the counter has wrapped, which takes it five days where long has 32 bits
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
    internal::CancelShield const shield; // write() is a cancellation point, and destructors come here
    // A full pipe loses the byte, but those that are in it wake the loop just as well.
    orn_zel_thread_group_write(ctrl_.WriteFD(), &c, 1);
}

void Group::ctrl_eater(pollfd pfd) {
    if (!(pfd.revents & POLLIN))
        return;
    // Bounded, because members that wake the loop all the time could fill the pipe as fast as it is read, and
    // hold the runner here. What is left wakes the next turn.
    char block[4096];
    ssize_t const size = sizeof block;
    for (ssize_t taken = 0; taken < pipe_capacity; taken += size) {
        if (read(pfd.fd, block, sizeof block) < size)
            return;
    }
}

[[gnu::cold]] void Group::display() {
    AutoLock const guard(mutex_);
    for (int const tid : threads_) {
        boost::shared_ptr<fd::Manager> const manager = Registry::fd_manager_if_any(tid);
        if (manager)
            AutoLock const walk(manager->monitors());
    }
}

// ---- The runner role ------------------------------------------------------------------------------------

void Group::StartRunning(int tid) {
    // runner_ doubles as the lock, which saves taking mutex_ twice in each turn. Only the thread named in it
    // writes runner_depth_.
    int holder = 0;
    if (runner_.compare_exchange_strong(holder, tid, std::memory_order_acquire))
        runner_depth_.store(1, std::memory_order_relaxed);
    else if (holder == tid)
        runner_depth_.store(runner_depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    detail::check(runner_depth_.load(std::memory_order_relaxed) < 100, "runnerDepth < 100", "src/threadGroup",
                  detail::line_of_runner_depth);
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

// ---- Dispatching ----------------------------------------------------------------------------------------

Group::DispatchInfo const& Group::dispatch_info(pollfd const& pfd) const {
    // An entry of the group's own set, which is the usual case, is found by its position without a search.
    std::less<pollfd const*> const before;
    pollfd const* const begin = pollset_.data();
    if (!before(&pfd, begin) && before(&pfd, begin + pollset_.size()))
        return *order_[static_cast<std::size_t>(&pfd - begin)];
    auto const it = dispatchset_.find(pfd.fd);
    detail::check(it != dispatchset_.end(), "dispatchset.find(pfd.fd) != dispatchset.end()",
                  "src/threadGroup", detail::line_of_missing_entry);
    return it->second;
}

bool Group::left_group(int tid) const {
    if (membership_.load(std::memory_order_relaxed) == built_membership_)
        return false; // nobody has come or gone since the set was built
    AutoLock const guard(mutex_);
    return threads_.count(tid) == 0;
}

// Results that are served one after the other.
struct Group::Serving : detail::LoopRecord::Callback<detail::Doing::fd> {
    using Callback::Callback;
};

[[gnu::cold]] void Group::dispatch(pollfd& pfd) {
    Serving serving(*record_);
    serve(pfd, serving);
}

void Group::serve(pollfd& pfd, Serving& serving) {
    DispatchInfo const& info = dispatch_info(pfd);
    pollfd result = pfd;
    pfd.revents = 0; // before the call, so that a nested turn does not dispatch it again
    if (info.tid != 0 && left_group(info.tid)) {
        report_left(result.fd, info.tid);
        bump();
        return;
    }
    if (detail::poll_observer.fd() != -1) {
        serving.pause(); // an observer that is slow to read is no part of a callback
        display_dispatch(result);
    }
    serving.next(static_cast<std::uint32_t>(result.fd));
    // No lock is held here: the handler may run a nested turn, change any registration or leave the group. A
    // nested turn may rebuild the set, and so destroy the entry before this returns.
    if (info.handler)
        info.handler(result);
    // The registration was withdrawn by a thread of another group, whose set was rebuilt instead of this one.
    if (result.revents == 0)
        outdate();
}

std::size_t Group::next_result(std::size_t i) const {
    if (!sparse_)
        return i;
    auto const next = std::lower_bound(hits_.begin(), hits_.end(), i);
    return next == hits_.end() ? pollset_.size() : *next;
}

int Group::dispatch_pollset(std::vector<pollfd>& set, unsigned long n, int count) {
    bool const own = &set == &pollset_;
    unsigned long const polled = polls_;
    Serving serving(*record_);
    for (unsigned long i = 0; count > 0; ++i) {
        if (own)
            i = next_result(i);
        if (i >= n || i >= set.size())
            break;
        if (set[i].revents == 0)
            continue;
        --count;
        if (own)
            --undispatched_;
        if (own || polls_ == polled) {
            serve(set[i], serving);
        } else {
            // A nested turn has polled the group's own set. It may have served this descriptor, or rebuilt
            // the set without it, so drop the result: the next poll tells what is still true of it.
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
    // A nested turn of one of those handlers may have left results again, at places that this loop has
    // passed. Drop them: the next poll tells what is still true of them. A poll of a combined set would not
    // clear them, and they would be dispatched a second time.
    for (pollfd& entry : pollset_)
        entry.revents = 0;
    undispatched_ = 0;
    record_->goes_on();
}

void Group::rebuild() {
    if (!bumped())
        return;
    if (!refresh())
        setup_pollset();
    fit_readiness();
    record_->count_rebuild(pollset_.size() - 1); // all but the control pipe
}

int Group::poll_own(int timeoutMs) {
    sparse_ = false;
    bool asked;
    int ready;
    if (ask_readiness(ready, asked)) {
        probed(ready);
        if (ready > 0) {
            take_results();
            sparse_ = true;
        }
        if (ready != 0)
            return ready;
    }
    return poll_whole(pollset_, timeoutMs, asked);
}

int Group::poll_whole(std::vector<pollfd>& set, int timeoutMs, bool asked) {
    ++polls_;
    if (reports_polls())
        report_poll_in(set.data(), set.size(), timeoutMs);
    int ready = 0;
    if (timeoutMs != 0 && !asked && probe_.due()) {
        ready = poll(set.data(), set.size(), 0);
        if (ready != 0)
            probe_.hit();
        else
            probe_.missed();
    }
    if (ready == 0)
        ready = poll_and_note(*record_, set, timeoutMs);
    if (reports_polls())
        report_poll_out(set.data(), set.size(), ready);
    crowded_ = is_crowded(ready, set.size());
    if (readiness_ && readiness_->audits() && ready >= 0)
        audit(set);
    return ready;
}

// A wait for descriptors of the caller's.
struct Group::Wait {
    pollfd* fds;
    unsigned long nfds;
    std::vector<pollfd> set; // the group's entries, and the caller's behind them
    unsigned long base;      // where the caller's begin
    std::uint64_t built;     // rebuilds_ of the poll set that is in the set; 0 when it is not the whole one
};

// The results that asked_ has, and those of the caller's entries, as poll() of both would fill them in.
// Returns what it would. `ready` is what it has said of asked_.
int Group::combine_results(Wait& wait, int ready) {
    wait.built = 0;
    if (ready == -1)
        asked_.clear();
    take_results();
    asked_.clear();
    for (std::size_t const place : hits_) {
        asked_.push_back(pollset_[place]);
        pollset_[place].revents = 0; // served from the combined set
    }
    wait.base = combine(asked_, wait.fds, wait.nfds, wait.set);
    pollfd* const callers = wait.set.data() + wait.base;
    int const own = static_cast<int>(wait.base);
    if (ready != -1)
        ready = poll(callers, wait.nfds, 0);
    if (ready != -1)
        return own + ready;
    for (unsigned long i = 0; i < wait.nfds; ++i)
        callers[i].revents = 0;
    return own > 0 ? own : -1;
}

// The numbers are those of the steps in threadGroup.hpp.
int Group::RunOnce(long timeoutMs) {
    return run_once(timeoutMs, Registry::here());
}

int Group::run_once(long timeoutMs, detail::ThisThread& here) {
    int const timeout = clamp_timeout(timeoutMs);
    RunReservation const reservation(*this, here.tid); // 1. reserve; its destructor is 6. release
    if (!IsRunner(reservation.tid()))
        return zel_poll(nullptr, 0, timeout);
    detail::LoopRecord::Turn const turn(*record_, here.running);
    leftovers();                         // 2.
    rebuild();                           // 3.
    int const ready = poll_own(timeout); // 4.
    if (ready > 0) {                     // 5. dispatch
        undispatched_ = ready;
        dispatch_pollset(pollset_, pollset_.size(), ready);
    }
    return ready;
}

int Group::RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs) {
    int const timeout = clamp_timeout(timeoutMs);
    detail::ThisThread& here = Registry::here();
    RunReservation const reservation(*this, here.tid);
    log_pollset("RunFdSet in set", fds, nfds);
    if (!IsRunner(reservation.tid()))
        return zel_poll(fds, nfds, timeout);
    detail::LoopRecord::Turn turn(*record_, here.running);
    leftovers();
    rebuild();
    Wait wait = {fds, nfds, {}, 0, 0};
    int ready;
    while ((ready = poll_wait(wait, timeout)) > 0) {
        int const left = dispatch_combined(wait.set, wait.base, ready);
        if (left > 0) {
            ready = left;
            break;
        }
        turn.again();
        rebuild();
    }
    std::copy(wait.set.begin() + static_cast<std::ptrdiff_t>(wait.base), wait.set.end(), fds);
    return ready;
}

int Group::poll_wait(Wait& wait, int timeoutMs) {
    bool asked;
    int ready;
    if (ask_readiness(ready, asked)) {
        ready = combine_results(wait, ready);
        probed(ready);
        if (ready != 0)
            return ready;
    }
    if (wait.built != rebuilds_) { // by this turn, or by a nested one
        wait.base = setup_pollset(wait.fds, wait.nfds, wait.set);
        wait.built = rebuilds_;
    }
    return poll_whole(wait.set, timeoutMs, asked);
}

int Group::dispatch_combined(std::vector<pollfd>& combined, unsigned long base, int ready) {
    unsigned long const polled = polls_;
    int const left = dispatch_pollset(combined, base, ready);
    if (polls_ == polled)
        return left;
    // A handler has run nested turns. If it caught an exception, results of those turns may be left, which
    // must not outlast the next poll of this set. The turns may also have served what the caller waits for.
    leftovers();
    return left > 0 ? poll(combined.data() + base, combined.size() - base, 0) : 0;
}

short Group::RunUntilEventOnFd(int fd, short events, long timeoutMs) {
    pollfd entry = {fd, events, 0};
    RunUntilEventOnFdSet(&entry, 1, timeoutMs);
    return entry.revents;
}

} // namespace thread

int RunOnce(long timeoutMs) {
    detail::ThisThread& here = thread::Registry::here();
    return thread::Registry::group(here)->run_once(timeoutMs, here);
}

int RunUntilEventOnFdSet(pollfd* fds, unsigned long nfds, long timeoutMs) {
    return thread::ThisGroup()->RunUntilEventOnFdSet(fds, nfds, timeoutMs);
}

short RunUntilEventOnFd(int fd, short events, long timeoutMs) {
    return thread::ThisGroup()->RunUntilEventOnFd(fd, events, timeoutMs);
}

[[gnu::cold]] void Exit() {
    thread::ThisGroup()->WakeUp('x');
}

[[gnu::cold]] void NewThreadGroup() {
    // Made before the old group is left, so that a failure changes nothing.
    boost::shared_ptr<thread::Group> const made = detail::make_shared<thread::Group>();
    thread::Registry::associate(thread::Registry::claim(), made);
}

[[gnu::cold]] id_t GroupId() {
    return thread::ThisGroup()->id().value();
}

} // namespace orn::zel
