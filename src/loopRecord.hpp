// SPDX-License-Identifier: MIT
//
// What the loop of one group is doing and has done, for those who look into the process. Internal. The loop,
// the alarms, the signals and the tasks keep the record, "inspect groups" reads it, and trace.cpp collects
// the spans.
//
// Only the group's runner writes a record, with plain loads and stores, so that it costs next to nothing.
// Anybody reads it at any time, also while the runner is stuck in a handler.
#ifndef ZEL_SRC_LOOPRECORD_HPP
#define ZEL_SRC_LOOPRECORD_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <orn/clock.hpp>
#include <sys/types.h>

namespace orn::zel::detail {

enum class Doing : unsigned char { nothing, turn, sleep, fd, alarm, signal, task };

char const* name_of(Doing doing);

// Something that has a beginning and an end on the runner's stack.
struct Span {
    std::uint64_t begin_ns;
    std::uint64_t end_ns;
    std::uint32_t id;
    int tid;
    Doing doing;
};

// Spans on their way from the runner to the command thread. Neither waits for the other. A span goes in when
// it ends, as a whole: one that does not fit leaves no half behind.
class SpanRing {
public:
    static constexpr unsigned long size = 8192;

    // The runner's.
    void push(Span const& span);

    // The command thread's. begin() forgets all that is there and makes the ring this process's. take()
    // returns how many it has moved to out.
    void begin();
    std::size_t take(Span* out, std::size_t most);

    // How many spans there was no room for, ever. Any thread.
    unsigned long lost() const { return lost_.load(std::memory_order_relaxed); }
    // Who it was begun in: a child of fork() has its parent's until it begins.
    pid_t process() const { return process_.load(std::memory_order_relaxed); }

private:
    std::atomic<pid_t> process_{0};
    std::atomic<unsigned long> lost_{0};
    std::atomic<unsigned long> head_{0};
    alignas(64) std::atomic<unsigned long> tail_{0};
    Span spans_[size] = {};
};

// In one line of the processor's cache, but for what is there for the traces.
class alignas(64) LoopRecord {
public:
    // The record of the innermost turn on the calling thread's stack; null outside of a turn. It stays good
    // until that turn ends.
    static LoopRecord* current() { return running; }

    class Turn;
    class Sleep;
    class Callback;

    // The runner's.
    void count_dispatch() { add(dispatches_); }
    void count_rebuild(std::size_t descriptors) {
        add(rebuilds_);
        descriptors_.store(static_cast<std::uint32_t>(descriptors), std::memory_order_relaxed);
    }

    // Any thread.
    struct Look {
        unsigned long turns;
        unsigned long dispatches;
        unsigned long rebuilds;
        std::uint32_t descriptors;
        std::uint64_t turn_began_ns; // 0 before the first turn
        bool sleeping;
        Doing doing; // the innermost callback: nothing when there is none, or when they change too quickly
        std::uint32_t id;
        std::uint64_t since_ns; // when the callback began, or the callbacks of its turn
    };
    Look look() const;

    // The command thread's. Spans go to the ring while the record is traced. The ring stays until the record
    // goes, because the runner may be in it.
    SpanRing& trace();
    bool traced() const { return get(ring_) != nullptr; }
    void stop_tracing() { ring_.store(nullptr, std::memory_order_relaxed); }

private:
    template <class Number>
    static Number get(std::atomic<Number> const& word) {
        return word.load(std::memory_order_relaxed);
    }
    // No instruction that locks the bus: nobody else writes the word.
    template <class Number>
    static void add(std::atomic<Number>& word) {
        word.store(get(word) + 1, std::memory_order_relaxed);
    }

    // CLOCK_MONOTONIC in ms, exact to a tick of the kernel. One word, so that it can be read at any time on
    // 32-bit machines, too, where it wraps after 49 days.
    static unsigned long coarse_ms() { return static_cast<unsigned long>(internal::coarse_ms()); }

    // The time of a span's beginning. 0: nobody traces.
    std::uint64_t begin_span() const { return traced() ? internal::now_ns() : 0; }
    void end_span(std::uint64_t begin_ns, Doing doing, std::uint32_t id);

    // Kind, number and time belong together. A reader that finds the sequence odd, or changed, reads again.
    // Plain stores on x86; where the processor may reorder them, release keeps their order.
    void set_callback(Doing doing, std::uint32_t id, unsigned long since_ms) {
        std::uint32_t const sequence = get(sequence_);
        sequence_.store(sequence + 1, std::memory_order_relaxed);
        doing_.store(doing, std::memory_order_release);
        id_.store(id, std::memory_order_release);
        since_ms_.store(since_ms, std::memory_order_release);
        sequence_.store(sequence + 2, std::memory_order_release);
    }

