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
    std::uint64_t late_ns : 56; // what is served had arrived so long before the beginning; 0: not known
    Doing doing : 8;
};

constexpr std::uint64_t most_late_ns = (std::uint64_t(1) << 56) - 1; // two years

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

// What costs a turn or a callback something is in one line of the processor's cache.
class alignas(64) LoopRecord {
public:
    // The record of the innermost turn on the calling thread's stack, which stays good until that turn ends.
    // Outside of a turn it is one that nobody looks at.
    static LoopRecord& current() {
        LoopRecord* const record = running();
        return record ? *record : nobodys;
    }
    // Where the calling thread has a pointer to it, null outside of a turn. The thread registry keeps it
    // (threadRegistry.cpp), beside what a turn needs besides.
    static LoopRecord*& running();

    class Turn;
    class Sleep;
    class Row;
    template <Doing>
    class Callback;

    // The runner's.
    void count_rebuild(std::size_t descriptors) {
        add(rebuilds_);
        descriptors_.store(static_cast<std::uint32_t>(descriptors), std::memory_order_relaxed);
    }

    // The turn has more to do after a row of callbacks than to end.
    void goes_on() { row_end_ns_ = 0; }

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

    // Whether any record may be traced. Any context.
    static bool anybody_traces() { return get(any_traced); }

    // The command thread's. Spans go to the ring while the record is traced. The ring stays until the record
    // goes, because the runner may be in it.
    SpanRing& trace();
    bool traced() const { return get(ring_) != nullptr; }
    void stop_tracing() { ring_.store(nullptr, std::memory_order_relaxed); }
    static void let_anybody_trace(bool may) { set(any_traced, may); }

private:
    template <class Number>
    static Number get(std::atomic<Number> const& word) {
        return word.load(std::memory_order_relaxed);
    }
    template <class Number>
    static void set(std::atomic<Number>& word, Number value) {
        word.store(value, std::memory_order_relaxed);
    }
    // No instruction that locks the bus: nobody else writes the word.
    template <class Number>
    static void add(std::atomic<Number>& word) {
        set(word, get(word) + 1);
    }

    // CLOCK_MONOTONIC in ms, exact to a tick of the kernel. One word, so that it can be read at any time on
    // 32-bit machines, too, where it wraps after 49 days.
    static unsigned long coarse_ms() { return static_cast<unsigned long>(internal::coarse_ms()); }
    static unsigned long ms_of(std::uint64_t ns) { return static_cast<unsigned long>(ns / 1000000); }

    // The time of the beginning of a turn or a sleep. 0: nobody traces.
    std::uint64_t begin_span() { return traced() ? begin_traced() : 0; }
    [[gnu::cold, gnu::noinline]] std::uint64_t begin_traced();
    [[gnu::cold, gnu::noinline]] void end_span(std::uint64_t begin_ns, unsigned trace, Doing doing,
                                               std::uint32_t id);
    void add_span(std::uint64_t begin_ns, std::uint64_t end_ns, Doing doing, std::uint32_t id,
                  std::uint64_t came_ns);

    // Each kind has an identifier of its own, so that no reader takes one for that of another kind.
    static std::size_t index_of(Doing doing) {
        return static_cast<std::size_t>(doing) - static_cast<std::size_t>(Doing::fd);
    }
    std::atomic<std::uint32_t>& id_of(Doing doing) { return ids_[index_of(doing)]; }
    std::atomic<std::uint32_t> const& id_of(Doing doing) const { return ids_[index_of(doing)]; }

    static LoopRecord nobodys; // never traced, so that the end of it leaves nothing to threads that go on

    static inline std::atomic<bool> any_traced{false};

    std::atomic<unsigned long> turns_{0};
    std::atomic<unsigned long> dispatches_{0};
    std::atomic<unsigned long> turn_began_ms_{0};
    std::atomic<unsigned long> since_ms_{0}; // the latest turn, or the end of its wait, or a traced callback
    std::atomic<SpanRing*> ring_{nullptr};   // null while nobody traces
    std::atomic<std::uint32_t> ids_[4]{};    // of the innermost callback of each kind
    std::atomic<Doing> doing_{Doing::nothing};
    std::atomic<bool> sleeping_{false};

    alignas(64) std::atomic<unsigned long> rebuilds_{0};
    std::atomic<std::uint32_t> descriptors_{0};
    std::atomic<unsigned> traces_{0}; // that have begun
    std::unique_ptr<SpanRing> owned_;

    // The runner's, while it is traced.
    int tid_ = 0;
    std::uint64_t row_end_ns_ = 0; // of the latest row, when nothing has begun since
};

