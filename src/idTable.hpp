// SPDX-License-Identifier: MIT
//
// A table from identifiers to values, for tables that hold a hundred thousand entries of which any may go at
// any time. Internal. One array with open addressing: an entry costs no allocation of its own and is found
// with one look into memory, where a tree takes one for each level. Not synchronised.
#ifndef ZEL_SRC_IDTABLE_HPP
#define ZEL_SRC_IDTABLE_HPP

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include <orn/zel/core.hpp>

namespace orn {
namespace zel {
namespace detail {

// Value() means "no entry", so a stored value must convert to true. Pointers into the table are good until
// the next change.
template <class Value>
class IdTable {
public:
    IdTable() : size_(0) {}

    std::size_t size() const { return size_; }

    Value* find(id_t id) {
        if (slots_.empty())
            return nullptr;
        std::size_t const at = locate(id);
        return slots_[at].value ? &slots_[at].value : nullptr;
    }

    // Replaces what is there under the same identifier.
    void insert(id_t id, Value value) {
        // At most three quarters full, so that every search soon meets an empty slot.
        if (4 * (size_ + 1) > 3 * slots_.size())
            resize(slots_.empty() ? 16 : 2 * slots_.size());
        Slot& slot = slots_[locate(id)];
        if (!slot.value)
            ++size_;
        slot.id = id;
        slot.value = std::move(value);
    }

    // Takes the value out; Value() when there is none. The array does not shrink.
    Value take(id_t id) {
        Value* const found = find(id);
        if (!found)
            return Value();
        Value taken = std::move(*found);
        close_gap(locate(id));
        --size_;
        return taken;
    }

private:
    struct Slot {
        Slot() : id(0), value() {}
        id_t id;
        Value value;
    };

    std::size_t mask() const { return slots_.size() - 1; }

    // Identifiers are counted up, often with a stride: a multiplication spreads them over the array.
    std::size_t home(id_t id) const {
        return static_cast<std::size_t>((static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15U) >> 32) &
               mask();
    }

    // Where the identifier is, or the empty slot where it would go.
    std::size_t locate(id_t id) const {
        std::size_t at = home(id);
        while (slots_[at].value && slots_[at].id != id)
            at = (at + 1) & mask();
        return at;
    }

    // Moves the entries behind an emptied slot up, as far as each may go towards its home, so that no search
    // stops short of them.
    void close_gap(std::size_t gap) {
        slots_[gap].value = Value();
        for (std::size_t at = (gap + 1) & mask(); slots_[at].value; at = (at + 1) & mask()) {
            std::size_t const distance_home = (at - home(slots_[at].id)) & mask();
            std::size_t const distance_gap = (at - gap) & mask();
            if (distance_home < distance_gap)
                continue;
            slots_[gap].id = slots_[at].id;
            slots_[gap].value = std::move(slots_[at].value);
            slots_[at].value = Value();
            gap = at;
        }
    }

    void resize(std::size_t capacity) {
        std::vector<Slot> before(capacity);
        before.swap(slots_);
        for (Slot& slot : before) {
            if (slot.value) {
                Slot& moved = slots_[locate(slot.id)];
                moved.id = slot.id;
                moved.value = std::move(slot.value);
            }
        }
    }

    std::vector<Slot> slots_; // a power of two of them
    std::size_t size_;
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
