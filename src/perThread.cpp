// SPDX-License-Identifier: MIT
//
// The managers of all threads, for those who look into the process while its handlers may have locks.
#include "perThread.hpp"

namespace orn::zel::detail {

[[gnu::cold]] void ShownManagers::add(id_t key, boost::shared_ptr<void> const& manager) {
    AutoLock const guard(lock_);
    entries_.push_back(Entry{key, manager});
}

[[gnu::cold]] void ShownManagers::clear() {
    AutoLock const guard(lock_);
    std::vector<Entry>().swap(entries_); // with its memory, because the library may be unmapped
}

[[gnu::cold]] std::vector<ShownManagers::Item> ShownManagers::all() {
    std::vector<Item> living;
    {
        AutoLock const guard(lock_);
        living.reserve(entries_.size());
        for (Entry const& entry : entries_) {
            if (boost::shared_ptr<void> const manager = entry.manager.lock())
                living.push_back(Item{entry.key, 0, manager});
        }
    }
    // Comes second: each manager that is here by now has its thread there, or the thread has ended.
    std::vector<thread::Registry::Entry> const threads = thread::Registry::living();
    for (Item& item : living)
        item.tid = thread::Registry::thread_of(threads, item.key);
    return living;
}

} // namespace orn::zel::detail
