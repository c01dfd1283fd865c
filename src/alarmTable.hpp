// SPDX-License-Identifier: MIT
//
// The alarms of one manager: their entries, the table and the lock that guards it. Internal. Who the alarms
// belong to, and their way to the handler, is in alarm.cpp.
#ifndef ZEL_SRC_ALARMTABLE_HPP
#define ZEL_SRC_ALARMTABLE_HPP

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include <sys/types.h>

#include <orn/clock.hpp>
#include <orn/os/Pipe.hpp>
#include <orn/zel/alarm.hpp>

#include "fork.hpp"
#include "idTable.hpp"
#include "loopRecord.hpp"
#include "threadRegistry.hpp"

namespace orn::zel::alarm {

std::uint64_t const ns_per_ms = 1000000;

// An alarm with its timer and a small handler in one piece of memory.
struct Entry : TimerBlob {
    Entry(Handler&& called, bool once) : TimerBlob(std::move(called), once) {}

    void armed(unsigned long initialMs, unsigned long recurringMs) {
        // Most alarms are timeouts, which never fire. They are worth no exact look at the clock.
        exact = recurringMs > 0 || detail::LoopRecord::anybody_traces();
        due_ns = exact ? internal::now_ns() : internal::coarse_ms() * ns_per_ms;
        due_ns += std::min<std::uint64_t>(initialMs, INT64_MAX / ns_per_ms) * ns_per_ms;
        period_ms = recurringMs;
    }

    std::uint64_t left_ms(std::uint64_t now_ms) const {
        std::uint64_t const due_ms = due_ns / ns_per_ms;
        if (due_ms > now_ms)
            return due_ms - now_ms;
        return period_ms > 0 ? period_ms - (now_ms - due_ms) % period_ms : 0;
    }

    // When the alarm was due that the loop has found now. The timer's thread may have been late, but an alarm
    // keeps its phase, and what it missed is skipped.
    [[gnu::cold]] std::uint64_t take_arrival() {
        std::uint64_t const expired_ns = expiry.take();
        if (!exact || expired_ns < due_ns)
            return expired_ns;
        std::uint64_t const periods = period_ms > 0 ? (expired_ns - due_ns) / ns_per_ms / period_ms : 0;
        return due_ns + periods * period_ms * ns_per_ms;
    }

    std::uint64_t serial = 0;       // in its table
    std::atomic<unsigned> users{1}; // the table, and each dispatch in which the handler runs

    // For those who look. The timer does not tell its time.
    std::uint64_t due_ns = 0; // for the first time
    unsigned long period_ms = 0;
    unsigned long fired = 0;
    bool exact = false; // else to a tick of the kernel
    detail::Arrival expiry;
};

struct Release {
    void operator()(Entry* entry) const {
        // Nobody can join a last user, who therefore needs no locked instruction.
        if (entry->users.load(std::memory_order_acquire) == 1 ||
            entry->users.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete entry;
    }
};

using EntryUse = std::unique_ptr<Entry, Release>;

// A lock without a constructor or destructor, as lock_of() needs it.
struct ZEL_CAPABILITY("mutex") TableLock {
    std::mutex mutex;
};

class ZEL_SCOPED_CAPABILITY Guard {
public:
    explicit Guard(TableLock& lock) ZEL_ACQUIRE(lock) : held_(lock.mutex) {}
    ~Guard() ZEL_RELEASE() {}

private:
    std::lock_guard<std::mutex> const held_;
};

// The lock of a table, which it may share with others. Who remembers a table that may have gone locks first,
// and then asks whether the table still stands. The locks are therefore never destroyed.
TableLock& lock_of(Table const* table);

struct Owner {
    int tid = 0;
    pid_t pid = 0;
};

// The pipe and the alarms. The handler on the pipe shares it with the manager, so that a dispatch which is
// under way in another thread when the process exits still finds them.
struct Table {
    Table() : owner{thread::self(), detail::process_id()}, pipe(false), lock(lock_of(this)) {}
    [[gnu::cold]] ~Table() {
        clear();
        close();
        clear();
    }

    // The entry is the table's when this has returned.
    id_t add(EntryUse& made, unsigned long initialMs, unsigned long recurringMs) ZEL_REQUIRES(lock);
    // An alarm that fires once leaves its identifier to another one, after the counter has wrapped, while the
    // Alarm that set it may go on being reset for years. The serial tells the two apart; 0 stands for any.
    Entry* find(id_t id, std::uint64_t serial) const ZEL_REQUIRES(lock) {
        Entry* const found = alarms.find(id);
        return found && (serial == 0 || found->serial == serial) ? found : nullptr;
    }
    bool reset(id_t id, std::uint64_t serial, unsigned long timeoutMs) ZEL_REQUIRES(lock);
    // For an unload: forgets all alarms, and destroys them.
    void close();
    void clear();

    Owner const owner; // whose alarms these are: a child of fork() does not serve its parent's
    os::Pipe pipe;
    // Guards the table and what its entries hold except the handlers: one thread may set an alarm while
    // another runs the loop. Only the timers' own lock is taken under it. No entry may be destroyed under it,
    // since a timer waits for its callback, and what a handler holds may call back into the library.
    TableLock& lock;
    detail::IdTable<Entry> alarms ZEL_GUARDED_BY(lock);
    detail::IdTable<Entry> forgotten ZEL_GUARDED_BY(lock);
    std::uint64_t serials ZEL_GUARDED_BY(lock) = 0;
    bool closed ZEL_GUARDED_BY(lock) = false; // but for who holds the manager
};

} // namespace orn::zel::alarm

#endif
