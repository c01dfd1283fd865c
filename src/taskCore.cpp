// SPDX-License-Identifier: MIT
//
// A task's way from the call that schedules it to its slice. The model and its words are in taskCore.hpp.
#include "taskCore.hpp"

#include <utility>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/log.h>

#include "fork.hpp"
#include "loopRecord.hpp"
#include "observer.hpp"

namespace orn::zel::task {

namespace {

// A finished task's object is reused only after this many later tasks have finished, so that a stale
// Controller* stays harmless for a while.
unsigned long const retired_before_reuse = 1024;

// Written to the pipe instead of an identifier to wake the loop; it names no task.
std::uint32_t const nudge = 0;

unsigned const first_deepest_round = 32;

void log_schedule(id_t id) {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %lu", "Schedule", id);
}

} // namespace

// One call of run_queue(). Only the thread whose stack it is on uses it.
class Core::Round {
public:
    explicit Round(Core& core);
    ~Round();
    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;

    // Whether the calling thread has a round of this core on its stack.
    static bool running(Core const& core) {
        Round const* round = innermost;
        while (round && &round->core_ != &core)
            round = round->outer_;
        return round != nullptr;
    }

    // Ends the present slice, after which its task is to have another or not, and returns the task that is to
    // have the next one. Null when there is none left.
    ControllerImpl* next(bool again);

private:
    bool deepest() const { return level_ >= first_deepest_round; }
    bool end_slice(bool again, Functions& functions) ZEL_REQUIRES(core_.lock_);
    ControllerImpl* begin_slice() ZEL_REQUIRES(core_.lock_);
    void set_aside() ZEL_REQUIRES(core_.lock_);
    void take_back() ZEL_REQUIRES(core_.lock_);

    // The rounds of all managers are chained, since the loop's limit counts all of them.
    static thread_local Round* innermost;

