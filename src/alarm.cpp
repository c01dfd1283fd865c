// SPDX-License-Identifier: MIT
//
// A timer's way to its handler: its callback writes the alarm's identifier into the manager's pipe, and the
// loop reads it there and calls the handler. The clock itself is the platform's.
#include <orn/zel/alarm.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

#include <sys/time.h>

#include <orn/clock.hpp>
#include <orn/log.h>
#include <orn/zel/threadGroup.hpp>

#include "fork.hpp"
#include "idTable.hpp"
#include "inspect.hpp"
#include "loopRecord.hpp"
#include "observer.hpp"
#include "perThread.hpp"
#include "shared.hpp"
#include "threadRegistry.hpp"
#include "wordPipe.hpp"

namespace orn::zel {
namespace alarm {

std::map<unsigned long, boost::shared_ptr<Manager>>* managerMap = nullptr;
ThreadMutex* managerMutex = nullptr;

namespace {

using Managers = detail::PerThread<Manager>;

Managers managers(managerMap);

[[gnu::cold]] void report_deleted(id_t id) {
    detail::alarm_observer.report([id](detail::PlainText& line) { line << "alarm deleted: id=" << id; });
}

} // namespace

void process_to_fd(unsigned long id, int fd) {
    // Identifiers travel as 32 bits, whatever the width of long. A timer has nobody to tell of a failure.
    detail::write_word(fd, static_cast<std::uint32_t>(id));
}

[[gnu::cold]] os::Timer* CreateTimer(boost::function<void(os::Timer*)> callback) {
    return new os::Timer(callback);
}

// ---- Manager --------------------------------------------------------------------------------------------

namespace {

std::uint64_t const ns_per_ms = 1000000;

// An alarm with its timer and a small handler in one piece of memory.
struct Entry : TimerBlob {
    Entry(Handler&& called, bool once) : TimerBlob{std::nullopt, std::move(called), once} {}

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

} // namespace

struct Manager::Table {
    Table() : pipe(false) {}
    ~Table() {
        alarms.clear([](Entry& entry) { Release()(&entry); });
    }

