// SPDX-License-Identifier: MIT
//
// The epoll set beside a poll set: kept by differences, asked without waiting, mended when it is found wrong.
#include "readiness.hpp"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/cancel.hpp>

#include "signalFork.hpp"

namespace orn::zel::detail {

namespace {

// What poll() and epoll call by the same bits on every processor. An entry with any other is polled always.
int const common_events = POLLIN | POLLPRI | POLLOUT | POLLERR | POLLHUP | POLLNVAL;

// An audit comes after so many questions for each entry, and not before the second number. So a descriptor
// that was closed behind the loop's back is seen after so many turns at most, and a turn pays, on average,
// for a quarter of an entry that nothing has happened to.
std::size_t const questions_per_entry = 4;
std::size_t const fewest_questions = 64;

// A descriptor with results in so many questions running is hot: poll() is asked about it at once, so that a
// turn in which only such are ready has one system call. More than this number make one poll() long, and one
// that stays idle for that many questions is not hot any more.
unsigned const questions_to_heat = 4;
unsigned const questions_to_cool = 16;
std::size_t const most_hot = 16;

Readiness* newest = nullptr; // the fork barrier guards it

// Some files forget what they have told once: /proc/mounts, pressure triggers, perf events and whatever a
// device's driver does. Asked by the epoll set first, they would have nothing left to tell poll(). Pipes and
// sockets tell the same until it is not true any more. Another member may close the number meanwhile, which
// is as harmless as in control(), and ThreadSanitizer would take fstat() for a race.
bool tells_twice(int fd) {
    struct stat file;
    return fstatat(fd, "", &file, AT_EMPTY_PATH) == 0 && (S_ISFIFO(file.st_mode) || S_ISSOCK(file.st_mode));
}

} // namespace

std::size_t readiness_threshold = 8;
std::size_t readiness_crowd = 4;

[[gnu::cold]] Readiness::Readiness()
    : epoll_(-1), refused_(false), dead_(false), quiet_(false), audits_(false), asked_(0), question_(0),
      hot_(0), serials_(0), round_(0), events_(64), previous_(nullptr), next_(nullptr) {
    ForkBarrier const barrier;
    next_ = newest;
    if (next_)
        next_->previous_ = this;
    newest = this;
}

[[gnu::cold]] Readiness::~Readiness() {
    close();
    slots_.each([](id_t, Slot& slot) { delete &slot; });
    ForkBarrier const barrier;
    (previous_ ? previous_->next_ : newest) = next_;
    if (next_)
        next_->previous_ = previous_;
}

// ---- The epoll set --------------------------------------------------------------------------------------

// The barrier keeps a child from being forked in between, which would inherit what it does not know of.
[[gnu::cold]] void Readiness::open() {
    ForkBarrier const barrier;
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
}

[[gnu::cold]] void Readiness::close() {
    internal::CancelShield const shield; // close() is a cancellation point
    ForkBarrier const barrier;
    shut();
}

[[gnu::cold]] void Readiness::shut() {
    int const fd = epoll_.exchange(-1);
    if (fd != -1)
        ::close(fd);
}

[[gnu::cold]] void Readiness::forked() {
    for (Readiness* each = newest; each; each = each->next_)
        each->shut();
}

// One that has been refused is tried again before long: what it wanted for may be there again, and another
// try costs no more than an audit.
[[gnu::cold]] bool Readiness::renew() {
    if (epoll_ != -1)
        close();
    if (refused_ && ++asked_ < questions_to_audit())
        return false;
    open();
    asked_ = 0;
    refused_ = epoll_ == -1;
    dead_ = false;
    slots_.each([this](id_t, Slot& slot) { enter(slot); });
    return !refused_;
}

// Another member may close the number meanwhile, and open it again: the kernel then refuses, or the
// withdrawal that follows takes the new file out. So that is no race, but ThreadSanitizer takes it for one
// unless the system call is a bare one.
int Readiness::control(int operation, Slot const& slot) const {
    epoll_event event = {};
    event.events = static_cast<std::uint32_t>(slot.events);
    event.data.u64 = std::uint64_t(slot.serial) << 32 | static_cast<std::uint32_t>(slot.fd);
    return syscall(SYS_epoll_ctl, epoll_.load(), operation, slot.fd, &event) == 0 ? 0 : errno;
}

// Adding comes first because it tells whether the number stands for a file that the set does not know.
void Readiness::enter(Slot& slot) {
    forget_polled(slot);
    if (epoll_ == -1 || refused_)
        return; // entered when the set is made
    if ((slot.events & ~common_events) != 0 || !tells_twice(slot.fd)) {
        poll_always(slot);
        return;
    }
    int error = control(EPOLL_CTL_ADD, slot);
    if (error == EEXIST)
        error = control(EPOLL_CTL_MOD, slot);
    if (error == ENOSPC || error == ENOMEM)
        refused_ = true; // closed later: the caller holds locks
    else if (error != 0)
        poll_always(slot);
}

void Readiness::poll_always(Slot& slot) {
    slot.polled = true;
    polled_.push_back(&slot);
}

void Readiness::forget_polled(Slot& slot) {
    if (!slot.polled)
        return;
    hot_ -= slot.hot ? 1 : 0;
    slot.polled = false;
    slot.hot = false;
    polled_.erase(std::find(polled_.begin(), polled_.end(), &slot));
}

// ---- What is watched ------------------------------------------------------------------------------------

[[gnu::cold]] void Readiness::end() {
    std::vector<Slot*> gone;
    slots_.each([&](id_t, Slot& slot) {
        if (slot.round != round_)
            gone.push_back(&slot);
    });
    for (Slot* const slot : gone)
        drop(*slot);
}

[[gnu::cold]] Readiness::Slot& Readiness::new_slot(int fd) {
    // Here alone, so that a change cannot fail halfway.
    if (polled_.capacity() <= slots_.size())
        polled_.reserve(2 * slots_.size() + 16);
    auto slot = std::make_unique<Slot>(Slot());
    slot->fd = fd;
    slots_.insert(static_cast<id_t>(fd), *slot);
    return *slot.release();
}

void Readiness::set(Watch const& watch) {
    if (watch.fd < 0)
        return; // poll() has no result for it
    Slot* const known = slot_of(watch.fd);
    Slot& slot = known ? *known : new_slot(watch.fd);
    slot.round = round_;
    if (known && slot.stamp == watch.stamp && slot.events == watch.events && slot.owner == watch.owner)
        return;
    slot.stamp = watch.stamp;
    slot.serial = ++serials_;
    slot.owner = watch.owner;
    slot.events = watch.events;
    enter(slot);
}

[[gnu::cold]] void Readiness::drop(int fd) {
    Slot* const known = slot_of(fd);
    if (known)
        drop(*known);
}

[[gnu::cold]] void Readiness::drop(Slot& slot) {
    // Fails when the number is closed already. If its file lives on, events of it will tell.
    if (!slot.polled && epoll_ != -1)
        control(EPOLL_CTL_DEL, slot);
    forget_polled(slot);
    slots_.take(static_cast<id_t>(slot.fd));
    delete &slot;
}

// ---- Questions ------------------------------------------------------------------------------------------

std::size_t Readiness::questions_to_audit() const {
    return std::max(questions_per_entry * size(), fewest_questions);
}

std::optional<int> Readiness::ask(std::vector<pollfd>& named) {
    audits_ = false;
    // For so many that poll() is asked about in any case, its answer about all costs less.
    if (polled_.size() > most_hot && readiness_crowd * polled_.size() >= size())
        return std::nullopt;
    if ((epoll_ == -1 || refused_) && !renew())
        return std::nullopt;
    audits_ = asked_ >= questions_to_audit();
    if (audits_)
        return std::nullopt;
    ++asked_;
    ++question_;
    named.clear();
    named_ = polled_;
    for (Slot const* const slot : named_)
        named.push_back(pollfd{slot->fd, slot->events, 0});
    int const ready = quiet_ && !named.empty() ? poll_hot_first(named) : poll_told(named, 0);
    if (ready == -1)
        return ready;
    for (std::size_t i = 0; i < named.size(); ++i)
        note(*named_[i], named[i].revents);
    return ready;
}

// Adds what the epoll set tells of, and asks poll() about all behind the first ones.
int Readiness::poll_told(std::vector<pollfd>& named, std::size_t first) {
    quiet_ = !tell(named);
    std::size_t const count = named.size() - first;
    return count == 0 ? 0 : poll(named.data() + first, count, 0);
}

// The epoll set is one more descriptor for poll(), so that it need not be asked while it has nothing to tell.
int Readiness::poll_hot_first(std::vector<pollfd>& named) {
    named.push_back(pollfd{epoll_, POLLIN, 0});
    int ready = poll(named.data(), named.size(), 0);
    bool const tells = named.back().revents != 0;
    named.pop_back();
    if (ready <= 0 || !tells)
        return ready;
    int const more = poll_told(named, named.size());
    return more == -1 && ready == 1 ? more : ready - 1 + std::max(more, 0);
}

bool Readiness::tell(std::vector<pollfd>& named) {
    int told;
    while ((told = epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), 0)) ==
           static_cast<int>(events_.size()))
        events_.resize(2 * events_.size()); // there may be more, and a turn serves all that is ready
    if (told == -1 && errno != EINTR) {
        // Somebody has closed the descriptor. The number may be another's by now.
        epoll_ = -1;
        refused_ = true;
    }
    for (int i = 0; i < told; ++i) {
        std::uint64_t const data = events_[static_cast<std::size_t>(i)].data.u64;
        Slot* const slot = slot_of(static_cast<int>(data));
        if (!slot || slot->serial != data >> 32 || slot->polled) {
            dead_ = true;
            continue;
        }
        named.push_back(pollfd{slot->fd, slot->events, 0});
        named_.push_back(slot);
    }
    return told > 0;
}

