// SPDX-License-Identifier: MIT
//
// What the library knows of each thread, namely its group and its fd manager, and the hooks that keep these
// records while threads come and go. Public. Applications use ThisGroup(), and leave the rest to hosts and to
// the library; the group itself is in threadGroup.hpp, which includes this.
#ifndef ORN_ZEL_THREADREGISTRY_HPP
#define ORN_ZEL_THREADREGISTRY_HPP

#include <map>
#include <utility>

#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>

namespace orn::zel {

namespace fd {

class Manager;

} // namespace fd

namespace thread {

class Group;
class Associations;

// The calling thread's id, the kernel's, as orn_zel_pthread_self of threadFunctions.hpp says it.
ORN_API int self();

// The calling thread's group, made on first use. Throws std::system_error when there is no descriptor left.
ORN_API boost::shared_ptr<Group> ThisGroup();

// The fd manager of the calling thread, or of any thread, made on first use.
ORN_API boost::shared_ptr<fd::Manager> FdMgr();
ORN_API boost::shared_ptr<fd::Manager> FdMgr(int tid);

// The calling thread's record, made on first use. The reference is good until the thread ends or the library
// is taken down.
ORN_API Associations& This();

// What a thread belongs to and what belongs to it. A plain value: copies share the pointees. Everything here
// concerns the calling thread: use it on that thread's own record.
class ORN_API Associations {
public:
    Associations() = default;
    Associations(Associations const&) = default;
    Associations& operator=(Associations const& other);
    ~Associations();

    // Both make what is missing.
    boost::shared_ptr<Group> GetGroup();
    boost::shared_ptr<fd::Manager> GetFdMgr();

    // Leaves the group, if any, and joins the given one, which must not be empty (assertion).
    void Associate(boost::shared_ptr<Group> group);
    // Leaves the group, if any, for a new one. When that cannot be made nothing has changed.
    void NewGroup();

private:
    friend class Registry;

    boost::shared_ptr<Group> group_;
    boost::shared_ptr<fd::Manager> fd_manager_; // declared last, to be released before the group
};

} // namespace thread

// Records by thread id, behind a lock. Add, Erase and This concern the calling thread's record.
template <class T, class R>
class ThreadMap {
public:
    // The lock must outlive the map: threads may still come for it while the process exits.
    explicit ThreadMap(ThreadMutex& lock) : lock_(lock) {}
    virtual ~ThreadMap() {}
    ThreadMap(ThreadMap const&) = delete;
    ThreadMap& operator=(ThreadMap const&) = delete;

    virtual void Add(T& value) {
        AutoLock const guard(lock_);
        entries_[thread::self()] = value;
    }

    // The record must be there.
    virtual void Erase() {
        typename std::map<int, T>::node_type erased; // destroyed last, when the lock is released
        AutoLock const guard(lock_);
        erased = entries_.extract(thread::self());
    }

    // The reference stays good until the record is erased: map nodes do not move.
    virtual R This() {
        AutoLock const guard(lock_);
        return entry(thread::self());
    }

    // What a thread without a record gets.
    virtual T construct() { return T(); }

protected:
    T& entry(int tid) ZEL_REQUIRES(lock_) {
        auto it = entries_.lower_bound(tid);
        if (it == entries_.end() || it->first != tid)
            it = entries_.insert(it, std::make_pair(tid, construct()));
        return it->second;
    }

    ThreadMutex& lock_;
    std::map<int, T> entries_ ZEL_GUARDED_BY(lock_);
};

namespace thread {

class ORN_API Map : public ThreadMap<Associations, Associations&> {
public:
    Map();
    ~Map() override;
    // The record of any thread, made when it is missing.
    Associations& operator[](int tid);

private:
    friend class Registry;
};

// Registers the three hooks below with the thread layer.
class ORN_API o_pthread_extension {
public:
    o_pthread_extension();
    virtual ~o_pthread_extension();
};

// The one registry: made at load or on first use, destroyed at unload.
class ORN_API StaticStuff : public o_pthread_extension {
public:
    StaticStuff();
    ~StaticStuff() override;
    Map& map() { return map_; }

private:
    Map map_;
};

// What o_pthread_register_extension() takes: five words of pointer size.
struct ThreadExtensionRecord {
    unsigned long magic; // 0xDEAD
    void* (*create)();
    int (*start)(void*);
    void* reserved;
    int (*cleanup)();
};

// What the create hook hands to the start hook, which deletes it.
struct InheritRecord {
    int creatorTid;
    boost::shared_ptr<Group> group;
};

ORN_API void zel_thread_load();
ORN_API void zel_thread_unload();

} // namespace thread

// The map of the one registry, which is made when there is none.
ORN_API thread::Map* TheThreadMap();

} // namespace orn::zel

extern "C" {
// Runs in the creating thread; the result, an InheritRecord, goes to the start hook.
ORN_API void* ZEL_Thread_create_extension();
// Runs first in the new thread, which joins its creator's group.
ORN_API int ZEL_Thread_start_extension(void* record);
// Runs last in the ending thread, which leaves its group and gives up its record.
ORN_API int ZEL_Thread_cleanup_extension();
}

#endif
