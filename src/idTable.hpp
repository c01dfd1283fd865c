// SPDX-License-Identifier: MIT
//
// A hash table of entries by their 32-bit identifiers. Internal; the alarms are kept in one. Owning the
// entries and locking are left to the user.
#ifndef ZEL_SRC_IDTABLE_HPP
#define ZEL_SRC_IDTABLE_HPP

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace orn::zel::detail {

// Open addressing, with the identifiers in the slots: a look-up touches no entry but the one that it finds.
// Memory is asked for when the table grows, which it does by half of its slots being taken, and only then.
template <class Entry>
class IdTable {
public:
    IdTable() : slots_(std::size_t{1} << least_bits), shift_(32 - least_bits), size_(0) {}

    std::size_t size() const { return size_; }

    // Null when there is none.
    Entry* find(std::uint32_t id) const { return slots_[place(id)].entry; }

    // Throws std::bad_alloc, and has changed nothing then. There must be no entry with this identifier.
    void insert(std::uint32_t id, Entry& entry) {
        if (2 * size_ >= slots_.size())
            grow();
        slots_[place(id)] = {&entry, id};
        ++size_;
    }

    // There must be an entry with this identifier. Those behind it that gave way to others move up, so that
    // no look-up ends early at the free slot.
    void erase(std::uint32_t id) {
        std::size_t free = place(id);
        for (std::size_t at = next(free); slots_[at].entry; at = next(at)) {
            std::size_t const way = (at - home(slots_[at].id)) & mask();
            if (way < ((at - free) & mask()))
                continue;
            slots_[free] = slots_[at];
            free = at;
        }
        slots_[free].entry = nullptr;
        --size_;
    }

    // Forgets all entries, and then calls the function with each.
    template <class Function>
    void clear(Function function) {
        IdTable gone;
        gone.slots_.swap(slots_);
        std::swap(gone.shift_, shift_);
        size_ = 0;
        for (Slot const& slot : gone.slots_) {
            if (slot.entry)
                function(*slot.entry);
        }
    }

private:
    static constexpr unsigned least_bits = 4;

    struct Slot {
        Entry* entry; // null when the slot is free
        std::uint32_t id;
    };

    std::size_t mask() const { return slots_.size() - 1; }
    std::size_t next(std::size_t at) const { return (at + 1) & mask(); }

    // 128 identifiers that follow each other lie together, four to a line of the cache and with a free line
    // between: what is made together is often used together, and memory that was not used for long costs more
    // than all else here. Such groups are scattered over the table. Where one lies over another, it finds the
    // free lines, or the next one.
    std::size_t home(std::uint32_t id) const {
        std::uint32_t const golden = 0x9E3779B1;
        std::uint32_t const group = ((id >> 7) * golden) >> shift_;
        return (group ^ ((id & 124) << 1 | (id & 3))) & mask();
    }

    // Where the identifier is, or the free slot where it would be.
    std::size_t place(std::uint32_t id) const {
        std::size_t at = home(id);
        while (slots_[at].entry && slots_[at].id != id)
            at = next(at);
        return at;
    }

    void grow() {
        std::vector<Slot> old(2 * slots_.size());
        old.swap(slots_);
        --shift_;
        for (Slot const& slot : old) {
            if (slot.entry)
                slots_[place(slot.id)] = slot;
        }
    }

    std::vector<Slot> slots_; // a power of two, at least half of them free
    unsigned shift_;          // what leaves the bits of a slot's number
    std::size_t size_;
};

} // namespace orn::zel::detail

#endif
