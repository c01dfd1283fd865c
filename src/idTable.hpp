// SPDX-License-Identifier: MIT
//
// Objects by their identifiers. Internal. The tasks and the alarms of a manager each stand in one: every
// slice and every expiry looks its object up.
#ifndef ZEL_SRC_IDTABLE_HPP
#define ZEL_SRC_IDTABLE_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// What all tables have in common, so that the library has this code once.
//
// Identifiers that follow each other share a block, because what is made together is often used together, and
// memory that was not used for long costs more than all else here. For the same reason a block that got empty
// is the next one to be taken: a program that makes and ends one object after the other stays in the same few
// lines of the cache, although each has a new identifier. The block that got empty last stays in its cell
// until another one does, since the next identifier belongs into it as a rule. The cells of the blocks are in
// one piece of memory, at most half of them are taken, and each block is in the first free one from the place
// that belongs to its number.
class IdBlocks {
public:
    IdBlocks() : cells_(least_cells), shift_(32 - least_exponent) {}
    ~IdBlocks();
    IdBlocks(IdBlocks const&) = delete;
    IdBlocks& operator=(IdBlocks const&) = delete;

    std::size_t size() const { return size_; }

protected:
    static constexpr std::size_t width = 8;

    struct Block {
        void* objects[width] = {};
    };
    struct Cell {
        id_t number = 0; // of the block: that of its identifiers without the last bits
        Block* block = nullptr;
    };

    void* find(id_t id) const {
        Block const* const block = cells_[position(id / width)].block;
        return block ? block->objects[id % width] : nullptr;
    }
    bool insert(id_t id, void* object);
    void* take(id_t id);
    void swap(IdBlocks& other);
    std::vector<Cell> const& cells() const { return cells_; }
    // Those that are taken, in ascending order.
    std::vector<Cell> ascending_cells() const;

private:
    static constexpr unsigned least_exponent = 4;
    static constexpr std::size_t least_cells = 1 << least_exponent;

    std::size_t after(std::size_t at) const { return (at + 1) & (cells_.size() - 1); }
    std::size_t distance(std::size_t from, std::size_t to) const { return (to - from) & (cells_.size() - 1); }

    // 128 blocks that follow each other lie together, four to a line of the cache and with a free line
    // between. Such groups are scattered over the table. Where one lies over another, it finds the free
    // lines, or the next one.
    std::size_t place(id_t number) const {
        std::uint32_t const low = static_cast<std::uint32_t>(number);
        std::uint32_t const group = (low >> 7) * 2654435769U >> shift_; // by the golden ratio
        return (group ^ ((low & 124) << 1 | (low & 3))) & (cells_.size() - 1);
    }

    // Where the block is, or else the free cell for it.
    std::size_t position(id_t number) const {
        std::size_t at = place(number);
        while (cells_[at].block && cells_[at].number != number)
            at = after(at);
        return at;
    }

    static bool empty(Block const& block);
    void grow();
    void drop_if_empty(id_t number);

    std::vector<Cell> cells_; // a power of two of them
    unsigned shift_;          // 32 less its exponent
    std::size_t taken_ = 0;   // of the cells
    std::size_t size_ = 0;
    id_t emptied_ = ~id_t(0); // the number of the block that got empty last; it may be in use again
    Block* spare_ = nullptr;
};

// Does not own the objects, and does not lock. A look-up touches no object, and only inserting allocates.
template <class T>
class IdTable : public IdBlocks {
public:
    // Null when there is none.
    T* find(id_t id) const { return static_cast<T*>(IdBlocks::find(id)); }

    // False when the identifier is taken. When this throws nothing has changed.
    bool insert(id_t id, T& object) { return IdBlocks::insert(id, &object); }

    // Forgets the object, and returns it; null when there is none.
    T* take(id_t id) { return static_cast<T*>(IdBlocks::take(id)); }

    // Exchanges all objects.
    void swap(IdTable& other) { IdBlocks::swap(other); }

    // Calls the function with each identifier and its object, in no order.
    template <class Function>
    void each(Function function) const {
        for (Cell const& cell : cells())
            each_of(cell, function);
    }

    // All objects, in ascending order of their identifiers.
    [[gnu::cold]] std::vector<T*> ascending() const {
        std::vector<T*> objects(size());
        std::size_t count = 0;
        for (Cell const& cell : ascending_cells())
            each_of(cell, [&](id_t, T& object) { objects[count++] = &object; });
        return objects;
    }

private:
    template <class Function>
    static void each_of(Cell const& cell, Function&& function) {
        for (std::size_t i = 0; cell.block && i < width; ++i) {
            if (void* const object = cell.block->objects[i])
                function(cell.number * width + i, *static_cast<T*>(object));
        }
    }
};

} // namespace orn::zel::detail

#endif
