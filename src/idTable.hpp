// SPDX-License-Identifier: MIT
//
// Objects by their identifiers. Internal. The tasks and the alarms of a manager each stand in one: every
// slice and every expiry looks its object up.
#ifndef ZEL_SRC_IDTABLE_HPP
#define ZEL_SRC_IDTABLE_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <vector>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// Does not own the objects, and does not lock. All cells are in one block, at most half of them are taken,
// and each object is in the first free one from the place that belongs to its identifier. A look-up touches
// no object but the one that it finds, and only growing allocates.
template <class T>
class IdTable {
public:
    IdTable() : cells_(16), shift_(28), size_(0) {}

    std::size_t size() const { return size_; }

    // Null when there is none.
    T* find(id_t id) const { return cells_[position(id)].object; }

    // False when the identifier is taken. When this throws nothing has changed.
    bool insert(id_t id, T& object) {
        if (2 * size_ >= cells_.size())
            grow();
        Cell& cell = cells_[position(id)];
        if (cell.object)
            return false;
        cell = Cell{id, &object};
        ++size_;
        return true;
    }

    void erase(id_t id) {
        std::size_t hole = position(id);
        if (!cells_[hole].object)
            return;
        // Objects behind the hole that it separates from their places would not be found any more.
        for (std::size_t i = after(hole); cells_[i].object; i = after(i)) {
            if (distance(place(cells_[i].id), i) < distance(hole, i))
                continue;
            cells_[hole] = cells_[i];
            hole = i;
        }
        cells_[hole] = Cell{};
        --size_;
    }

    // Forgets all objects, and then calls the function with each.
    template <class Function>
    void clear(Function function) {
        std::vector<Cell> gone(16);
        gone.swap(cells_);
        shift_ = 28;
        size_ = 0;
        for (Cell const& cell : gone) {
            if (cell.object)
                function(*cell.object);
        }
    }

    // Calls the function with each identifier and its object, in no order.
    template <class Function>
    void each(Function function) const {
        for (Cell const& cell : cells_) {
            if (cell.object)
                function(cell.id, *cell.object);
        }
    }

    // All objects, in ascending order of their identifiers.
    [[gnu::cold]] std::vector<T*> ascending() const {
        std::vector<T*> objects;
        if (size_ == 0)
            return objects; // qsort() takes no null pointer
        std::vector<Cell> taken;
        taken.reserve(size_);
        std::copy_if(cells_.begin(), cells_.end(), std::back_inserter(taken),
                     [](Cell const& cell) { return cell.object != nullptr; });
        // Not std::sort(), which makes a kilobyte of code of its own for these.
        std::qsort(taken.data(), taken.size(), sizeof(Cell), [](void const* left, void const* right) {
            id_t const first = static_cast<Cell const*>(left)->id;
            id_t const second = static_cast<Cell const*>(right)->id;
            return static_cast<int>(first > second) - static_cast<int>(first < second);
        });
        objects.reserve(size_);
        for (Cell const& cell : taken)
            objects.push_back(cell.object);
        return objects;
    }

private:
    struct Cell {
        id_t id = 0;
        T* object = nullptr;
    };

    std::size_t after(std::size_t at) const { return (at + 1) & (cells_.size() - 1); }
    std::size_t distance(std::size_t from, std::size_t to) const { return (to - from) & (cells_.size() - 1); }

    // 128 identifiers that follow each other lie together, four to a line of the cache and with a free line
    // between: what is made together is often used together, and memory that was not used for long costs more
    // than all else here. Such groups are scattered over the table. Where one lies over another, it finds the
    // free lines, or the next one.
    std::size_t place(id_t id) const {
        std::uint32_t const number = static_cast<std::uint32_t>(id);
        std::uint32_t const group = (number >> 7) * 2654435769U >> shift_; // by the golden ratio
        return (group ^ ((number & 124) << 1 | (number & 3))) & (cells_.size() - 1);
    }

    // Where the identifier is, or else the free cell for it.
    std::size_t position(id_t id) const {
        std::size_t at = place(id);
        while (cells_[at].object && cells_[at].id != id)
            at = after(at);
        return at;
    }

    void grow() {
        std::vector<Cell> before(2 * cells_.size());
        before.swap(cells_);
        --shift_;
        for (Cell const& cell : before) {
            if (cell.object)
                cells_[position(cell.id)] = cell;
        }
    }

    std::vector<Cell> cells_; // a power of two of them
    unsigned shift_;          // 32 less its exponent
    std::size_t size_;
};

} // namespace orn::zel::detail

#endif
