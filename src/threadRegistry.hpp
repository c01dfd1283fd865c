// SPDX-License-Identifier: MIT
//
// The library's own way to the thread records. Internal. Unlike the references that thread::This() hands out,
// nothing here points into a record after the lock is released, so a thread in the middle of a turn is safe
// while another one takes the library down in exit().
#ifndef ZEL_SRC_THREADREGISTRY_HPP
#define ZEL_SRC_THREADREGISTRY_HPP

#include <vector>

#include <orn/zel/threadGroup.hpp>

namespace orn {
namespace zel {
namespace thread {

class Registry {
public:
    struct Entry {
        int tid;
        boost::shared_ptr<Group> group;
        boost::shared_ptr<fd::Manager> fd_manager;
    };

    // A leaf: nothing is called with it held. Guards the pointer to the registry, the map and every record in
    // it.
    static ThreadMutex& lock();

    static void load();
    static void unload();
    static Map* map();

    static boost::shared_ptr<Group> group();
    // Of any thread; the caller claims its own.
    static boost::shared_ptr<fd::Manager> fd_manager(int tid);

    // Empty where there is nothing; neither makes a record.
    static boost::shared_ptr<Group> group_if_any();
    static boost::shared_ptr<fd::Manager> fd_manager_if_any(int tid);

    static void associate(boost::shared_ptr<Group> const& group);

    // For the calling thread, whose id is given: has its record dropped when it ends, whoever made the
    // thread. A record that another thread with the same id has left behind is dropped now.
    static void claim(int tid) {
        if (!claimed(tid))
            make_claim(tid);
    }
    // Leaves the group and drops the record, if any.
    static void drop();

    // All records in ascending thread id.
    static std::vector<Entry> entries();

    // The same for a record that may be in no map.
    static boost::shared_ptr<Group> group_of(Associations& record);
    static boost::shared_ptr<fd::Manager> fd_manager_of(Associations& record);
    static void associate(Associations& record, boost::shared_ptr<Group> const& group);

private:
    static bool claimed(int tid);
    static void make_claim(int tid);

    template <class Locate>
    static boost::shared_ptr<Group> find_or_make_group(Locate locate);
    template <class Locate>
    static boost::shared_ptr<fd::Manager> find_or_make_fd_manager(Locate locate);
    template <class Locate>
    static void move_to(Locate locate, boost::shared_ptr<Group> const& group);

    static StaticStuff& stuff() ZEL_REQUIRES(lock());
    static Associations& record(int tid) ZEL_REQUIRES(lock());
    static Associations* record_if_any(int tid) ZEL_REQUIRES(lock());
};

} // namespace thread
} // namespace zel
} // namespace orn

#endif
