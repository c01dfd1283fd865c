// SPDX-License-Identifier: MIT
//
// The thread records and the hooks that keep them: threadGroup.hpp's registry half.
#include "threadRegistry.hpp"

#include <atomic>
#include <cstdint>
#include <memory>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <orn/zel/threadGroup.hpp>

#include "fork.hpp"
#include "immortal.hpp"
#include "shutdown.hpp"

namespace orn {
namespace zel {
namespace thread {

namespace {

struct RegistryLock;

StaticStuff* the_stuff = nullptr; // guarded by Registry::lock()

// ---- Ends of threads that were not made through the thread layer

// The thread-specific key whose destructor drops the record; its value is the thread's id, which is another
// one in a child of fork(). Lives as long as the registry.
int const no_key = -1;
std::atomic<int> end_key(no_key);
std::atomic<int> threads_at_end(0); // inside of the destructor

// Called by the C library, in any order with the destructors of other keys. These may use the library again:
// then the value is set anew, and this is called once more. A thread whose cleanup hook has run has no record
// any more. The main thread may end before others of its group: what it has registered goes on being served.
extern "C" void end_of_thread(void*) {
    ++threads_at_end;
    if (self() != getpid())
        Registry::drop();
    --threads_at_end;
}

void make_end_key() {
    pthread_key_t key;
    // Without a key, which a process has a thousand of, records of such threads stay.
    if (pthread_key_create(&key, end_of_thread) == 0)
        end_key = static_cast<int>(key);
}

// Before the code goes, threads that are inside are waited for: they have a few instructions to go, and wait
// for nobody themselves. Whoever the C library is just about to send here cannot be seen.
void delete_end_key(int key) {
    if (key != no_key)
        pthread_key_delete(static_cast<pthread_key_t>(key));
    while (detail::Shutdown::unmapping() && threads_at_end > 0)
        sched_yield();
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

Associations& Registry::record(int tid) ZEL_NO_ANALYSIS {
    return stuff().map().entry(tid);
}

Associations* Registry::record_if_any(int tid) ZEL_NO_ANALYSIS {
    if (!the_stuff)
        return nullptr;
    std::map<int, Associations>& entries = the_stuff->map().entries_;
    std::map<int, Associations>::iterator const it = entries.find(tid);
    return it == entries.end() ? nullptr : &it->second;
}

void Registry::load() {
    AutoLock const guard(lock());
    stuff();
}

void Registry::unload() {
    if (detail::Shutdown::keeps())
        return;
    std::unique_ptr<StaticStuff> doomed;
    int key;
    {
        AutoLock const guard(lock());
        doomed.reset(the_stuff);
        the_stuff = nullptr;
        key = end_key.exchange(no_key);
    }
    delete_end_key(key);
    // Destroyed with the lock released: the groups and managers that go with it must not be called under it.
}

Map* Registry::map() {
    AutoLock const guard(lock());
    return &stuff().map();
}

template <class Locate>
boost::shared_ptr<Group> Registry::find_or_make_group(Locate locate) {
    {
        AutoLock const guard(lock());
        Associations const& record = locate();
        if (record.group_)
            return record.group_;
    }
    // Made with the lock released: a group opens descriptors and writes to the log.
    boost::shared_ptr<Group> made(new Group);
    {
        AutoLock const guard(lock());
        Associations& record = locate();
        if (record.group_)
            return record.group_;
        record.group_ = made;
    }
    made->insert(self());
    detail::run_child_hook(); // the command channel's: it watches its signal in a child of fork()
    return made;
}

template <class Locate>
boost::shared_ptr<fd::Manager> Registry::find_or_make_fd_manager(Locate locate) {
    {
        AutoLock const guard(lock());
        Associations const& record = locate();
        if (record.fd_manager_)
            return record.fd_manager_;
    }
    boost::shared_ptr<fd::Manager> made(new fd::Manager);
    AutoLock const guard(lock());
    Associations& record = locate();
    if (!record.fd_manager_)
        record.fd_manager_ = made;
    return record.fd_manager_;
}

template <class Locate>
void Registry::move_to(Locate locate, boost::shared_ptr<Group> const& group) {
    detail::check(group.get() != nullptr, "group", "src/threadGroup", 140);
    boost::shared_ptr<Group> left;
    {
        AutoLock const guard(lock());
        left = locate().group_;
    }
    if (left)
        left->erase(self());
    bool watches;
    {
        AutoLock const guard(lock());
        Associations& record = locate();
        record.group_ = group;
        watches = record.fd_manager_.get() != nullptr;
    }
    group->admit(self(), watches);
    // The group that was left may be destroyed here, with no lock held.
}

boost::shared_ptr<Group> Registry::group() {
    int const tid = self();
    claim(tid);
    return find_or_make_group([tid]() ZEL_NO_ANALYSIS -> Associations& { return record(tid); });
}

boost::shared_ptr<fd::Manager> Registry::fd_manager(int tid) {
    return find_or_make_fd_manager([tid]() ZEL_NO_ANALYSIS -> Associations& { return record(tid); });
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

void Registry::associate(boost::shared_ptr<Group> const& group) {
    int const tid = self();
    claim(tid);
    move_to([tid]() ZEL_NO_ANALYSIS -> Associations& { return record(tid); }, group);
}

bool Registry::claimed(int tid) {
    int const key = end_key;
    return key != no_key && pthread_getspecific(static_cast<pthread_key_t>(key)) == as_value(tid);
}

void Registry::make_claim(int tid) ZEL_NO_ANALYSIS {
    int key = no_key;
    bool inherited = false;
    {
        AutoLock const guard(lock());
        stuff();
        key = end_key;
        // Without a group it is one that another thread has made for this one beforehand.
        Associations const* const found = record_if_any(tid);
        inherited = key != no_key && found && found->group_;
    }
    if (inherited)
        drop();
    if (key != no_key)
        pthread_setspecific(static_cast<pthread_key_t>(key), as_value(tid));
}

void Registry::drop() ZEL_NO_ANALYSIS {
    int const tid = self();
    std::map<int, Associations>::node_type dropped; // destroyed with the lock released
    {
        AutoLock const guard(lock());
        if (the_stuff)
            dropped = the_stuff->map().entries_.extract(tid);
    }
    if (dropped && dropped.mapped().group_)
        dropped.mapped().group_->erase(tid);
}

std::vector<Registry::Entry> Registry::entries() ZEL_NO_ANALYSIS {
    std::vector<Entry> all;
    AutoLock const guard(lock());
    for (auto const& item : stuff().map().entries_)
        all.push_back(Entry{item.first, item.second.group_, item.second.fd_manager_});
    return all;
}

boost::shared_ptr<Group> Registry::group_of(Associations& record) {
    return find_or_make_group([&record]() -> Associations& { return record; });
}

boost::shared_ptr<fd::Manager> Registry::fd_manager_of(Associations& record) {
    return find_or_make_fd_manager([&record]() -> Associations& { return record; });
}

void Registry::associate(Associations& record, boost::shared_ptr<Group> const& group) {
    move_to([&record]() -> Associations& { return record; }, group);
}

// ---- The public faces of it -----------------------------------------------------------------------------

boost::shared_ptr<Group> Associations::GetGroup() {
    return Registry::group_of(*this);
}

boost::shared_ptr<fd::Manager> Associations::GetFdMgr() {
    return Registry::fd_manager_of(*this);
}

void Associations::Associate(boost::shared_ptr<Group> group) {
    Registry::associate(*this, group);
}

void Associations::NewGroup() {
    // Made before the old group is left, so that a failure changes nothing.
    Registry::associate(*this, boost::shared_ptr<Group>(new Group));
}

Map::Map() : ThreadMap<Associations, Associations&>(Registry::lock()) {}
Map::~Map() = default;

Associations& Map::operator[](int tid) {
    AutoLock const guard(lock_);
    return entry(tid);
}

boost::shared_ptr<Group> ThisGroup() {
    return Registry::group();
}

boost::shared_ptr<fd::Manager> FdMgr() {
    int const tid = self();
    Registry::claim(tid);
    return Registry::fd_manager(tid);
}

boost::shared_ptr<fd::Manager> FdMgr(int tid) {
    if (tid == self())
        Registry::claim(tid);
    return Registry::fd_manager(tid);
}

Associations& This() {
    Registry::claim(self());
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

thread::Map* TheThreadMap() {
    return thread::Registry::map();
}

id_t GroupId() {
    return thread::ThisGroup()->id().value();
}

void NewThreadGroup() {
    thread::Registry::associate(boost::shared_ptr<thread::Group>(new thread::Group));
}

} // namespace zel
} // namespace orn

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
    Registry::associate(inherited->group);
    return 0;
}

int ZEL_Thread_cleanup_extension() {
    using namespace orn::zel::thread;
    display_thread_op("cleanup");
    ThisGroup(); // a thread without a record has one for this moment
    Registry::drop();
    return 0;
}
