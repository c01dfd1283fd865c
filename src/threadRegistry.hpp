// SPDX-License-Identifier: MIT
//
// Access to the thread records for the library's own code. Internal; the records themselves are public, in
// <orn/zel/threadRegistry.hpp>. Each call locks the registry, copies the shared pointers that it needs and
// unlocks. Do not use thread::This() inside the library: exit() in another thread may destroy the record
// behind its reference.
#ifndef ZEL_SRC_THREADREGISTRY_HPP
#define ZEL_SRC_THREADREGISTRY_HPP

#include <map>
#include <vector>

#include <orn/zel/threadGroup.hpp>
#include <orn/zel/threadRegistry.hpp>

namespace orn::zel {
namespace detail {

// What is kept for each thread besides its record, in one place, because to find a thread's own data costs
// more than to use them.
struct ThisThread {
    // Whose the next four are: a child of fork() has another thread id.
    int tid;
    // As of when: see Registry::here().
    unsigned era;
    // The identifier of its fd manager; 0 while it has not asked for that.
    id_t fd_manager;
    // Where it may keep in mind what belongs to its fd manager. Empty at first, and again when the thread has
    // got another one.
    struct Note {
        void* object;
        unsigned age;
    } note;
    // Its record, for Registry::group(); null while it has not asked for its group.
    thread::Associations* record;

    // The record of the innermost turn of a loop that is on its stack; null outside of a turn.
    LoopRecord* running;
};

} // namespace detail

namespace thread {

class Registry {
public:
    // Guards the pointer to the one StaticStuff, its map and every record in the map. Nothing is called with
    // it held but the thread layer, to register the hooks.
    static ThreadMutex& lock();

    static void load();
    static void unload();
    static Map* map();

    // Says which record is meant: that of a thread, or one that the caller holds and that may be in no map.
    // The record of a thread is looked up at each use, because it may have gone since the last one.
    class RecordOf {
    public:
        RecordOf(int tid) : record_(nullptr), tid_(tid) {}
        RecordOf(Associations& record) : record_(&record), tid_(0) {}
        // Makes the thread's record when it is missing.
        Associations& get() const ZEL_REQUIRES(Registry::lock());

    private:
        Associations* record_;
        int tid_;
    };

    // Both make what is missing.
    static boost::shared_ptr<Group> group(RecordOf const& record);
    static boost::shared_ptr<fd::Manager> fd_manager(RecordOf const& record);
    // Moves the calling thread, whose record it is, from its group, if any, to the given one.
    static void associate(RecordOf const& record, boost::shared_ptr<Group> const& group);

    // The calling thread's. here() returns what is kept for it, and has forgotten what may have changed.
    // group() makes what is missing, and looks nothing up when the thread has asked before.
    static detail::ThisThread& here();
    static boost::shared_ptr<Group> group(detail::ThisThread& here);

    // The group of the calling thread, and the fd manager of any thread. Empty where there is none. Neither
    // makes a record.
    static boost::shared_ptr<Group> group_if_any();
    static boost::shared_ptr<fd::Manager> fd_manager_if_any(int tid);

    // The identifier of the calling thread's fd manager, which is made when it is missing. Takes no lock when
    // the thread has asked before. The other one looks at nothing but what was said then, and otherwise
    // returns 0.
    static id_t fd_manager_id();
    static id_t remembered_fd_manager_id();

    // The calling thread's. Null until the thread has asked for the identifier, and when the answer may have
    // changed since.
    using Note = detail::ThisThread::Note;
    static Note* note();

    // For the calling thread, before it uses its own record: has the record dropped when the thread ends,
    // whoever made the thread. Returns the thread's id.
    static int claim();
    // Has the calling thread leave its group, and drops its record, if any.
    static void drop();

    struct Entry {
        int tid;
        boost::shared_ptr<Group> group;
        boost::shared_ptr<fd::Manager> fd_manager;
    };
    // All records, in ascending order of the thread ids.
    static std::vector<Entry> entries();
    // Those whose threads this process has: a child of fork() has the records of its parent's threads, too.
    static std::vector<Entry> living();

    // The thread with that fd manager, by whose identifier alarms, signals and tasks are kept; 0 when it has
    // ended.
    static int thread_of(std::vector<Entry> const& entries, id_t fd_manager);

private:
    static void make_claim(int tid);

    static StaticStuff& stuff() ZEL_REQUIRES(lock());
    static std::map<int, Associations>& records() ZEL_REQUIRES(lock());
    static Associations* record_if_any(int tid) ZEL_REQUIRES(lock());
};

} // namespace thread
} // namespace orn::zel

#endif