    static inline thread_local LoopRecord* running = nullptr;

    std::atomic<unsigned long> turns_{0};
    std::atomic<unsigned long> dispatches_{0};
    std::atomic<unsigned long> rebuilds_{0};
    std::atomic<unsigned long> turn_began_ms_{0};
    std::atomic<unsigned long> since_ms_{0};
    std::atomic<std::uint32_t> descriptors_{0};
    std::atomic<std::uint32_t> sequence_{0};
    std::atomic<std::uint32_t> id_{0};
    std::atomic<Doing> doing_{Doing::nothing};
    std::atomic<bool> sleeping_{false};
    std::atomic<SpanRing*> ring_{nullptr}; // null while nobody traces

    std::atomic<int> tid_{0};                // the runner's
    std::atomic<unsigned long> clock_ms_{0}; // when the latest turn began, or the wait in it ended
    std::unique_ptr<SpanRing> owned_;
};

// One turn, or one pass of a run call that makes several.
class LoopRecord::Turn {
public:
    Turn(LoopRecord& record, int tid) : record_(record), slot_(running), outer_(slot_) {
        slot_ = &record;
        record.tid_.store(tid, std::memory_order_relaxed);
        begin();
    }
    ~Turn() {
        end();
        slot_ = outer_;
    }
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;

    void again() {
        end();
        begin();
    }

private:
    void begin() {
        LoopRecord& record = record_;
        add(record.turns_);
        unsigned long const now = coarse_ms();
        record.turn_began_ms_.store(now, std::memory_order_relaxed);
        record.clock_ms_.store(now, std::memory_order_relaxed);
        number_ = static_cast<std::uint32_t>(get(record.turns_));
        begin_ns_ = record.begin_span();
    }
    void end() {
        if (begin_ns_ != 0)
            record_.end_span(begin_ns_, Doing::turn, number_);
    }

    LoopRecord& record_;
    LoopRecord*& slot_; // the thread's, looked up once
    LoopRecord* const outer_;
    std::uint32_t number_;
    std::uint64_t begin_ns_;
};

// The wait of a turn. Keeps errno.
class LoopRecord::Sleep {
public:
    explicit Sleep(LoopRecord& record) : record_(record), begin_ns_(record.begin_span()) {
        record_.sleeping_.store(true, std::memory_order_relaxed);
    }
    ~Sleep() {
        record_.sleeping_.store(false, std::memory_order_relaxed);
        record_.clock_ms_.store(coarse_ms(), std::memory_order_relaxed);
        if (begin_ns_ != 0)
            record_.end_span(begin_ns_, Doing::sleep, 0);
    }
    Sleep(Sleep const&) = delete;
    Sleep& operator=(Sleep const&) = delete;

private:
    LoopRecord& record_;
    std::uint64_t const begin_ns_;
};

// A call of a handler, or several of one kind in a row. The end of the scope puts back the callback around
// it. Without a record it does nothing.
class LoopRecord::Callback {
public:
    Callback(LoopRecord* record, Doing doing) : record_(record), doing_(doing) {}
    Callback(LoopRecord* record, Doing doing, std::uint32_t id) : Callback(record, doing) { next(id); }
    ~Callback() {
        if (!record_ || !begun_)
            return;
        end();
        record_->set_callback(outer_, outer_id_, outer_since_ms_);
    }
    Callback(Callback const&) = delete;
    Callback& operator=(Callback const&) = delete;

    // The one before it, if any, has ended.
    void next(std::uint32_t id) {
        if (!record_)
            return;
        end();
        id_ = id;
        begin_ns_ = record_->begin_span();
        if (!begun_) {
            begun_ = true;
            outer_ = get(record_->doing_);
            outer_id_ = get(record_->id_);
            outer_since_ms_ = get(record_->since_ms_);
        } else if (begin_ns_ == 0) {
            // The kind stays, so kind and number fit together at any moment. The time stays as well, because
            // a slice costs less than a few looks at the clock.
            record_->id_.store(id, std::memory_order_relaxed);
            return;
        }
        record_->set_callback(doing_, id,
                              begin_ns_ != 0 ? static_cast<unsigned long>(begin_ns_ / 1000000)
                                             : get(record_->clock_ms_));
    }

private:
    void end() {
        if (begin_ns_ != 0)
            record_->end_span(begin_ns_, doing_, id_);
    }

    LoopRecord* const record_;
    Doing const doing_;
    bool begun_ = false;
    Doing outer_ = Doing::nothing;
    std::uint32_t outer_id_ = 0;
    std::uint32_t id_ = 0;
    unsigned long outer_since_ms_ = 0;
    std::uint64_t begin_ns_ = 0;
};

} // namespace orn::zel::detail

#endif
