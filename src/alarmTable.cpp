// SPDX-License-Identifier: MIT
//
// Setting, changing and forgetting the alarms of one manager.
#include "alarmTable.hpp"

#include <type_traits>

#include <boost/function.hpp>

namespace orn::zel::alarm {

TableLock& lock_of(Table const* table) {
    static_assert(std::is_trivially_destructible_v<TableLock>, "used after static destructors");
    static TableLock locks[16];
    return locks[reinterpret_cast<std::uintptr_t>(table) / 64 % 16];
}

id_t Table::add(EntryUse& made, unsigned long initialMs, unsigned long recurringMs) {
    id_t id;
    // After the counter has wrapped, skip identifiers that older alarms still use.
    do
        id = detail::draw_id();
    while (!alarms.insert(id, *made));
    made->serial = ++serials;
    try {
        // Moved some instructions after it is made: a large load has to wait for small stores to be done.
        boost::function<void(os::Timer*)> expired(
            [id, fd = pipe.WriteFD(), &expiry = made->expiry](os::Timer*) {
                expiry.note();
                process_to_fd(id, fd);
            });
        made->armed(initialMs, recurringMs);
        made->timer.emplace(std::move(expired));
        made->timer->Set(initialMs, recurringMs);
    } catch (...) {
        alarms.take(id);
        throw;
    }
    static_cast<void>(made.release());
    return id;
}

bool Table::reset(id_t id, std::uint64_t serial, unsigned long timeoutMs) {
    Entry* const found = find(id, serial);
    if (!found)
        return false;
    found->one_shot = true;
    found->armed(timeoutMs, 0);
    found->timer->Set(timeoutMs, 0);
    return true;
}

[[gnu::cold]] void Table::close() {
    Guard const guard(lock);
    closed = true;
    forgotten.swap(alarms);
}

[[gnu::cold]] void Table::clear() {
    detail::IdTable<Entry> destroyed;
    {
        Guard const guard(lock);
        destroyed.swap(forgotten);
    }
    destroyed.each([](id_t, Entry& entry) { Release()(&entry); });
}

} // namespace orn::zel::alarm