// Heats and cools by what poll() has said.
void Readiness::note(Slot& slot, short result) {
    if (result == 0) {
        if (!slot.polled) {
            confirm(slot); // it was named for nothing
        } else if (slot.hot && question_ - slot.latest > questions_to_cool) {
            // With a serial of its own: when the number stands for another file than before, that one was not
            // taken out.
            slot.serial = ++serials_;
            enter(slot);
        }
        return;
    }
    slot.streak = slot.latest + 1 == question_ ? slot.streak + 1 : 1;
    slot.latest = question_;
    if (slot.polled || slot.streak < questions_to_heat || hot_ == most_hot)
        return;
    control(EPOLL_CTL_DEL, slot);
    poll_always(slot);
    slot.hot = true;
    ++hot_;
}

[[gnu::cold]] void Readiness::confirm(int fd) {
    Slot* const known = slot_of(fd);
    if (known && !known->polled && epoll_ != -1)
        confirm(*known);
}

[[gnu::cold]] void Readiness::confirm(Slot& slot) {
    // With a serial of its own, so that the file that had the number before is found out.
    Slot fresh = slot;
    fresh.serial = ++serials_;
    int const error = tells_twice(slot.fd) ? control(EPOLL_CTL_ADD, fresh) : EPERM;
    if (error == 0)
        slot.serial = fresh.serial;
    else if (error != EEXIST)
        poll_always(slot);
}

void Readiness::audited() {
    audits_ = false;
    asked_ = 0;
    if (dead_)
        renew();
}

} // namespace orn::zel::detail
