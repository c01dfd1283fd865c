// SPDX-License-Identifier: MIT
//
// A timer's way to its handler: its callback writes the alarm's identifier into the manager's pipe, and the
// loop reads it there and calls the handler. The clock itself is the platform's.
#include <orn/zel/alarm.hpp>

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>

#include <sys/time.h>

#include <orn/clock.hpp>
#include <orn/log.h>
#include <orn/zel/threadGroup.hpp>

#include "alarmTable.hpp"
#include "fork.hpp"
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

} // namespace

void process_to_fd(unsigned long id, int fd) {
    // Identifiers travel as 32 bits, whatever the width of long. A timer has nobody to tell of a failure.
    detail::write_word(fd, static_cast<std::uint32_t>(id));
}

[[gnu::cold]] os::Timer* CreateTimer(boost::function<void(os::Timer*)> callback) {
    return new os::Timer(callback);
}

// ---- Calls from outside and from the loop ----------------------------------------------------------------

namespace {

EntryUse make_entry(Handler&& handler, unsigned long recurringMs) {
    if (handler.empty())
        throw Exception("NULL handler");
    return EntryUse(new Entry(std::move(handler), recurringMs == 0));
}

unsigned const kept = ~0u; // the number of no unload: the caller holds the table's manager

// Asked with the lock of the table held, which then keeps the table: an unload closes the tables, each under
// its lock, is counted, and takes the lock once more before it destroys the table. So a table that does not
// stand has no alarms either.
bool stands(Home const& home) {
    return home.table && (home.unloads == kept || home.unloads == Managers::unloads());
}

// Logs a call from a thread of another group than the one that serves the alarm.
void note_caller(char const* function, id_t id, Owner const& owner) {
    if (Log_Enabled(logSpecForceInfo) == 0)
        return;
    int const caller = thread::self();
    if (caller == owner.tid || owner.tid == 0 || detail::process_id() != owner.pid)
        return;
    // Nobody serves the alarms of a thread that has ended, so any thread may cancel them.
    if (!thread::Registry::fd_manager_if_any(owner.tid))
        return;
    boost::shared_ptr<thread::Group> const group = thread::Registry::group_if_any();
    if (group && group->Threads().count(owner.tid) != 0)
        return;
    Log_SpecEntry(logSpecForceInfo, "src/alarm", __LINE__,
                  "%s: alarm %lu belongs to thread %d, and thread %d is of another group", function, id,
                  owner.tid, caller);
}

// Returns 0 when the table has gone. Enters the serial. The analysis does not know that what lock_of()
// returns is the lock of the table.
id_t add(Home& home, EntryUse& made, unsigned long initialMs, unsigned long recurringMs) ZEL_NO_ANALYSIS {
    id_t id;
    {
        Guard const guard(lock_of(home.table));
        if (!stands(home) || (home.table->closed && home.unloads != kept))
            return 0;
        id = home.table->add(made, initialMs, recurringMs);
        home.serial = home.table->serials;
    }
    detail::alarm_observer.report([&](detail::PlainText& line) {
        line << "alarm created: id=" << id << " initial=" << initialMs << " recurring=" << recurringMs;
    });
    return id;
}

void reset(Home const& home, id_t id, unsigned long timeoutMs) ZEL_NO_ANALYSIS {
    Owner owner;
    bool found = false;
    {
        Guard const guard(lock_of(home.table));
        if (stands(home)) {
            owner = home.table->owner;
            found = home.table->reset(id, home.serial, timeoutMs);
        }
    }
    note_caller("ResetAlarm", id, owner);
    if (found) {
        detail::alarm_observer.report(
            [&](detail::PlainText& line) { line << "alarm created: id=" << id << " timeout=" << timeoutMs; });
    }
}

void remove(Home const& home, id_t id) ZEL_NO_ANALYSIS {
    Owner owner;
    EntryUse removed;
    {
        Guard const guard(lock_of(home.table));
        if (stands(home)) {
            owner = home.table->owner;
            if (home.table->find(id, home.serial))
                removed.reset(home.table->alarms.take(id));
        }
    }
    if (removed)
        removed->timer.reset(); // now: a handler that is running may keep the entry for longer
    note_caller("DeleteAlarm", id, owner);
    // An unload may have taken the alarm away, but its end is told all the same.
    detail::alarm_observer.report([id](detail::PlainText& line) { line << "alarm deleted: id=" << id; });
}

void drain(Table& table, fd::Event* event) {
    detail::QueuedWords queued(*event);
    detail::LoopRecord& record = detail::LoopRecord::current();
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
            Guard const guard(table.lock);
            due.reset(table.alarms.find(word));
            if (!due)
                continue; // deleted, or fired, after its timer had written
            last = due->one_shot;
            if (last)
                table.alarms.take(word);
            else
                ++due->users;
            ++due->fired;
            came_ns = due->expiry.noted() ? due->take_arrival() : 0;
        }
        detail::alarm_observer.report([id](detail::PlainText& line) { line << "ALARM: id=" << id; });
        if (last)
            due->timer.reset();
        // No lock may be held here: a handler may add, reset and delete alarms, its own included.
        detail::LoopRecord::Callback<detail::Doing::alarm> callback(record);
        callback.next(word, came_ns);
        due->handler();
    }
}

} // namespace

// ---- Manager --------------------------------------------------------------------------------------------

