// SPDX-License-Identifier: MIT
//
// How the blocks of a table of identifiers come and go.
#include "idTable.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace orn::zel::detail {

bool IdBlocks::empty(Block const& block) {
    for (void* const object : block.objects) { // not std::all_of(), which is unrolled
        if (object)
            return false;
    }
    return true;
}

IdBlocks::~IdBlocks() {
    for (Cell const& cell : cells_)
        delete cell.block;
    delete spare_;
}

bool IdBlocks::insert(id_t id, void* object) {
    std::size_t at = position(id / width);
    if (!cells_[at].block) {
        if (2 * taken_ >= cells_.size()) {
            grow();
            at = position(id / width);
        }
        if (!spare_)
            spare_ = new Block;
        cells_[at] = Cell{id / width, std::exchange(spare_, nullptr)};
        ++taken_;
    }
    void*& place = cells_[at].block->objects[id % width];
    if (place)
        return false;
    place = object;
    ++size_;
    return true;
}

void* IdBlocks::take(id_t id) {
    Block* const block = cells_[position(id / width)].block;
    void* const object = block ? std::exchange(block->objects[id % width], nullptr) : nullptr;
    if (!object)
        return nullptr;
    --size_;
    if (id / width != emptied_ && empty(*block)) {
        drop_if_empty(emptied_);
        emptied_ = id / width;
    }
    return object;
}

void IdBlocks::drop_if_empty(id_t number) {
    std::size_t hole = position(number);
    if (!cells_[hole].block || !empty(*cells_[hole].block))
        return;
    delete std::exchange(spare_, cells_[hole].block);
    // Blocks behind the hole that it separates from their places would not be found any more.
    for (std::size_t i = after(hole); cells_[i].block; i = after(i)) {
        if (distance(place(cells_[i].number), i) < distance(hole, i))
            continue;
        cells_[hole] = cells_[i];
        hole = i;
    }
    cells_[hole] = Cell{};
    --taken_;
}

[[gnu::cold]] void IdBlocks::grow() {
    std::vector<Cell> before(2 * cells_.size());
    before.swap(cells_);
    --shift_;
    for (Cell const& cell : before) {
        if (cell.block)
            cells_[position(cell.number)] = cell;
    }
}

[[gnu::cold]] void IdBlocks::swap(IdBlocks& other) {
    cells_.swap(other.cells_);
    std::swap(shift_, other.shift_);
    std::swap(taken_, other.taken_);
    std::swap(size_, other.size_);
    std::swap(emptied_, other.emptied_);
    std::swap(spare_, other.spare_);
}

[[gnu::cold]] std::vector<IdBlocks::Cell> IdBlocks::ascending_cells() const {
    std::vector<Cell> taken;
    if (taken_ == 0)
        return taken; // qsort() takes no null pointer
    taken.reserve(taken_);
    std::copy_if(cells_.begin(), cells_.end(), std::back_inserter(taken),
                 [](Cell const& cell) { return cell.block != nullptr; });
    // Not std::sort(), which makes a kilobyte of code of its own for these.
    std::qsort(taken.data(), taken.size(), sizeof(Cell), [](void const* left, void const* right) {
        id_t const first = static_cast<Cell const*>(left)->number;
        id_t const second = static_cast<Cell const*>(right)->number;
        return static_cast<int>(first > second) - static_cast<int>(first < second);
    });
    return taken;
}

} // namespace orn::zel::detail
