// SPDX-License-Identifier: MIT
//
// A task's way from the call that schedules it to its slice. The model and its words are in taskCore.hpp.
#include "taskCore.hpp"

#include <utility>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/log.h>

#include "wordPipe.hpp"

namespace orn::zel::task {

namespace {

// A finished task's object is reused only after this many later tasks have finished, so that a stale
// Controller* stays harmless for a while.
unsigned long const retired_before_reuse = 1024;

// Written to the pipe instead of an identifier to wake the loop; it names no task.
std::uint32_t const nudge = 0;

unsigned const first_deepest_round = 32;

// How many rounds are on the thread's stack. Those of all managers count, as they do for the loop's limit.
thread_local unsigned rounds_on_stack = 0;

} // namespace

void print_state(detail::PlainText& line, ControllerImpl const& task) {
    line << " runCount=" << task.runCount();
    if (task.complete())
        line << " complete";
    else if (task.sleeping())
        line << " sleeping";
}

Core::Core() : pipe_(false), set_aside_(0), rounds_(0), nudged_(false), any_overdue_(false) {}

Core::~Core() {
    // All functions go before the first object: what they hold may still steer another of these tasks.
    for (auto const& task : all_) {
        Functions functions;
        functions.fn.swap(task->spec_.fn);
        functions.done.swap(task->spec_.done);
    }
}

// ---- The table ------------------------------------------------------------------------------------------

ControllerImpl* Core::vacant() {
    // Reserve room for every task there is and for one more, because retiring one must not fail.
    retired_.make_room(all_.size() - retired_.size() + 1);
    if (retired_.size() > retired_before_reuse)
        return retired_.pop();
    all_.push_back(std::unique_ptr<ControllerImpl>(new ControllerImpl(this)));
    return all_.back().get();
}

ControllerImpl& Core::open(Spec const& spec) {
    Spec copy(spec);
    Functions none;
    AutoLock const guard(lock_);
    ControllerImpl& task = *vacant();
    try {
        // After the counter has wrapped, skip identifiers that older tasks still use.
        do
            task.id_ = detail::draw_id();
        while (!tasks_.emplace(task.id_, &task).second);
    } catch (...) {
        retire(task, none);
        throw;
    }
    std::swap(task.spec_, copy);
    task.complete_ = false;
    task.sleeping_ = false;
    task.run_count_ = 0;
    task.retired_ = false;
    task.overdue_ = false;
    task.listed_ = true;
    return task;
}

id_t Core::start(Spec const& spec) {
    ControllerImpl& task = open(spec);
    id_t const id = task.id_; // read without the lock: nobody else knows of the task yet
    try {
        task.display_task("new");
        schedule(id);
    } catch (...) {
        remove(id); // a task that nobody schedules would stay for ever
        throw;
    }
    return id;
}

void Core::remove(id_t id) {
    Functions functions;
    AutoLock const guard(lock_);
    auto const it = tasks_.find(id);
    if (it == tasks_.end())
        return;
    ControllerImpl& task = *it->second;
    tasks_.erase(it);
    task.listed_ = false;
    if (task.pins_ == 0)
        retire(task, functions);
}

ControllerImpl* Core::pin(id_t id) {
    auto const it = tasks_.find(id);
    if (it == tasks_.end())
        return nullptr; // completed or cancelled since it was scheduled
    ++it->second->pins_;
    return it->second;
}

void Core::unpin(ControllerImpl& task) {
    Functions functions;
    AutoLock const guard(lock_);
    if (--task.pins_ == 0 && !task.listed_)
        retire(task, functions);
}

void Core::retire(ControllerImpl& task, Functions& functions) {
    functions.fn.swap(task.spec_.fn);
    functions.done.swap(task.spec_.done);
    task.retired_ = true;
    retired_.push(&task);
}

void Core::list(detail::PlainText& text) {
    AutoLock const guard(lock_);
    for (auto const& item : tasks_) {
        text << '[' << item.first << "] \"" << item.second->spec_.name << '"';
        print_state(text, *item.second);
        text << '\n';
    }
}

// ---- From the pipe into the queue -----------------------------------------------------------------------

void Core::schedule(id_t id) {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %lu", "Schedule", id);
    // Identifiers travel as 32 bits, whatever the width of long.
    std::uint32_t const word = static_cast<std::uint32_t>(id);
    if (detail::write_word(pipe_.WriteFD(), word) > 0)
        return;
    // The pipe is full. A task is marked once, however often it is scheduled: a loop that does not turn costs
    // no memory beyond the pipe's own.
    {
        AutoLock const guard(lock_);
        auto const it = tasks_.find(word);
        if (it == tasks_.end())
            return;
        it->second->overdue_ = true;
        any_overdue_ = true;
    }
    // If the loop drained the pipe between our failed write and setting the mark, nothing would wake it. Wake
    // it.
    detail::write_word(pipe_.WriteFD(), nudge);
}

void Core::take_words(std::uint32_t const* words, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (words[i] == nudge)
            nudged_ = false;
        else
            queue_.push(words[i]);
    }
}