    os::Pipe pipe;
    // Guards the table and what its entries hold except the handlers: one thread may set an alarm while
    // another runs the loop. Only the timers' own lock is taken under it. No entry may be destroyed under it,
    // since a timer waits for its callback, and what a handler holds may call back into the library.
    ThreadMutex lock;
    // A hundred thousand may be outstanding, and any of them may go at any time.
    detail::IdTable<Entry> alarms ZEL_GUARDED_BY(lock);
};

[[gnu::cold]] Manager::Manager()
    : id_(detail::draw_id()), tid_(thread::self()), pid_(detail::process_id()),
      table_(detail::make_shared<Table>()), monitor_(Fd(table_->pipe.ReadFD())),
      receptor_(*monitor_, [table = table_](fd::Event* event) { drain(*table, event); }) {}

Manager::~Manager() = default;

void Manager::note_caller(char const* function, id_t id) const {
    int const caller = thread::self();
    if (caller == tid_ || detail::process_id() != pid_)
        return;
    // Nobody serves the alarms of a thread that has ended, so any thread may cancel them.
    if (!thread::Registry::fd_manager_if_any(tid_))
        return;
    boost::shared_ptr<thread::Group> const group = thread::Registry::group_if_any();
    if (group && group->Threads().count(tid_) != 0)
        return;
    Log_SpecEntry(logSpecForceInfo, "src/alarm", __LINE__,
                  "%s: alarm %lu belongs to thread %d, and thread %d is of another group", function, id, tid_,
                  caller);
}

id_t Manager::AddAlarm(unsigned long initialMs, unsigned long recurringMs, Handler handler) {
    if (handler.empty())
        throw Exception("NULL handler");
    EntryUse made(new Entry(std::move(handler), recurringMs == 0));
    id_t id;
    {
        AutoLock const guard(table_->lock);
        // After the counter has wrapped, skip identifiers that older alarms still use.
        do
            id = detail::draw_id();
        while (!table_->alarms.insert(id, *made));
        try {
            made->timer.emplace([id, fd = table_->pipe.WriteFD(), &expiry = made->expiry](os::Timer*) {
                expiry.note();
                process_to_fd(id, fd);
            });
            made->armed(initialMs, recurringMs);
            made->timer->Set(initialMs, recurringMs);
        } catch (...) {
            table_->alarms.erase(id);
            throw;
        }
        static_cast<void>(made.release()); // the table's from here on
    }
    detail::alarm_observer.report([&](detail::PlainText& line) {
        line << "alarm created: id=" << id << " initial=" << initialMs << " recurring=" << recurringMs;
    });
    return id;
}

void Manager::ResetAlarm(id_t id, unsigned long timeoutMs) {
    note_caller("ResetAlarm", id);
    {
        AutoLock const guard(table_->lock);
        Entry* const found = table_->alarms.find(id);
        if (!found)
            return;
        found->one_shot = true;
        found->armed(timeoutMs, 0);
        found->timer->Set(timeoutMs, 0);
    }
    detail::alarm_observer.report(
        [&](detail::PlainText& line) { line << "alarm created: id=" << id << " timeout=" << timeoutMs; });
}

void Manager::DeleteAlarm(id_t id) {
    note_caller("DeleteAlarm", id);
    EntryUse deleted;
    {
        AutoLock const guard(table_->lock);
        deleted.reset(table_->alarms.find(id));
        table_->alarms.erase(id);
    }
    if (deleted)
        deleted->timer.reset(); // now: a handler that is running may keep the entry for longer
    report_deleted(id);
}

void Manager::fd_handler(fd::Event* event) {
    drain(*table_, event);
}

void Manager::drain(Table& table, fd::Event* event) {
    detail::QueuedWords queued(*event);
    detail::LoopRecord* const record = detail::LoopRecord::current();
    std::uint32_t word;
    while (queued.next(word)) {
        id_t const id = word;
        // The handler is called in its entry, not copied, and the entry is kept until the handler returns: it
        // may be running further up the stack as well, when it has reset its own alarm and waits for it in a
        // nested turn.
        EntryUse due;
        bool last;
        std::uint64_t came_ns;
        {
            AutoLock const guard(table.lock);
            due.reset(table.alarms.find(word));
            if (!due)
                continue; // deleted, or fired, after its timer had written
            last = due->one_shot;
            if (last)
                table.alarms.erase(word);
            else
                ++due->users;
            ++due->fired;
            came_ns = due->expiry.noted() ? due->take_arrival() : 0;
        }
        detail::alarm_observer.report([id](detail::PlainText& line) { line << "ALARM: id=" << id; });
        if (last)
            due->timer.reset();
        // No lock may be held here: a handler may add, reset and delete alarms, its own included.
        detail::LoopRecord::Callback const callback(record, detail::Doing::alarm, word, came_ns);
        due->handler();
    }
}

[[gnu::cold]] void Manager::tell(detail::Answer& answer) const {
    struct Copy {
        id_t id;
        std::uint64_t left_ms;
        unsigned long period_ms;
        unsigned long fired;
    };
    std::vector<Copy> copies; // so that the loop does not wait for the lock while the text is composed
    {
        std::uint64_t const now_ms = internal::now_ns() / ns_per_ms;
        AutoLock const guard(table_->lock);
        copies.reserve(table_->alarms.size());
        table_->alarms.each([&](id_t id, Entry const& alarm) {
            copies.push_back(Copy{id, alarm.left_ms(now_ms), alarm.period_ms, alarm.fired});
        });
    }
    for (Copy const& alarm : copies) {
        detail::Json& object = answer.begin();
        object.field("alarm", alarm.id).field("thread", tid_).field("due_in_ms", alarm.left_ms);
        object.field("period_ms", alarm.period_ms).field("fired", alarm.fired);
        answer.end();
    }
}

[[gnu::cold]] void tell_alarms(detail::Answer& answer) {
    managers.each([&](Manager const& manager, int) { manager.tell(answer); });
}

[[gnu::cold]] unsigned long Manager::size() const {
    AutoLock const guard(table_->lock);
    return table_->alarms.size();
}

boost::shared_ptr<Manager> manager() {
    return managers.get();
}

[[gnu::cold]] void Monitor(std::string const&, int fd) {
    detail::alarm_observer.watch(fd);
}

[[gnu::cold]] void Unmonitor(std::string const&, int) {
    detail::alarm_observer.unwatch();
}

[[gnu::cold]] void zel_alarm_load() {
    managers.load();
    AutoLock const guard(Managers::lock());
    managerMutex = &Managers::lock();
}

[[gnu::cold]] void zel_alarm_unload() {
    managers.unload();
    // Read under the lock, because a thread that asks for its manager meanwhile brings the map back.
    AutoLock const guard(Managers::lock());
    if (!managerMap)
        managerMutex = nullptr;
}

// ---- Alarm ----------------------------------------------------------------------------------------------

AlarmImpl::~AlarmImpl() {
    Cancel();
}

void AlarmImpl::Set(unsigned long initialMs, unsigned long recurringMs, Handler const& handler) {
    boost::shared_ptr<Manager> const home = manager();
    id = home->AddAlarm(initialMs, recurringMs, handler);
    home_ = home;
}

void AlarmImpl::Reset(unsigned long timeoutMs) {
    if (id == 0)
        return;
    if (boost::shared_ptr<Manager> const home = home_.lock())
        home->ResetAlarm(id, timeoutMs);
}

void AlarmImpl::Cancel() {
    if (id == 0)
        return;
    if (boost::shared_ptr<Manager> const home = home_.lock())
        home->DeleteAlarm(id);
    else
        report_deleted(id); // an unload has taken the alarm away, but its end is told all the same
    id = 0;
}

} // namespace alarm

Alarm::Alarm(unsigned long initialMs, unsigned long recurringMs, alarm::Handler handler)
    : impl_(new alarm::AlarmImpl) {
    impl_->Set(initialMs, recurringMs, handler);
}

Alarm::Alarm(unsigned long initialMs, alarm::Handler handler) : Alarm(initialMs, 0, std::move(handler)) {}

Alarm::~Alarm() {
    Cancel();
}

void Alarm::Reset(unsigned long timeoutMs) {
    impl_->Reset(timeoutMs);
}

void Alarm::Cancel() {
    impl_->Cancel();
}

void SetAlarm(unsigned long ms, alarm::Handler handler) {
    alarm::manager()->AddAlarm(ms, 0, std::move(handler));
}

[[gnu::cold]] unsigned OutstandingAlarmCount() {
    return static_cast<unsigned>(alarm::manager()->size());
}

} // namespace orn::zel

[[gnu::cold]] unsigned msec_alarm(unsigned long ms) {
    itimerval next = {};
    next.it_value.tv_sec = static_cast<time_t>(ms / 1000);
    next.it_value.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    itimerval old = {};
    if (setitimer(ITIMER_REAL, &next, &old) != 0)
        return 0;
    unsigned long const left = static_cast<unsigned long>(old.it_value.tv_sec) * 1000 +
                               static_cast<unsigned long>(old.it_value.tv_usec) / 1000;
    if (left != 0)
        return static_cast<unsigned>(left);
    return old.it_value.tv_usec > 0 ? 1 : 0;
}
