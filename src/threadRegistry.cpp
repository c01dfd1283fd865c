// SPDX-License-Identifier: MIT
//
// The thread records: how they are made and looked up, and how they go when a thread ends or the library is
// taken down.
#include "threadRegistry.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>

#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fixedLine.hpp"
#include "fork.hpp"
#include "immortal.hpp"
#include "loopRecord.hpp"
#include "shared.hpp"
#include "shutdown.hpp"

namespace orn::zel {
namespace thread {

namespace {

struct RegistryLock;

StaticStuff* the_stuff ZEL_GUARDED_BY(Registry::lock()) = nullptr;

// ---- The end of a thread that was not made through the thread layer -------------------------------------

// The thread-specific key whose destructor drops the record. Its value is the thread's id, so that a child of
// fork(), whose thread has another id, does not take its parent's claim for its own. Lives as long as the
// registry.
int const no_key = -1;
std::atomic<int> end_key(no_key);
std::atomic<int> threads_at_end(0); // inside of the destructor

// The C library calls this in any order with the destructors of other keys. When one of those uses the
// library again, the value is set anew and this is called once more. It finds no record when the thread's
// cleanup hook has run. The main thread keeps its record: it may end before others of its group, and what it
// has registered goes on being served.
extern "C" void end_of_thread(void*) {
    ++threads_at_end;
    if (self() != getpid())
        Registry::drop();
    --threads_at_end;
}

void make_end_key() {
    pthread_key_t key;
    // Without a key, of which a process has about a thousand, the records of such threads stay.
    if (pthread_key_create(&key, end_of_thread) == 0)
        end_key = static_cast<int>(key);
}

// Waits for the threads that are inside of end_of_thread() before its code is unmapped: they have a few
// instructions to go, and wait for nobody themselves. To yield would not let them get on: one at a real-time
// priority yields to no lower one, for ever where there is one processor. A thread that the C library is just
// about to send there cannot be seen, so no thread may be ending while the library is closed.
void delete_end_key(int key) {
    if (key != no_key)
        pthread_key_delete(static_cast<pthread_key_t>(key));
    while (detail::Shutdown::unmapping() && threads_at_end > 0)
        poll(nullptr, 0, 1);
}

// ---- What a thread remembers of its record --------------------------------------------------------------

// Counts the ends of records, and the changes that a program makes to them. Whatever it says to a thread
// about its own record, that thread has brought about itself.
std::atomic<unsigned> era(0);

// Neither constructed nor destroyed: a destructor of a thread's own object would keep the library mapped.
thread_local detail::ThisThread this_thread;

// Not inline, because the compiler would look for it at each use, to save a register.
[[gnu::noinline]] detail::ThisThread& find_this_thread() {
    return this_thread;
}

void* as_value(int tid) {
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(tid));
}

} // namespace

int self() {
    return orn_zel_pthread_self();
}

// ---- Registry -------------------------------------------------------------------------------------------

ThreadMutex& Registry::lock() {
    return detail::immortal<ThreadMutex, RegistryLock>();
}

StaticStuff& Registry::stuff() {
    if (!the_stuff) {
        the_stuff = new StaticStuff;
        make_end_key();
    }
    return *the_stuff;
}

// The analysis does not know that lock() and the map's lock_ are the same lock.
std::map<int, Associations>& Registry::records() ZEL_NO_ANALYSIS {
    return stuff().map().entries_;
}

Associations* Registry::record_if_any(int tid) {
    if (!the_stuff)
        return nullptr;
    auto const it = records().find(tid);
    return it == records().end() ? nullptr : &it->second;
}

Associations& Registry::RecordOf::get() const {
    return record_ ? *record_ : records()[tid_];
}

void Registry::load() {
    AutoLock const guard(lock());
    stuff();
}

void Registry::unload() {
    if (detail::Shutdown::keeps())
        return;
    // Destroyed on return, when the lock is released: it holds groups and managers.
    std::unique_ptr<StaticStuff> doomed;
    int key;
    {
        AutoLock const guard(lock());
        doomed.reset(the_stuff);
        the_stuff = nullptr;
        ++era;
        key = end_key.exchange(no_key);
    }
    delete_end_key(key);
}

Map* Registry::map() {
    AutoLock const guard(lock());
    return &stuff().map();
}

boost::shared_ptr<Group> Registry::group(RecordOf const& record) {
    {
        AutoLock const guard(lock());
        Associations const& found = record.get();
        if (found.group_)
            return found.group_;
    }
    // The lock must not be held here: making a group opens descriptors and writes to the log.
    boost::shared_ptr<Group> made = detail::make_shared<Group>();
    {
        AutoLock const guard(lock());
        Associations& found = record.get();
        if (found.group_)
            return found.group_;
        found.group_ = made;
    }
    made->insert(self());
    // No lock is held here: in a child of fork() the hook has the command channel watch its signal anew, and
    // so comes back here.
    detail::run_child_hook();
    return made;
}

boost::shared_ptr<fd::Manager> Registry::fd_manager(RecordOf const& record) {
    {
        AutoLock const guard(lock());
        Associations const& found = record.get();
        if (found.fd_manager_)
            return found.fd_manager_;
    }
    // The lock must not be held here: making a manager writes to the log.
    boost::shared_ptr<fd::Manager> const made = detail::make_shared<fd::Manager>();
    AutoLock const guard(lock());
    Associations& found = record.get();
    if (!found.fd_manager_)
        found.fd_manager_ = made;
    return found.fd_manager_;
}

void Registry::associate(RecordOf const& record, boost::shared_ptr<Group> const& group) {
    detail::check(group.get() != nullptr, "group", "src/threadGroup", detail::line_of_missing_group);
    boost::shared_ptr<Group> left; // may be destroyed on return, when no lock is held
    {
        AutoLock const guard(lock());
        left = record.get().group_;
    }
    if (left)
        left->erase(self());
    bool watches;
    {
        AutoLock const guard(lock());
        Associations& found = record.get();
        found.group_ = group;
        watches = found.fd_manager_.get() != nullptr;
    }
    group->admit(self(), watches);
}

boost::shared_ptr<Group> Registry::group_if_any() {
    int const tid = self();
    AutoLock const guard(lock());
    Associations const* const found = record_if_any(tid);
    return found ? found->group_ : boost::shared_ptr<Group>();
}

boost::shared_ptr<fd::Manager> Registry::fd_manager_if_any(int tid) {
    AutoLock const guard(lock());
    Associations const* const found = record_if_any(tid);
    return found ? found->fd_manager_ : boost::shared_ptr<fd::Manager>();
}

detail::ThisThread& Registry::here() {
    detail::ThisThread& known = find_this_thread();
    int const tid = self();
    unsigned const now = era; // comes first: what changes while the thread asks has it asked again
    if (known.tid != tid || known.era != now) {
        known.tid = tid;
        known.era = now;
        known.fd_manager = 0;
        known.note = {};
        known.record = nullptr;
    }
    return known;
}

boost::shared_ptr<Group> Registry::group(detail::ThisThread& here) {
    if (here.record) {
        AutoLock const guard(lock());
        // Look again now: an unload in another thread counts itself under the lock before it destroys the
        // record.
        if (here.era == era && here.record->group_)
            return here.record->group_;
    }
    int const tid = claim();
    boost::shared_ptr<Group> found = group(tid);
    AutoLock const guard(lock());
    here.record = record_if_any(tid);
    return found;
}

id_t Registry::remembered_fd_manager_id() {
    return here().fd_manager;
}

Registry::Note* Registry::note() {
    detail::ThisThread& known = here();
    return known.fd_manager != 0 ? &known.note : nullptr;
}

id_t Registry::fd_manager_id() {
    detail::ThisThread& known = here();
    if (known.fd_manager == 0)
        known.fd_manager = fd_manager(claim())->id().value();
    return known.fd_manager;
}

int Registry::claim() {
    int const tid = self();
    int const key = end_key;
    if (key == no_key || pthread_getspecific(static_cast<pthread_key_t>(key)) != as_value(tid))
        make_claim(tid);
    return tid;
}

void Registry::make_claim(int tid) {
    int key = no_key;
    bool inherited = false;
    {
        AutoLock const guard(lock());
        stuff();
        key = end_key;
        // A record with a group was left behind by another thread with the same id. One without a group was
        // made for this thread beforehand, by FdMgr(tid) in another.
        Associations const* const found = record_if_any(tid);
        inherited = key != no_key && found && found->group_;
    }
    if (inherited)
        drop();
    if (key != no_key)
        pthread_setspecific(static_cast<pthread_key_t>(key), as_value(tid));
}

void Registry::drop() {
    int const tid = self();
    std::map<int, Associations>::node_type dropped; // destroyed on return, when the lock is released
    {
        AutoLock const guard(lock());
        if (the_stuff)
            dropped = records().extract(tid);
    }
    if (dropped && dropped.mapped().group_)
        dropped.mapped().group_->erase(tid);
}

std::vector<Registry::Entry> Registry::entries() {
    std::vector<Entry> all;
    AutoLock const guard(lock());
    for (auto const& item : records())
        all.push_back(Entry{item.first, item.second.group_, item.second.fd_manager_});
    return all;
}

[[gnu::cold]] std::vector<Registry::Entry> Registry::living() {
    std::vector<Entry> all = entries();
    auto const gone = [](Entry const& entry) {
        return syscall(SYS_tgkill, detail::process_id(), entry.tid, 0) == -1 && errno == ESRCH;
    };
    if (detail::forked())
        all.erase(std::remove_if(all.begin(), all.end(), gone), all.end());
    return all;
}

int Registry::thread_of(std::vector<Entry> const& entries, id_t fd_manager) {
    int tid = 0;
    for (Entry const& entry : entries) {
        if (entry.fd_manager && entry.fd_manager->id().value() == fd_manager)
            tid = entry.tid; // of several that share it, the last one
    }
    return tid;
}

// ---- Public functions -----------------------------------------------------------------------------------

Associations& Associations::operator=(Associations const& other) {
    group_ = other.group_;
    ++era; // comes first, because what the old manager held may use the library when it is destroyed
    fd_manager_ = other.fd_manager_;
    return *this;
}

Associations::~Associations() {
    ++era;
}

boost::shared_ptr<Group> Associations::GetGroup() {
    return Registry::group(*this);
}

boost::shared_ptr<fd::Manager> Associations::GetFdMgr() {
    return Registry::fd_manager(*this);
}

void Associations::Associate(boost::shared_ptr<Group> group) {
    Registry::associate(*this, group);
}

void Associations::NewGroup() {
    // Made before the old group is left, so that a failure changes nothing.
    Registry::associate(*this, detail::make_shared<Group>());
}

Map::Map() : ThreadMap<Associations, Associations&>(Registry::lock()) {}
Map::~Map() = default;

Associations& Map::operator[](int tid) {
    AutoLock const guard(lock_);
    return entry(tid);
}

boost::shared_ptr<Group> ThisGroup() {
    return Registry::group(Registry::here());
}

boost::shared_ptr<fd::Manager> FdMgr() {
    return Registry::fd_manager(Registry::claim());
}

boost::shared_ptr<fd::Manager> FdMgr(int tid) {
    if (tid == self())
        Registry::claim();
    return Registry::fd_manager(tid);
}

Associations& This() {
    Registry::claim();
    return TheThreadMap()->This();
}

// ---- The thread layer's hooks ---------------------------------------------------------------------------

o_pthread_extension::o_pthread_extension() {
    ThreadExtensionRecord const record = {0xDEAD, ZEL_Thread_create_extension, ZEL_Thread_start_extension,
                                          nullptr, ZEL_Thread_cleanup_extension};
    // Registering the same hooks again, after an unload, adds nothing.
    o_pthread_register_extension(&record);
}

o_pthread_extension::~o_pthread_extension() = default;
StaticStuff::StaticStuff() = default;
StaticStuff::~StaticStuff() = default;

void zel_thread_load() {
    Registry::load();
}

void zel_thread_unload() {
    Registry::unload();
}

} // namespace thread

detail::LoopRecord*& detail::LoopRecord::running() {
    return thread::find_this_thread().running;
}

thread::Map* TheThreadMap() {
    return thread::Registry::map();
}

} // namespace orn::zel

void* ZEL_Thread_create_extension() {
    using namespace orn::zel::thread;
    std::unique_ptr<InheritRecord> record(new InheritRecord{self(), ThisGroup()});
    display_thread_op("create (this is the parent)");
    return record.release();
}

int ZEL_Thread_start_extension(void* record) {
    using namespace orn::zel::thread;
    std::unique_ptr<InheritRecord> const inherited(static_cast<InheritRecord*>(record));
    display_thread_op("start");
    Registry::drop(); // what another thread with this id may have left behind
    Registry::associate(Registry::claim(), inherited->group);
    return 0;
}

int ZEL_Thread_cleanup_extension() {
    using namespace orn::zel::thread;
    display_thread_op("cleanup");
    ThisGroup(); // makes what is missing, so that every thread has a group to leave
    Registry::drop();
    return 0;
}
