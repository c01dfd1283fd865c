// SPDX-License-Identifier: MIT
//
// The tasks of one manager: their table, their run queue and the pipe that schedules them. Internal. What
// steers them from outside (handles, controllers, managers, the listing) is in task.cpp.
//
// What the object of a task goes through:
//
//     vacant ---- start() ----> listed ---- remove() ----> ending ---- unpin() ----> retired
//        ^                                                                              |
//        +------------------ once 1024 others have been retired after it --------------+
//
//     listed   The task is in the table: a word with its identifier gives it a slice.
//     ending   It was completed or cancelled while pinned: its body or its completion function is on a stack.
//     retired  Its functions are destroyed. A stale Controller* that still points to it does nothing.
//
// A word of four bytes schedules a task. It travels through the pipe and the queue:
//
//     schedule() ----> pipe ---- load() ----> queue ---- Round::next() ----> slice() ----> the body
//         ^                                                                     |
//         +----------------- unless the task is asleep or complete -------------+
//
//     round    One call of run_queue(), which empties the queue. A slice may run the loop, and so begin one
//              inside its own that goes on with the same queue.
//     kept     What a thread schedules during its own rounds is kept here. The end of the round writes it to
//              the pipe, with one call, unless load() has come for it before.
//     nudge    A word that names no task. It is in the pipe while a slice runs and words wait in the queue or
//              are kept, so that a loop inside the slice wakes and comes for them, and so does any other that
//              watches the pipe. When the words of a round have been written before its end, they serve.
//     deepest  The 32nd round on the thread's stack, of whatever managers, and all that are inside it. While
//              one of their slices runs, the queue is set aside, and a round inside finds only what has been
//              scheduled since. Otherwise slices that all run a nested turn would pile up until the loop's
//              limit of 99 levels ends the process.
//     held     Tasks that have had a slice in a deepest round are scheduled again when it ends. Otherwise
//              each of its slices that runs a nested turn would repeat the tasks of all slices before it.
//     overdue  A task was scheduled while the pipe was full. It gets one slice once the pipe has been read.
#ifndef ZEL_SRC_TASKCORE_HPP
#define ZEL_SRC_TASKCORE_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <sys/types.h>

#include <orn/os/Pipe.hpp>
#include <orn/zel/task.hpp>

#include "idTable.hpp"
#include "inspect.hpp"
#include "plainText.hpp"
#include "wordPipe.hpp"

namespace orn::zel::task {

// The end of a task's line in the listing and on the monitor.
void print_state(detail::PlainText& line, ControllerImpl const& task);

// A queue in one block of memory, which it keeps, so that nothing is allocated in the long run.
template <class T>
class Fifo {
public:
    bool empty() const { return head_ == items_.size(); }
    std::size_t size() const { return items_.size() - head_; }

    // Reserves room for count items, so that the pushes that follow cannot throw.
    void make_room(std::size_t count) {
        if (head_ > 0 && head_ >= items_.size() / 2) {
            items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
            head_ = 0;
        }
        if (items_.capacity() - items_.size() < count)
            items_.reserve(std::max(2 * items_.capacity(), items_.size() + count));
    }

    void push(T item) { items_.push_back(item); }
    T pop() { return items_[head_++]; }

    void swap(Fifo& other) {
        items_.swap(other.items_);
        std::swap(head_, other.head_);
    }

private:
    std::vector<T> items_;
    std::size_t head_ = 0;
};

class Core {
public:
    // Keeps a task's object from being reused for a scope. Adopts a pin that the task has already.
    class Pin {
    public:
        Pin(Core& core, ControllerImpl& task) : core_(core), task_(task) {}
        ~Pin() { core_.unpin(task_); }
        Pin(Pin const&) = delete;
        Pin& operator=(Pin const&) = delete;

    private:
        Core& core_;
        ControllerImpl& task_;
    };

    Core();
    ~Core();
    Core(Core const&) = delete;
    Core& operator=(Core const&) = delete;

    int read_fd() const { return pipe_.ReadFD(); }

    // From any thread.
    id_t start(Spec const& spec);
    void remove(id_t id);
    void schedule(id_t id);
    void list(detail::PlainText& text);
    // An object for each task, for the word "inspect".
    void tell(int tid, detail::Answer& answer);

    // On the thread that runs the loop, also inside a slice.
    void handle(fd::Event* event);
    void load(int fd);
    void run_queue();
    void run(id_t id);
    // Calls the body. True when the task is to have another slice.
    static bool slice(ControllerImpl& task);

    ThreadMutex& lock() { return lock_; }

private:
    class Round;

    // The functions of a task's maker. They are swapped out under the lock and destroyed after it is
    // released, since what they hold may call back into the library when it goes.
    struct Functions {
        Body fn;
        Done done;
    };

    ControllerImpl& open(Spec const& spec);
    ControllerImpl* vacant() ZEL_REQUIRES(lock_);
    ControllerImpl* pin(id_t id) ZEL_REQUIRES(lock_);
    void unpin(ControllerImpl& task);
    // Gives a pin back. True when the task is over and this was the last: its functions are the caller's
    // then.
    bool let_go(ControllerImpl& task, Functions& functions) ZEL_REQUIRES(lock_);
    void retire(ControllerImpl& task, Functions& functions) ZEL_REQUIRES(lock_);
    void take_words(std::uint32_t const* words, std::size_t count) ZEL_REQUIRES(lock_);
    void take_overdue() ZEL_REQUIRES(lock_);
    bool mark_overdue(std::uint32_t word) ZEL_REQUIRES(lock_);
    void keep(std::uint32_t word) ZEL_REQUIRES(lock_);
    void flush() ZEL_REQUIRES(lock_);
    void settle() ZEL_REQUIRES(lock_);

    os::Pipe pipe_;
    pid_t const process_; // whose pipe it is: a child of fork() shares it, and must leave it alone
    // A leaf, which guards the fields of the tasks as well. It is held over reads and writes of the pipe,
    // which do not block.
    ThreadMutex lock_;
    detail::IdTable<ControllerImpl> tasks_ ZEL_GUARDED_BY(lock_);
    std::vector<std::unique_ptr<ControllerImpl>> all_ ZEL_GUARDED_BY(lock_);
    Fifo<ControllerImpl*> retired_ ZEL_GUARDED_BY(lock_);
    Fifo<std::uint32_t> queue_ ZEL_GUARDED_BY(lock_);
    // How many words the deepest rounds have set aside. The queue keeps room for them, because they are taken
    // back in a destructor, where nothing may throw.
    std::size_t set_aside_ ZEL_GUARDED_BY(lock_);
    std::size_t kept_count_ ZEL_GUARDED_BY(lock_);
    unsigned rounds_ ZEL_GUARDED_BY(lock_); // of this core that are on a stack
    bool nudged_ ZEL_GUARDED_BY(lock_);     // a nudge is in the pipe
    bool flushed_ ZEL_GUARDED_BY(lock_);    // words that these rounds kept are in the pipe
    bool any_overdue_ ZEL_GUARDED_BY(lock_);
    std::uint32_t kept_[detail::words_at_once] ZEL_GUARDED_BY(lock_);
};

} // namespace orn::zel::task

#endif
