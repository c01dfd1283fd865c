// SPDX-License-Identifier: MIT
//
// One manager for each thread. Internal: the alarms, the signals and the tasks keep theirs in it. The
// managers stand in a map by the identifier of their thread's fd manager, and live until the subsystem is
// unloaded.
#ifndef ZEL_SRC_PERTHREAD_HPP
#define ZEL_SRC_PERTHREAD_HPP

#include <map>
#include <memory>

#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>
#include <orn/zel/threadGroup.hpp>

#include "immortal.hpp"
#include "shared.hpp"
#include "shutdown.hpp"
#include "threadRegistry.hpp"

namespace orn::zel::detail {

template <class Manager>
class PerThread {
public:
    using Map = std::map<id_t, boost::shared_ptr<Manager>>;

    // The map is null while the subsystem is not loaded. With a refusal, asking for a manager throws its text
    // then. Without one, asking brings the map back.
    constexpr explicit PerThread(Map*& map, char const* refusal = nullptr) : map_(map), refusal_(refusal) {}

    void load() {
        AutoLock const guard(lock());
        if (!map_)
            map_ = new Map;
    }

    // Keeps everything while exit() leaves threads running, which go on with the managers that they have.
    void unload() {
        if (Shutdown::keeps())
            return;
        // Destroyed on return, when the lock is released: the managers withdraw their registrations.
        std::unique_ptr<Map> doomed;
        AutoLock const guard(lock());
        doomed.reset(map_);
        map_ = nullptr;
    }

    // The calling thread's, made on first use. Throws orn::zel::Exception with the refusal's text.
    boost::shared_ptr<Manager> get() {
        id_t const caller = key();
        if (caller == 0)
            check_loaded();
        else if (boost::shared_ptr<Manager> found = find(caller))
            return found;
        return make();
    }

    void check_loaded() {
        AutoLock const guard(lock());
        map();
    }

    // Those of all threads, in ascending order of their keys.
    Map all() {
        Map known;
        AutoLock const guard(lock());
        if (!map_)
            return known;
        for (auto const& item : *map_) {
            if (item.second)
                known[item.first] = item.second;
        }
        return known;
    }

    // Calls the function with each manager and the thread whose it is, 0 for one that has ended. The lock is
    // not held during the call.
    template <class Function>
    void each(Function function) {
        std::vector<thread::Registry::Entry> const entries = thread::Registry::entries();
        for (auto const& item : all())
            function(*item.second, thread::Registry::thread_of(entries, item.first));
    }

    // A leaf. Good before load and after unload as well, since threads that exit() leaves running still come
    // for it.
    static ThreadMutex& lock() { return immortal<ThreadMutex, PerThread>(); }

private:
    // The calling thread's. A refusal must leave no trace of the thread, so its fd manager is only looked up
    // there, and the key is 0 when it has none.
    id_t key() const {
        if (!refusal_)
            return thread::Registry::fd_manager_id();
        if (id_t const known = thread::Registry::remembered_fd_manager_id())
            return known;
        boost::shared_ptr<fd::Manager> const found = thread::Registry::fd_manager_if_any(thread::self());
        return found ? found->id().value() : 0;
    }

    boost::shared_ptr<Manager> find(id_t key) {
        AutoLock const guard(lock());
        auto const found = map().find(key);
        return found != map().end() ? found->second : boost::shared_ptr<Manager>();
    }

    [[gnu::cold]] boost::shared_ptr<Manager> make() {
        // The lock must not be held here: the new manager registers with the group. Only this thread has this
        // key, but making a group may run the hook of a child of fork(), which may come back here. What it
        // has made then stays.
        boost::shared_ptr<Manager> const made = make_shared<Manager>();
        id_t const key = thread::Registry::fd_manager_id();
        AutoLock const guard(lock());
        boost::shared_ptr<Manager>& kept = map()[key];
        if (!kept)
            kept = made;
        return kept;
    }

    Map& map() ZEL_REQUIRES(lock()) {
        if (!map_) {
            if (refusal_)
                throw Exception(refusal_);
            map_ = new Map;
        }
        return *map_;
    }

    Map*& map_; // changed and read under the lock
    char const* const refusal_;
};

} // namespace orn::zel::detail

#endif
