// SPDX-License-Identifier: MIT
//
// The timers that are set, sorted by their deadlines. Internal to the platform layer. Locking, and what a
// deadline means, are left to Timer.cpp.
#ifndef ORN_PLATFORM_TIMERHEAP_HPP
#define ORN_PLATFORM_TIMERHEAP_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace orn::os {

class Timer;

// Sorting reads and writes small arrays, and touches no timer: of a hundred thousand timers few are in the
// cache. Each has a number while it is in the heap.
//
// Constant-initialised and never destroyed, as the service is that it belongs to.
class TimerHeap {
public:
    bool empty() const { return size_ == 0; }
    std::uint64_t earliest() const { return heap_[0].deadline; }
    Timer& first() const { return *timers_[heap_[0].number]; }

    // To be called before each add(). Throws std::bad_alloc.
    void make_room() {
        if (size_ == room_)
            grow();
    }
    // Returns the timer's number.
    std::uint32_t add(std::uint64_t deadline, Timer& timer) {
        std::uint32_t const number = heap_[size_].number;
        timers_[number] = &timer;
        sift_up(size_++, {deadline, number});
        return number;
    }
    void remove(std::uint32_t number) {
        std::size_t const index = positions_[number];
        Entry const last = heap_[--size_];
        heap_[size_].number = number;
        if (index == size_)
            return;
        if (index > 0 && last.deadline < heap_[(index - 1) / width].deadline)
            sift_up(index, last);
        else
            sift_down(index, last);
    }
    // Gives the first timer a later deadline.
    void postpone(std::uint64_t deadline) { sift_down(0, {deadline, heap_[0].number}); }

    void clear() { size_ = 0; }
    void free() {
        if (heap_)
            std::free(heap_ - offset);
        heap_ = nullptr;
        size_ = 0;
        room_ = 0;
    }

private:
    struct Entry {
        std::uint64_t deadline;
        std::uint32_t number;
    };

    static constexpr std::size_t width = 4;
    // So many places before the heap are left free, so that siblings lie in one line of the cache.
    static constexpr std::size_t offset = width - 1;
    static constexpr std::size_t cache_line = 64;

    void place(std::size_t index, Entry entry) {
        heap_[index] = entry;
        positions_[entry.number] = static_cast<std::uint32_t>(index);
    }

    void sift_up(std::size_t index, Entry entry) {
        while (index > 0) {
            std::size_t const parent = (index - 1) / width;
            if (heap_[parent].deadline <= entry.deadline)
                break;
            place(index, heap_[parent]);
            index = parent;
        }
        place(index, entry);
    }

    [[gnu::noinline]] void sift_down(std::size_t index, Entry entry) {
        for (;;) {
            std::size_t const first = index * width + 1;
            if (first >= size_)
                break;
            std::size_t const end = std::min(first + width, size_);
            std::size_t least = first;
            for (std::size_t child = first + 1; child < end; ++child) {
                if (heap_[child].deadline < heap_[least].deadline)
                    least = child;
            }
            if (entry.deadline <= heap_[least].deadline)
                break;
            place(index, heap_[least]);
            index = least;
        }
        place(index, entry);
    }

    [[gnu::cold, gnu::noinline]] void grow() {
        std::size_t const room = room_ == 0 ? 64 : room_ * 2;
        std::size_t const each = sizeof(Entry) + sizeof(void*) + sizeof(std::uint32_t);
        void* grown = nullptr;
        if (posix_memalign(&grown, cache_line, offset * sizeof(Entry) + room * each) != 0)
            throw std::bad_alloc();
        Entry* const heap = static_cast<Entry*>(grown) + offset;
        Timer** const timers = reinterpret_cast<Timer**>(heap + room);
        std::uint32_t* const positions = reinterpret_cast<std::uint32_t*>(timers + room);
        std::copy(heap_, heap_ + size_, heap);
        std::copy(timers_, timers_ + size_, timers);
        std::copy(positions_, positions_ + size_, positions);
        for (std::size_t i = size_; i < room; ++i)
            heap[i].number = static_cast<std::uint32_t>(i);
        std::size_t const size = size_;
        free();
        heap_ = heap;
        timers_ = timers;
        positions_ = positions;
        size_ = size;
        room_ = room;
    }

    // Three arrays in one piece of memory. The entries behind size_ hold the numbers that are free.
    Entry* heap_ = nullptr;
    Timer** timers_ = nullptr;           // by number
    std::uint32_t* positions_ = nullptr; // in the heap, by number
    std::size_t size_ = 0;
    std::size_t room_ = 0;
};

} // namespace orn::os

#endif
