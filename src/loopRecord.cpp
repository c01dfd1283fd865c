// SPDX-License-Identifier: MIT
//
// Looking at a record while its runner goes on, and the spans of a traced one.
#include "loopRecord.hpp"

#include <algorithm>

#include <orn/zel/threadRegistry.hpp>

#include "fork.hpp"

namespace orn::zel::detail {

char const* name_of(Doing doing) {
    static char const* const names[] = {"nothing", "turn", "sleep", "fd", "alarm", "signal", "task"};
    return names[static_cast<std::size_t>(doing)];
}

// ---- The ring -------------------------------------------------------------------------------------------

void SpanRing::push(Span const& span) {
    unsigned long const head = head_.load(std::memory_order_relaxed);
    if (head - tail_.load(std::memory_order_acquire) >= size) {
        lost_.store(lost() + 1, std::memory_order_relaxed);
        return;
    }
    spans_[head % size] = span;
    head_.store(head + 1, std::memory_order_release);
}

std::size_t SpanRing::take(Span* out, std::size_t most) {
    unsigned long const tail = tail_.load(std::memory_order_relaxed);
    std::size_t const there = head_.load(std::memory_order_acquire) - tail;
    std::size_t const taken = std::min({there, most, static_cast<std::size_t>(size)});
    for (std::size_t i = 0; i < taken; ++i)
        out[i] = spans_[(tail + i) % size];
    tail_.store(tail + taken, std::memory_order_release);
    return taken;
}

void SpanRing::begin() {
    process_.store(process_id(), std::memory_order_relaxed);
    tail_.store(head_.load(std::memory_order_acquire), std::memory_order_release);
}

// ---- The record -----------------------------------------------------------------------------------------

namespace {

// A time in whole ms that was read at most 49 days ago.
std::uint64_t as_ns(unsigned long ms) {
    std::uint64_t const now = internal::now_ns() / 1000000;
    unsigned long const ago = static_cast<unsigned long>(now) - ms;
    return (now - ago) * 1000000;
}

} // namespace

LoopRecord LoopRecord::nobodys;

LoopRecord::Look LoopRecord::look() const {
    Look look = {};
    look.turns = get(turns_);
    look.dispatches = get(dispatches_);
    look.rebuilds = get(rebuilds_);
    look.descriptors = get(descriptors_);
    if (look.turns != 0)
        look.turn_began_ns = as_ns(get(turn_began_ms_));
    look.sleeping = get(sleeping_);
    // A loop whose callbacks change in the midst of each of these looks is stuck in none.
    for (int tries = 0; tries < 100; ++tries) {
        Doing const doing = doing_.load(std::memory_order_acquire);
        if (doing == Doing::nothing)
            break;
        std::uint32_t const id = id_of(doing).load(std::memory_order_acquire);
        unsigned long const since = since_ms_.load(std::memory_order_acquire);
        if (get(doing_) != doing || get(id_of(doing)) != id || get(since_ms_) != since)
            continue;
        look.doing = doing;
        look.id = id;
        look.since_ns = as_ns(since);
        break;
    }
    return look;
}

SpanRing& LoopRecord::trace() {
    if (!owned_)
        owned_ = std::make_unique<SpanRing>();
    if (!traced() || owned_->process() != process_id()) {
        owned_->begin();
        add(traces_);
        ring_.store(owned_.get(), std::memory_order_release);
    }
    return *owned_;
}

void LoopRecord::add_span(std::uint64_t begin_ns, std::uint64_t end_ns, Doing doing, std::uint32_t id,
                          std::uint64_t came_ns) {
    SpanRing* const ring = ring_.load(std::memory_order_acquire);
    if (!ring)
        return;
    if (ring->process() != process_id()) { // a child of fork(), where nobody has asked for this
        stop_tracing();
        return;
    }
    std::uint64_t const late = came_ns != 0 && came_ns < begin_ns ? begin_ns - came_ns : 0;
    ring->push(Span{begin_ns, end_ns, id, tid_, late & most_late_ns, doing});
}

std::uint64_t LoopRecord::begin_traced() {
    tid_ = thread::self();
    row_end_ns_ = 0;
    return internal::now_ns();
}

// A turn ends with its callbacks, if it has any, and need not look at the clock once more.
//
// What began in another trace is left out: the end of its latest callback is not known.
void LoopRecord::end_span(std::uint64_t begin_ns, unsigned trace, Doing doing, std::uint32_t id) {
    if (trace == get(traces_))
        add_span(begin_ns, row_end_ns_ != 0 ? row_end_ns_ : internal::now_ns(), doing, id, 0);
}

// A call of an earlier trace is left out as well: others may have come after it meanwhile.
void LoopRecord::Row::add_call(Doing doing, std::uint64_t end_ns) const {
    if (trace_ == get(record_.traces_))
        record_.add_span(begin_ns_, end_ns, doing, id_, came_ns_);
}

void LoopRecord::Row::next_traced(Doing doing, std::uint32_t id, std::uint64_t came_ns) {
    std::uint64_t const now = internal::now_ns();
    if (begin_ns_ != 0)
        add_call(doing, now);
    else // the first one, or the trace has begun in the midst of the row
        outer_since_ms_ = get(record_.since_ms_);
    record_.tid_ = thread::self(); // in a child of fork() another one than before
    id_ = id;
    begin_ns_ = now;
    trace_ = get(record_.traces_);
    came_ns_ = came_ns;
    set(record_.since_ms_, ms_of(now));
}

void LoopRecord::Row::end_traced(Doing doing) const {
    record_.row_end_ns_ = internal::now_ns();
    add_call(doing, record_.row_end_ns_);
    set(record_.since_ms_, outer_since_ms_);
}

// ---- Arrivals -------------------------------------------------------------------------------------------

namespace {

unsigned const arrival_shift = sizeof(unsigned long) < sizeof(std::uint64_t) ? 10 : 0;

unsigned long units_of(std::uint64_t ns) {
    return static_cast<unsigned long>(ns >> arrival_shift);
}

} // namespace

void Arrival::note_now() {
    at_.store(units_of(internal::now_ns()) | 1, std::memory_order_relaxed); // 0 is none
}

std::uint64_t Arrival::take() {
    std::uint64_t const now = internal::now_ns();
    unsigned long const ago = units_of(now) - at_.load(std::memory_order_relaxed);
    at_.store(0, std::memory_order_relaxed);
    return now - (static_cast<std::uint64_t>(ago) << arrival_shift);
}

} // namespace orn::zel::detail