    Core& core_;
    Round* const outer_;
    unsigned const level_;
    ControllerImpl* task_; // that has its slice, pinned
    Fifo<std::uint32_t> aside_;
    Fifo<std::uint32_t> held_;
};

thread_local Core::Round* Core::Round::innermost = nullptr;

[[gnu::cold]] void print_state(detail::PlainText& line, ControllerImpl const& task) {
    line << " runCount=" << task.runCount();
    if (task.complete())
        line << " complete";
    else if (task.sleeping())
        line << " sleeping";
}

[[gnu::cold]] Core::Core()
    : pipe_(false), process_(detail::process_id()), set_aside_(0), kept_count_(0), rounds_(0), nudged_(false),
      flushed_(false), any_overdue_(false) {}

[[gnu::cold]] Core::~Core() {
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

[[gnu::cold]] ControllerImpl& Core::open(Spec const& spec) {
    Spec copy(spec);
    Functions none;
    AutoLock const guard(lock_);
    ControllerImpl& task = *vacant();
    try {
        // After the counter has wrapped, skip identifiers that older tasks still use.
        do
            task.id_ = detail::draw_id();
        while (!tasks_.insert(task.id_, task));
    } catch (...) {
        retire(task, none);
        throw;
    }
    task.spec_.name.swap(copy.name);
    task.spec_.fn.swap(copy.fn);
    task.spec_.done.swap(copy.done);
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
    ControllerImpl* const task = tasks_.take(id);
    if (!task)
        return;
    task->listed_ = false;
    if (task->pins_ == 0)
        retire(*task, functions);
}

ControllerImpl* Core::pin(id_t id) {
    ControllerImpl* const task = tasks_.find(id);
    if (task) // else it was completed or cancelled since it was scheduled
        ++task->pins_;
    return task;
}

void Core::unpin(ControllerImpl& task) {
    Functions functions;
    AutoLock const guard(lock_);
    let_go(task, functions);
}

bool Core::let_go(ControllerImpl& task, Functions& functions) {
    if (--task.pins_ > 0 || task.listed_)
        return false;
    retire(task, functions);
    return true;
}

void Core::retire(ControllerImpl& task, Functions& functions) {
    functions.fn.swap(task.spec_.fn);
    functions.done.swap(task.spec_.done);
    task.retired_ = true;
    retired_.push(&task);
}

[[gnu::cold]] void Core::list(detail::PlainText& text) {
    AutoLock const guard(lock_);
    for (ControllerImpl const* const task : tasks_.ascending()) {
        text << '[' << task->id_ << "] \"" << task->spec_.name << '"';
        print_state(text, *task);
        text << '\n';
    }
}

[[gnu::cold]] void Core::tell(int tid, detail::Answer& answer) {
    struct Copy {
        id_t id;
        std::string name;
        unsigned slices;
        bool sleeping;
    };
    std::vector<Copy> copies; // so that the loop does not wait for the lock while the text is composed
    {
        AutoLock const guard(lock_);
        copies.reserve(tasks_.size());
        for (ControllerImpl const* const task : tasks_.ascending())
            copies.push_back(Copy{task->id_, task->spec_.name, task->runCount(), task->sleeping()});
    }
    for (Copy const& task : copies) {
        detail::Json& object = answer.begin();
        object.field("task", task.id).field("name", task.name).field("thread", tid);
        object.field("slices", task.slices).field("state", task.sleeping ? "sleeping" : "scheduled");
        if (std::uint64_t const longest = detail::longest_slice_ns(static_cast<std::uint32_t>(task.id)))
            object.field("longest_ns", longest);
        answer.end();
    }
}

// ---- From the pipe into the queue -----------------------------------------------------------------------

void Core::schedule(id_t id) {
    log_schedule(id);
    // Identifiers travel as 32 bits, whatever the width of long.
    std::uint32_t const word = static_cast<std::uint32_t>(id);
    if (Round::running(*this)) {
        AutoLock const guard(lock_);
        keep(word);
        settle();
        return;
    }
    if (detail::write_word(pipe_.WriteFD(), word) > 0)
        return;
    {
        AutoLock const guard(lock_);
        if (!mark_overdue(word))
            return;
    }
    // If the loop drained the pipe between our failed write and setting the mark, nothing would wake it. Wake
    // it.
    detail::write_word(pipe_.WriteFD(), nudge);
}

// For when the pipe is full. A task is marked once, however often it is scheduled: a loop that does not turn
// costs no memory beyond the pipe's own. False when it is over.
[[gnu::cold]] bool Core::mark_overdue(std::uint32_t word) {
    ControllerImpl* const task = tasks_.find(word);
    if (!task)
        return false;
    task->overdue_ = true;
    any_overdue_ = true;
    return true;
}

// Call settle() or flush() next, before the lock is released. None of the three throws.
void Core::keep(std::uint32_t word) {
    kept_[kept_count_++] = word;
    if (kept_count_ == detail::words_at_once)
        flush();
}

void Core::flush() {
    if (kept_count_ > 0 && process_ == detail::process_id()) {
        std::size_t const written = detail::write_words(pipe_.WriteFD(), kept_, kept_count_);
        for (std::size_t i = written; i < kept_count_; ++i)
            mark_overdue(kept_[i]);
        flushed_ = flushed_ || written > 0;
    }
    kept_count_ = 0;
}

// Makes the pipe readable when there is something that a loop has to come for, and takes the nudge out when
// there is nothing, or it would make the loop turn once for nothing.
void Core::settle() {
    if (process_ != detail::process_id())
        return;
    if (rounds_ > 0 && (kept_count_ > 0 || !queue_.empty())) {
        if (nudged_ || flushed_)
            return;
        if (kept_count_ > 0)
            flush();
        else // if the pipe is full, the loop wakes anyway
            nudged_ = detail::write_word(pipe_.WriteFD(), nudge) > 0;
    } else if (nudged_) {
        // What was written before the nudge comes out first, and joins the queue. The nudge stays in the pipe
        // for it. This allocates nothing: the queue is empty, or load() has left room for one word.
        internal::CancelShield const shield;
        queue_.make_room(set_aside_ + 1);
        std::uint32_t word;
        if (detail::read_word(pipe_.ReadFD(), word))
            take_words(&word, 1);
    }
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
    for (ControllerImpl* const task : tasks_.ascending()) {
        if (!task->overdue_)
            continue;
        queue_.make_room(set_aside_ + 2); // one more than is taken, for settle()
        queue_.push(static_cast<std::uint32_t>(task->id_));
        task->overdue_ = false;
    }
    any_overdue_ = false;
}

void Core::load(int fd) {
    std::uint32_t words[detail::words_at_once];
    AutoLock const guard(lock_);
    ssize_t got;
    do {
        // Before the words are out of the pipe, or they would be lost.
        queue_.make_room(set_aside_ + detail::words_at_once + kept_count_);
        got = read(fd, words, sizeof words);
        if (got > 0)
            take_words(words, static_cast<std::size_t>(got) / sizeof *words);
    } while (got == static_cast<ssize_t>(sizeof words));
    // What is kept comes last, because it was scheduled after what the same thread has in the pipe.
    take_words(kept_, kept_count_);
    kept_count_ = 0;
    flushed_ = false;
    take_overdue();
}

// ---- From the queue to a slice --------------------------------------------------------------------------

Core::Round::Round(Core& core)
    : core_(core), outer_(innermost), level_(outer_ ? outer_->level_ + 1 : 1), task_(nullptr) {
    AutoLock const guard(core_.lock_);
    // What is in here becomes the queue during a slice. Its room is for what is taken back after the slice,
    // and for the word that settle() may read.
    if (deepest())
        aside_.make_room(core_.set_aside_ + core_.queue_.size() + 1);
    if (core_.rounds_++ == 0)
        core_.flushed_ = false;
    innermost = this;
}

Core::Round::~Round() {
    Functions functions; // destroyed when the lock has been released
    AutoLock const guard(core_.lock_);
    end_slice(false, functions);
    take_back();
    while (!held_.empty())
        core_.keep(held_.pop());
    core_.flush();
    --core_.rounds_;
    innermost = outer_;
    core_.settle();
}

ControllerImpl* Core::Round::next(bool again) {
    if (again)
        log_schedule(task_->id_);
    {
        Functions functions; // destroyed when the lock has been released
        AutoLock const guard(core_.lock_);
        if (!end_slice(again, functions))
            return begin_slice();
    }
    // The functions may have held the very task that comes next, and so have cancelled it. Look only now.
    AutoLock const guard(core_.lock_);
    return begin_slice();
}

bool Core::Round::end_slice(bool again, Functions& functions) {
    if (!task_)
        return false;
    if (again && deepest())
        held_.push(static_cast<std::uint32_t>(task_->id_));
    else if (again)
        core_.keep(static_cast<std::uint32_t>(task_->id_));
    return core_.let_go(*std::exchange(task_, nullptr), functions);
}

ControllerImpl* Core::Round::begin_slice() {
    take_back();
    if (deepest())
        held_.make_room(1);
    while (!task_ && !core_.queue_.empty())
        task_ = core_.pin(core_.queue_.pop());
    if (deepest())
        set_aside();
    core_.settle();
    return task_;
}

[[gnu::cold]] void Core::Round::set_aside() {
    aside_.swap(core_.queue_);
    core_.set_aside_ += aside_.size();
}

// The queue may have been left with words by a round inside, which an exception has ended. Those come first.
[[gnu::cold]] void Core::Round::take_back() {
    if (aside_.empty())
        return;
    core_.set_aside_ -= aside_.size();
    if (core_.queue_.empty())
        aside_.swap(core_.queue_);
    while (!aside_.empty())
        core_.queue_.push(aside_.pop());
}

void Core::handle(fd::Event* event) {
    if (!(event->revents() & POLLIN))
        return;
    load(event->fd());
    run_queue();
}

void Core::run_queue() {
    Round round(*this);
    detail::LoopRecord::Callback<detail::Doing::task> callback(detail::LoopRecord::current());
    bool again = false;
    while (ControllerImpl* const task = round.next(again)) {
        callback.next(static_cast<std::uint32_t>(task->id_));
        again = slice(*task);
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
    if (detail::task_observer.fd() != -1) // else not even the string is made
        task.display_task("Run");
    // No lock may be held here: the body may start, complete and cancel tasks, and run a nested loop.
    task.spec_.fn(&task);
    return !task.complete_ && !task.sleeping_;
}

} // namespace orn::zel::task