[[gnu::cold]] Manager::Manager()
    : id_(detail::draw_id()), table_(detail::make_shared<Table>()), monitor_(Fd(table_->pipe.ReadFD())),
      receptor_(*monitor_, [table = table_](fd::Event* event) { drain(*table, event); }) {}

Manager::~Manager() = default;

id_t Manager::AddAlarm(unsigned long initialMs, unsigned long recurringMs, Handler handler) {
    EntryUse made = make_entry(std::move(handler), recurringMs);
    Home home{table(), kept};
    return add(home, made, initialMs, recurringMs);
}

void Manager::ResetAlarm(id_t id, unsigned long timeoutMs) {
    reset(Home{table(), kept}, id, timeoutMs);
}

void Manager::DeleteAlarm(id_t id) {
    remove(Home{table(), kept}, id);
}

void Manager::fd_handler(fd::Event* event) {
    drain(*table_, event);
}

[[gnu::cold]] void Manager::tell(int tid, detail::Answer& answer) const {
    struct Copy {
        id_t id;
        std::uint64_t left_ms;
        unsigned long period_ms;
        unsigned long fired;
    };
    std::vector<Copy> copies; // so that the loop does not wait for the lock while the text is composed
    {
        std::uint64_t const now_ms = internal::now_ns() / ns_per_ms;
        Guard const guard(table_->lock);
        copies.reserve(table_->alarms.size());
        table_->alarms.each([&](id_t id, Entry const& alarm) {
            copies.push_back(Copy{id, alarm.left_ms(now_ms), alarm.period_ms, alarm.fired});
        });
    }
    for (Copy const& alarm : copies) {
        detail::Json& object = answer.begin();
        object.field("alarm", alarm.id).field("thread", tid).field("due_in_ms", alarm.left_ms);
        object.field("period_ms", alarm.period_ms).field("fired", alarm.fired);
        answer.end();
    }
}

[[gnu::cold]] void tell_alarms(detail::Answer& answer) {
    managers.each([&](Manager const& manager, int tid) { manager.tell(tid, answer); });
}

[[gnu::cold]] unsigned long Manager::size() const {
    Guard const guard(table_->lock);
    return table_->alarms.size();
}

[[gnu::cold]] boost::shared_ptr<Manager> manager() {
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
    // Who holds a manager still has one that works, but without the alarms of before.
    if (auto const gone = managers.unload([](Manager& manager) { manager.table()->close(); })) {
        for (auto const& item : *gone) {
            if (item.second)
                item.second->table()->clear();
        }
    }
    // Read under the lock, because a thread that asks for its manager meanwhile brings the map back.
    AutoLock const guard(Managers::lock());
    if (!managerMap)
        managerMutex = nullptr;
}

// ---- Alarm ----------------------------------------------------------------------------------------------

namespace {

// Adds an alarm of the calling thread. Returns where it is, and in id which it is.
[[gnu::cold]] Home add_anew(EntryUse& made, unsigned long initialMs, unsigned long recurringMs, id_t& id) {
    Home home;
    do {
        home.unloads = Managers::unloads(); // first, so that add() sees an unload that comes after it
        boost::shared_ptr<Manager> const here = manager();
        home.table = here->table();
        id = add(home, made, initialMs, recurringMs);
    } while (id == 0);
    if (thread::Registry::Note* const note = thread::Registry::note())
        *note = {home.table, home.unloads};
    return home;
}

// The same for a thread that may remember where its alarms are.
Home add_here(unsigned long initialMs, unsigned long recurringMs, Handler&& handler, id_t& id) {
    EntryUse made = make_entry(std::move(handler), recurringMs);
    if (thread::Registry::Note const* const note = thread::Registry::note()) {
        Home home{static_cast<Table*>(note->object), note->age};
        id = add(home, made, initialMs, recurringMs);
        if (id != 0)
            return home;
    }
    return add_anew(made, initialMs, recurringMs, id);
}

} // namespace

AlarmImpl::~AlarmImpl() {
    Cancel();
}

void AlarmImpl::Set(unsigned long initialMs, unsigned long recurringMs, Handler&& handler) {
    home_ = add_here(initialMs, recurringMs, std::move(handler), id);
}

void AlarmImpl::Reset(unsigned long timeoutMs) {
    if (id != 0)
        reset(home_, id, timeoutMs);
}

void AlarmImpl::Cancel() {
    if (id != 0)
        remove(home_, id);
    id = 0;
}

} // namespace alarm

Alarm::Alarm(unsigned long initialMs, unsigned long recurringMs, alarm::Handler handler)
    : impl_(new alarm::AlarmImpl) {
    impl_->Set(initialMs, recurringMs, std::move(handler));
}

Alarm::Alarm(unsigned long initialMs, alarm::Handler handler) : impl_(new alarm::AlarmImpl) {
    impl_->Set(initialMs, 0, std::move(handler));
}

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
    id_t id;
    alarm::add_here(ms, 0, std::move(handler), id);
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
    std::uint64_t const left = static_cast<std::uint64_t>(old.it_value.tv_sec) * 1000 +
                               static_cast<std::uint64_t>(old.it_value.tv_usec) / 1000;
    if (left != 0)
        return static_cast<unsigned>(std::min<std::uint64_t>(left, UINT_MAX));
    return old.it_value.tv_usec > 0 ? 1 : 0;
}