void Core::take_overdue() {
    if (!any_overdue_)
        return;
    for (auto const& item : tasks_) {
        if (!item.second->overdue_)
            continue;
        queue_.make_room(set_aside_ + 2); // one more than is taken, for settle_nudge()
        queue_.push(static_cast<std::uint32_t>(item.first));
        item.second->overdue_ = false;
    }
    any_overdue_ = false;
}

void Core::load(int fd) {
    std::size_t const most = 256;
    std::uint32_t words[most];
    ssize_t got;
    do {
        AutoLock const guard(lock_);
        queue_.make_room(set_aside_ + most); // before the words are out of the pipe, or they would be lost
        got = read(fd, words, sizeof words);
        if (got > 0)
            take_words(words, static_cast<std::size_t>(got) / sizeof *words);
        if (got < static_cast<ssize_t>(sizeof words))
            take_overdue();
    } while (got == static_cast<ssize_t>(sizeof words));
}

// Puts the nudge into the pipe when it is wanted there, and takes it out when it is not, or it would make the
// loop turn once for nothing. Does not throw.
void Core::settle_nudge() {
    bool const wanted = rounds_ > 0 && !queue_.empty();
    if (wanted == nudged_)
        return;
    internal::CancelShield const shield;
    if (wanted) {
        // If the pipe is full, the loop wakes anyway.
        nudged_ = detail::write_word(pipe_.WriteFD(), nudge) > 0;
        return;
    }
    // What another thread wrote before the nudge comes out first, and joins the queue. The nudge stays in the
    // pipe for it. This allocates nothing: the queue is empty, or load() has left room for one word.
    queue_.make_room(set_aside_ + 1);
    std::uint32_t word;
    if (detail::read_word(pipe_.ReadFD(), word))
        take_words(&word, 1);
}

// ---- From the queue to a slice --------------------------------------------------------------------------

class Core::Round {
public:
    explicit Round(Core& core) : core_(core) {
        AutoLock const guard(core_.lock_);
        deepest_ = rounds_on_stack + 1 >= first_deepest_round;
        // What is in here becomes the queue during a slice. Its room is for what is taken back after the
        // slice, and for the word that settle_nudge() may read.
        if (deepest_)
            aside_.make_room(core_.set_aside_ + core_.queue_.size() + 1);
        ++core_.rounds_;
        ++rounds_on_stack;
    }

    ~Round() {
        for (std::uint32_t const id : held_)
            core_.schedule(id);
        AutoLock const guard(core_.lock_);
        take_back();
        --core_.rounds_;
        --rounds_on_stack;
        core_.settle_nudge();
    }

    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;

    // The next task that is to have a slice, pinned; null when there is none left.
    ControllerImpl* next() {
        ControllerImpl* task = nullptr;
        AutoLock const guard(core_.lock_);
        take_back();
        while (!task && !core_.queue_.empty())
            task = core_.pin(core_.queue_.pop());
        if (deepest_)
            set_aside();
        core_.settle_nudge();
        return task;
    }

    // The end of a slice schedules its task, unless it is asleep or complete.
    void again(id_t id) {
        if (deepest_)
            held_.push_back(static_cast<std::uint32_t>(id));
        else
            core_.schedule(id);
    }

private:
    void set_aside() ZEL_REQUIRES(core_.lock_) {
        aside_.swap(core_.queue_);
        core_.set_aside_ += aside_.size();
    }

    // The queue may have been left with words by a round inside, which an exception has ended. Those come
    // first.
    void take_back() ZEL_REQUIRES(core_.lock_) {
        if (aside_.empty())
            return;
        core_.set_aside_ -= aside_.size();
        if (core_.queue_.empty())
            aside_.swap(core_.queue_);
        while (!aside_.empty())
            core_.queue_.push(aside_.pop());
    }

    Core& core_;
    bool deepest_;
    Fifo<std::uint32_t> aside_;
    std::vector<std::uint32_t> held_;
};

void Core::handle(fd::Event* event) {
    if (!(event->revents() & POLLIN))
        return;
    load(event->fd());
    run_queue();
}

void Core::run_queue() {
    Round round(*this);
    while (ControllerImpl* const task = round.next()) {
        Pin const pinned(*this, *task);
        if (slice(*task))
            round.again(task->id_);
    }
}

void Core::run(id_t id) {
    ControllerImpl* task;
    {
        AutoLock const guard(lock_);
        task = pin(id);
    }
    if (!task)
        return;
    Pin const pinned(*this, *task);
    task->Run();
}

bool Core::slice(ControllerImpl& task) {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %s", "Run", task.spec_.name.c_str());
    if (task.complete_)
        return false;
    ++task.run_count_;
    task.display_task("Run");
    // No lock may be held here: the body may start, complete and cancel tasks, and run a nested loop.
    task.spec_.fn(&task);
    return !task.complete_ && !task.sleeping_;
}

} // namespace orn::zel::task