// One turn, or one pass of a run call that makes several.
class LoopRecord::Turn {
public:
    // running: as running() of this thread.
    Turn(LoopRecord& record, LoopRecord*& running)
        : record_(record), running_(running), outer_(running), outer_since_ms_(get(record.since_ms_)) {
        running = &record;
        begin();
    }
    // Inline also where an exception passes, or the members would have to be in memory.
    [[gnu::always_inline]] ~Turn() {
        end();
        set(record_.since_ms_, outer_since_ms_);
        running_ = outer_;
    }
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;

    void again() {
        end();
        begin();
    }

private:
    void begin() {
        add(record_.turns_);
        unsigned long const now = coarse_ms();
        set(record_.turn_began_ms_, now);
        set(record_.since_ms_, now);
        begin_ns_ = record_.begin_span();
        if (begin_ns_ != 0) {
            number_ = static_cast<std::uint32_t>(get(record_.turns_));
            trace_ = get(record_.traces_);
        }
    }
    [[gnu::always_inline]] void end() {
        if (begin_ns_ != 0)
            record_.end_span(begin_ns_, trace_, Doing::turn, number_);
    }

    LoopRecord& record_;
    LoopRecord*& running_;
    LoopRecord* const outer_;
    unsigned long const outer_since_ms_; // of a callback that this turn is inside of
    std::uint64_t begin_ns_;
    // Of a turn that is traced.
    std::uint32_t number_ = 0; // turns_ is counted on by the turns inside of this one
    unsigned trace_ = 0;       // what traces_ was
};

// The wait of a turn. Keeps errno.
class LoopRecord::Sleep {
public:
    explicit Sleep(LoopRecord& record)
        : record_(record), begin_ns_(record.begin_span()), trace_(get(record.traces_)) {
        set(record.sleeping_, true);
    }
    ~Sleep() {
        set(record_.sleeping_, false);
        set(record_.since_ms_, coarse_ms());
        if (begin_ns_ != 0)
            record_.end_span(begin_ns_, trace_, Doing::sleep, 0);
    }
    Sleep(Sleep const&) = delete;
    Sleep& operator=(Sleep const&) = delete;

private:
    LoopRecord& record_;
    std::uint64_t const begin_ns_;
    unsigned const trace_; // what traces_ was
};

// Calls of handlers of one kind in a row: next() before each. The end of the scope puts back the callback
// around them.
class LoopRecord::Row {
protected:
    explicit Row(LoopRecord& record) : record_(record), begin_ns_(0) {}

    [[gnu::cold, gnu::noinline]] void next_traced(Doing doing, std::uint32_t id, std::uint64_t came_ns);
    [[gnu::cold, gnu::noinline]] void end_traced(Doing doing) const;
    void add_call(Doing doing, std::uint64_t end_ns) const;

    LoopRecord& record_;
    std::uint64_t begin_ns_; // of the present call; 0 when nobody has traced any
    // The rest has a value while begin_ns_ has one.
    unsigned trace_; // what traces_ was
    std::uint64_t came_ns_;
    unsigned long outer_since_ms_;
    std::uint32_t id_;
};

template <Doing Kind>
class LoopRecord::Callback : Row {
public:
    explicit Callback(LoopRecord& record)
        : Row(record), outer_(get(record.doing_)), outer_id_(get(record.id_of(Kind))) {}
    ~Callback() {
        if (begin_ns_ != 0)
            end_traced(Kind);
        set(record_.doing_, outer_);
        set(record_.id_of(Kind), outer_id_);
    }
    // What follows until next() is no part of a call.
    void pause() {
        if (begin_ns_ != 0)
            end_traced(Kind);
        begin_ns_ = 0;
    }
    Callback(Callback const&) = delete;
    Callback& operator=(Callback const&) = delete;

    // The one before has ended just now. A call may cost less than two looks at the clock, so a traced one
    // begins when the one before ends. came_ns: when what the handler is called for arrived; 0 when that is
    // not known.
    void next(std::uint32_t id, std::uint64_t came_ns = 0) {
        LoopRecord& record = record_;
        if constexpr (Kind == Doing::fd)
            add(record.dispatches_);
        set(record.id_of(Kind), id);
        record.doing_.store(Kind, std::memory_order_release);
        if (record.traced())
            next_traced(Kind, id, came_ns);
    }

private:
    Doing const outer_;
    std::uint32_t const outer_id_;
};

// When something arrived that the loop will find later. Whoever tells the loop of it notes the time, perhaps
// in signal context, and the loop takes it. Of several that arrive meanwhile the first one's time counts.
//
// One word, which no machine needs a lock for. Where it has 32 bits it counts in units of 1,024 ns, and wraps
// after 73 minutes.
class Arrival {
public:
    void note() {
        if (LoopRecord::anybody_traces() && !noted())
            note_now();
    }
    bool noted() const { return at_.load(std::memory_order_relaxed) != 0; }
    // What has been noted, in ns.
    std::uint64_t take();

private:
    [[gnu::cold]] void note_now();

    std::atomic<unsigned long> at_{0};
};

} // namespace orn::zel::detail

#endif
