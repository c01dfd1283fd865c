// SPDX-License-Identifier: MIT
#include <orn/zel/task.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/log.h>
#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "immortal.hpp"
#include "observer.hpp"
#include "plainText.hpp"
#include "shutdown.hpp"
#include "threadRegistry.hpp"
#include "wordPipe.hpp"

namespace orn {
namespace zel {
namespace task {

typedef std::map<id_t, boost::shared_ptr<Manager>> manager_map;

manager_map* managerMap = nullptr;

namespace {

struct ManagerMapLock;

// So many others end before the object of a task that is over is given to a new one.
unsigned long const retired_before_reuse = 1024;

// In the pipe: no task, just a reason for the loop to turn.
std::uint32_t const nudge = 0;

// As many rounds, each in a slice of the one before it, go on with the rest of the turn. Slices that all run
// a nested turn would otherwise pile up until the loop's own limit of 99 levels ends the process.
unsigned const most_rounds = 32;

// Guards managerMap, and is a leaf. Good before load and after unload as well: threads that the process's
// exit leaves running still come for it.
ThreadMutex& map_lock() {
    return detail::immortal<ThreadMutex, ManagerMapLock>();
}

// First in, first out, in one block of memory that is kept: in the long run nothing is allocated.
template <class T>
class Fifo {
public:
    bool empty() const { return head_ == items_.size(); }
    std::size_t size() const { return items_.size() - head_; }

    T pop() { return items_[head_++]; }

    // For so many items more, which are then pushed without fail.
    void make_room(std::size_t count) {
        if (head_ > 0 && head_ >= items_.size() / 2) {
            items_.erase(items_.begin(), place(0));
            head_ = 0;
        }
        if (items_.capacity() - items_.size() < count)
            items_.reserve(std::max(2 * items_.capacity(), items_.size() + count));
    }

    void push(T item) { items_.push_back(item); }
    // Before the last so many that are there.
    void push_before(std::size_t count, T item) {
        items_.insert(place(size() - std::min(count, size())), item);
    }

private:
    typename std::vector<T>::iterator place(std::size_t at) {
        return items_.begin() + static_cast<std::ptrdiff_t>(head_ + at);
    }

    std::vector<T> items_;
    std::size_t head_ = 0;
};

void flags(std::ostream& line, ControllerImpl const& controller) {
    if (controller.complete())
        line << " complete";
    else if (controller.sleeping())
        line << " sleeping";
}

} // namespace

// ---- Core -----------------------------------------------------------------------------------------------

class Core {
public:
    // What a task holds of its maker's: destroyed with no lock held, since that may come back here.
    struct Functions {
        Body fn;
        Done done;
    };

    // Adopts a pin: the task's object is not reused while this lives.
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

    Core() : pipe_(false), rest_(0), rounds_(0), nudged_(false), any_overdue_(false) {}
    ~Core();
    Core(Core const&) = delete;
    Core& operator=(Core const&) = delete;

    int read_fd() const { return pipe_.ReadFD(); }

    ControllerImpl& open(Spec const& spec);
    void remove(id_t id);
    void schedule(id_t id);
    void hold(id_t id);
    bool deepest() const { return rounds_.load(std::memory_order_relaxed) >= most_rounds; }
    void run(id_t id);
    void handle(fd::Event* event);
    // The result is for run_queue(): how many identifiers it leaves in the queue.
    std::size_t load(int fd);
    void run_queue(std::size_t rest);
    void list(std::ostream& text);

    ThreadMutex& lock() { return lock_; }

private:
    class Round;

    ControllerImpl* vacant() ZEL_REQUIRES(lock_);
    ControllerImpl* pin(id_t id) ZEL_REQUIRES(lock_);
    ControllerImpl* pin_next(std::size_t rest);
    void unpin(ControllerImpl& task);
    void retire(ControllerImpl& task, Functions& functions) ZEL_REQUIRES(lock_);
    void post(std::uint32_t word);
    void take_words(std::uint32_t const* words, std::size_t count, std::size_t rest) ZEL_REQUIRES(lock_);
    void take_overdue(std::size_t rest) ZEL_REQUIRES(lock_);
    std::size_t rest() const ZEL_REQUIRES(lock_) { return deepest() ? std::min(rest_, queue_.size()) : 0; }
    bool nudge_wanted() const ZEL_REQUIRES(lock_) { return rounds_ > 0 && queue_.size() > rest(); }
    void settle_nudge();
    void release_held(std::size_t kept);

    os::Pipe pipe_;
    ThreadMutex lock_; // a leaf; guards the tasks' fields too
    std::map<id_t, ControllerImpl*> tasks_ ZEL_GUARDED_BY(lock_);
    Fifo<std::uint32_t> queue_ ZEL_GUARDED_BY(lock_);
    std::size_t rest_ ZEL_GUARDED_BY(lock_); // what the present slice found behind it in the queue
    std::vector<std::uint32_t> held_ ZEL_GUARDED_BY(lock_); // scheduled when the round, a deepest one, ends
    std::vector<std::unique_ptr<ControllerImpl>> all_ ZEL_GUARDED_BY(lock_);
    Fifo<ControllerImpl*> retired_ ZEL_GUARDED_BY(lock_);
    std::atomic<unsigned> rounds_;      // run_queue() on the stack; changed by the runner, under the lock
    bool nudged_ ZEL_GUARDED_BY(lock_); // a nudge is in the pipe for the rest of the queue
    bool any_overdue_ ZEL_GUARDED_BY(lock_);
};

Core::~Core() ZEL_NO_ANALYSIS {
    // All functions first: what they hold may still steer another of these tasks when it goes.
    for (auto const& task : all_) {
        Functions functions;
        functions.fn.swap(task->spec_.fn);
        functions.done.swap(task->spec_.done);
    }
}

ControllerImpl* Core::vacant() {
    // For every task there is and one more: retiring them must not fail.
    retired_.make_room(all_.size() - retired_.size() + 1);
    if (retired_.size() > retired_before_reuse)
        return retired_.pop();
    all_.push_back(std::unique_ptr<ControllerImpl>(new ControllerImpl(this)));
    return all_.back().get();
}

void Core::retire(ControllerImpl& task, Functions& functions) {
    functions.fn.swap(task.spec_.fn);
    functions.done.swap(task.spec_.done);
    task.retired_ = true;
    retired_.push(&task);
}

ControllerImpl& Core::open(Spec const& spec) {
    Spec copy(spec);
    Functions none;
    AutoLock const guard(lock_);
    ControllerImpl& task = *vacant();
    try {
        task.id_ =
            detail::draw_id([&](id_t id) ZEL_NO_ANALYSIS { return !tasks_.emplace(id, &task).second; });
    } catch (...) {
        retire(task, none);
        throw;
    }
    std::swap(task.spec_, copy);
    task.complete_ = false;
    task.sleeping_ = false;
    task.runCount_ = 0;
    task.retired_ = false;
    task.overdue_ = false;
    task.listed_ = true;
    return task;
}

void Core::remove(id_t id) {
    Functions functions;
    AutoLock const guard(lock_);
    std::map<id_t, ControllerImpl*>::iterator const it = tasks_.find(id);
    if (it == tasks_.end())
        return;
    ControllerImpl& task = *it->second;
    tasks_.erase(it);
    task.listed_ = false;
    if (task.pins_ == 0)
        retire(task, functions);
}

ControllerImpl* Core::pin(id_t id) {
    std::map<id_t, ControllerImpl*>::const_iterator const it = tasks_.find(id);
    if (it == tasks_.end())
        return nullptr; // completed or cancelled since it was scheduled
    ++it->second->pins_;
    return it->second;
}

void Core::unpin(ControllerImpl& task) {
    Functions functions;
    AutoLock const guard(lock_);
    if (--task.pins_ == 0 && task.pooled_ && !task.listed_)
        retire(task, functions);
}

void Core::schedule(id_t id) {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %lu", "Schedule", id);
    // Identifiers travel as 32 bits, whatever the width of long.
    post(static_cast<std::uint32_t>(id));
}

// Any thread. A task whose identifier the pipe cannot take is marked instead, once: a flood of schedules that
// meets a loop which does not turn costs no memory beyond the pipe's own.
void Core::post(std::uint32_t word) {
    if (detail::write_word(pipe_.WriteFD(), word) > 0)
        return;
    {
        AutoLock const guard(lock_);
        std::map<id_t, ControllerImpl*>::const_iterator const it = tasks_.find(word);
        if (it == tasks_.end())
            return;
        it->second->overdue_ = true;
        any_overdue_ = true;
    }
    // The pipe may have been emptied meanwhile, and nobody would look at the mark.
    detail::write_word(pipe_.WriteFD(), nudge);
}

void Core::take_words(std::uint32_t const* words, std::size_t count, std::size_t rest) {
    for (std::size_t i = 0; i < count; ++i) {
        if (words[i] == nudge)
            nudged_ = false;
        else if (rest == 0)
            queue_.push(words[i]);
        else
            queue_.push_before(rest, words[i]);
    }
}

void Core::take_overdue(std::size_t rest) {
    if (!any_overdue_)
        return;
    for (auto const& item : tasks_) {
        if (!item.second->overdue_)
            continue;
        queue_.make_room(2); // one stays for settle_nudge()
        queue_.push_before(rest, static_cast<std::uint32_t>(item.first));
        item.second->overdue_ = false;
    }
    any_overdue_ = false;
}

// In the deepest rounds what has just been scheduled goes before the rest of the turn, which is left to the
// rounds above: a slice down there may wait for what it has started or continued, and for nothing else.
std::size_t Core::load(int fd) {
    std::size_t const most = 256;
    std::uint32_t words[most];
    std::size_t rest;
    {
        AutoLock const guard(lock_);
        rest = this->rest();
        queue_.make_room(most); // before they are out of the pipe
    }
    for (;;) {
        ssize_t const got = read(fd, words, sizeof words);
        AutoLock const guard(lock_);
        if (got > 0)
            take_words(words, static_cast<std::size_t>(got) / sizeof *words, rest);
        if (got < static_cast<ssize_t>(sizeof words))
            break;
        queue_.make_room(most);
    }
    AutoLock const guard(lock_);
    take_overdue(rest);
    return rest;
}

void Core::handle(fd::Event* event) {
    if (!(event->revents() & POLLIN))
        return;
    run_queue(load(event->fd()));
}

// Rounds nest: a slice may run the loop. While one slice runs and others of its turn are still in the queue,
// a nudge in the pipe has that loop come here for them; without it, a task that waits in a nested loop for
// one of them would wait for ever. It goes with what it was for, since it must not make the loop turn once
// more. Does not throw.
void Core::settle_nudge() {
    internal::CancelShield const shield;
    bool wanted;
    {
        AutoLock const guard(lock_);
        wanted = nudge_wanted();
        if (wanted == nudged_)
            return;
    }
    std::uint32_t word = nudge;
    if (wanted) {
        // A pipe that cannot take it is full, and does as well.
        bool const written = detail::write_word(pipe_.WriteFD(), word) > 0;
        AutoLock const guard(lock_);
        nudged_ = written;
    } else if (detail::read_word(pipe_.ReadFD(), word)) {
        // What another thread wrote before the nudge comes out first, and joins the queue: the nudge, which
        // is still there, is for it then. No memory is asked for: the queue is empty, or load() has left
        // room.
        AutoLock const guard(lock_);
        queue_.make_room(1);
        take_words(&word, 1, rest());
    }
}

class Core::Round {
public:
    explicit Round(Core& core) : core_(core) {
        AutoLock const guard(core_.lock_);
        ++core_.rounds_;
        rest_ = core_.rest_;
        held_ = core_.held_.size();
    }
    ~Round() {
        bool held;
        bool settled;
        {
            AutoLock const guard(core_.lock_);
            --core_.rounds_;
            core_.rest_ = rest_;
            held = core_.held_.size() > held_;
            settled = core_.nudge_wanted() == core_.nudged_;
        }
        if (held)
            core_.release_held(held_);
        if (!settled)
            core_.settle_nudge();
    }
    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;

private:
    Core& core_;
    std::size_t rest_; // the core's, for the slice that runs this round
    std::size_t held_; // by the rounds above
};

ControllerImpl* Core::pin_next(std::size_t rest) {
    ControllerImpl* task = nullptr;
    bool settled;
    {
        AutoLock const guard(lock_);
        while (!task && queue_.size() > rest)
            task = pin(queue_.pop());
        rest_ = queue_.size();
        settled = nudge_wanted() == nudged_;
    }
    if (!settled)
        settle_nudge();
    return task;
}

void Core::run_queue(std::size_t rest) {
    Round const round(*this);
    while (ControllerImpl* const task = pin_next(rest)) {
        Pin const pinned(*this, *task);
        // No lock is held here: the body may complete, cancel and start tasks, and run a nested loop.
        task->Run();
    }
}

// Instead of schedule() at the end of a slice in the deepest rounds: the identifier is kept until the round
// has ended. From the pipe the nested turns of the slices that follow would take it up, each those of all
// before it. The slice that waits for the round finds it in the pipe, and so its helpers go on.
void Core::hold(id_t id) {
    AutoLock const guard(lock_);
    held_.push_back(static_cast<std::uint32_t>(id));
}

void Core::release_held(std::size_t kept) {
    for (std::size_t at = kept;; ++at) {
        id_t id;
        {
            AutoLock const guard(lock_);
            if (at >= held_.size()) {
                held_.resize(std::min(kept, held_.size()));
                return;
            }
            id = held_[at];
        }
        schedule(id);
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

void Core::list(std::ostream& text) {
    AutoLock const guard(lock_);
    for (auto const& item : tasks_) {
        text << '[' << item.first << "] \"" << item.second->spec_.name
             << "\" runCount=" << item.second->runCount_;
        flags(text, *item.second);
        text << '\n';
    }
}

// ---- Controller -----------------------------------------------------------------------------------------

Controller::~Controller() = default;

ControllerImpl::ControllerImpl(Core* core)
    : core_(core), pooled_(true), id_(0), complete_(false), sleeping_(false), runCount_(0), listed_(false),
      retired_(false), overdue_(false), pins_(0) {}

ControllerImpl::ControllerImpl(Manager* manager, Spec const& spec)
    : core_(manager->core().get()), pooled_(false), id_(detail::draw_id()), spec_(spec), complete_(false),
      sleeping_(false), runCount_(0), listed_(false), retired_(false), overdue_(false), pins_(0) {
    display_task("new");
}

ControllerImpl::~ControllerImpl() = default;

basic_Id<unsigned long> ControllerImpl::id() const {
    AutoLock const guard(core_->lock());
    return basic_Id<unsigned long>(id_);
}

void ControllerImpl::display_task(std::string const& op) {
    detail::task_observer.report([&](std::ostream& line) {
        AutoLock const guard(core_->lock());
        line << "task " << id_ << " \"" << spec_.name << "\" op=" << op << " runCount=" << runCount_;
        flags(line, *this);
    });
}

void ControllerImpl::Run() {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %s", "Run", spec_.name.c_str());
    if (complete_)
        return;
    ++runCount_;
    display_task("Run");
    spec_.fn(this);
    if (complete_ || sleeping_)
        return;
    if (core_->deepest())
        core_->hold(id_);
    else
        core_->schedule(id_);
}

void ControllerImpl::Sleep() {
    {
        AutoLock const guard(core_->lock());
        if (complete_ || retired_)
            return;
        sleeping_ = true;
    }
    display_task("Sleep");
}

void ControllerImpl::Continue() {
    id_t id;
    {
        AutoLock const guard(core_->lock());
        if (complete_ || retired_)
            return;
        sleeping_ = false;
        id = id_; // now: the object may be another task's before it is in the pipe
    }
    display_task("Continue");
    core_->schedule(id);
}

void ControllerImpl::Complete() {
    {
        AutoLock const guard(core_->lock());
        if (complete_ || retired_)
            return;
        complete_ = true;
        ++pins_;
    }
    Core::Pin const pinned(*core_, *this);
    display_task("Complete");
    core_->remove(id_);
    // No lock is held here: the function may start tasks, this one's successor among them.
    if (!spec_.done.empty())
        spec_.done();
}

// ---- Manager --------------------------------------------------------------------------------------------

Manager::Manager()
    : id_(detail::draw_id()), core_(new Core), monitor_(Fd(core_->read_fd())),
      receptor_(*monitor_, [core = core_](fd::Event* event) { core->handle(event); }) {
    Log_SpecEntry(logSpecForceInfo, "src/task", __LINE__, "%s: task pipe rd fd=%d",
                  "orn::zel::task::Manager::Manager()", core_->read_fd());
}

Manager::~Manager() = default;

id_t Manager::NewTask(Spec const& spec) {
    if (spec.fn.empty())
        throw Exception("NULL Task function");
    ControllerImpl& task = core_->open(spec);
    id_t const id = task.id_; // nobody else knows of it yet
    try {
        task.display_task("new");
        core_->schedule(id);
    } catch (...) {
        core_->remove(id); // the observer's line may find no memory: no task then that nobody schedules
        throw;
    }
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %s = %lu", "NewTask", spec.name.c_str(), id);
    return id;
}

void Manager::Schedule(id_t id) {
    core_->schedule(id);
}

void Manager::Cancel(id_t id) {
    core_->remove(id);
}

void Manager::Complete(id_t id) {
    core_->remove(id);
}

void Manager::Run(id_t id) {
    core_->run(id);
}

void Manager::fd_handler(fd::Event* event) {
    core_->handle(event);
}

void Manager::load_task_queue(int fd) {
    core_->load(fd);
}

void Manager::run_task_queue() {
    core_->run_queue(0);
}

int Manager::task_fd() const {
    return core_->read_fd();
}

namespace {

// With map_lock() held.
manager_map& loaded_map() {
    if (!managerMap)
        throw Exception("managerMap not initizalized");
    return *managerMap;
}

void check_loaded() {
    AutoLock const guard(map_lock());
    loaded_map();
}

} // namespace

boost::shared_ptr<Manager> manager() {
    // Asked for without making one: a refusal leaves no trace of the thread.
    boost::shared_ptr<fd::Manager> const fd_manager = thread::Registry::fd_manager_if_any(thread::self());
    {
        AutoLock const guard(map_lock());
        manager_map const& managers = loaded_map();
        manager_map::const_iterator const it =
            fd_manager ? managers.find(fd_manager->id().value()) : managers.end();
        if (it != managers.end())
            return it->second;
    }
    // Made with the lock released, since it registers with the group. Only the thread itself has this key,
    // but making a group may run the child's hook, which may come back here: what is there then stays.
    boost::shared_ptr<Manager> const made(new Manager);
    id_t const key = thread::FdMgr()->id().value();
    AutoLock const guard(map_lock());
    boost::shared_ptr<Manager>& slot = loaded_map()[key];
    if (!slot)
        slot = made;
    return slot;
}

void ListTasks(std::string const&, int fd) {
    manager_map known;
    {
        AutoLock const guard(map_lock());
        if (managerMap)
            known = *managerMap;
    }
    detail::PlainText text;
    text << "TaskMgrs:\n";
    for (auto const& item : known)
        text << '[' << item.second->id() << "] fdMgr=" << item.first << " task_fd=" << item.second->task_fd()
             << '\n';
    text << "Tasks:\n";
    manager()->core()->list(text);
    cmd::Write(fd, text.str());
}

void Monitor(std::string const&, int fd) {
    detail::task_observer.watch(fd);
}

void Unmonitor(std::string const&, int) {
    detail::task_observer.unwatch();
}

void zel_task_load() {
    AutoLock const guard(map_lock());
    if (!managerMap)
        managerMap = new manager_map;
}

void zel_task_unload() {
    // A thread that exit() leaves running may steer any task that it has seen, and start others.
    if (detail::Shutdown::keeps())
        return;
    std::unique_ptr<manager_map> doomed; // outside the lock: managers withdraw their registrations
    AutoLock const guard(map_lock());
    doomed.reset(managerMap);
    managerMap = nullptr;
}

// ---- Task -----------------------------------------------------------------------------------------------

TaskImpl::TaskImpl(Body const& fn) : id(0), cancelOnDestroy(true) {
    spec.name = "<unnamed>";
    spec.fn = fn;
}

TaskImpl::~TaskImpl() {
    if (cancelOnDestroy)
        withdraw();
}

void TaskImpl::withdraw() {
    if (id == 0)
        return;
    if (boost::shared_ptr<Core> const home = home_.lock())
        home->remove(id);
    id = 0;
}

void TaskImpl::Run() {
    boost::shared_ptr<Manager> const owner = manager();
    id = owner->NewTask(spec);
    home_ = owner->core();
}

void TaskImpl::Cancel() {
    if (id == 0)
        return;
    check_loaded();
    withdraw();
}

void TaskImpl::Detach() {
    cancelOnDestroy = false;
}

void TaskImpl::Name(std::string const& name) {
    spec.name = name;
}

void TaskImpl::Notify(Done const& done) {
    spec.done = done;
}

} // namespace task

Task::Task(task::Body fn) : impl_(new task::TaskImpl(fn)) {}

Task::~Task() = default;

void Task::Run() {
    impl_->Run();
}

void Task::Cancel() {
    impl_->Cancel();
}

Task& Task::Detach() {
    impl_->Detach();
    return *this;
}

Task& Task::Name(std::string const& name) {
    impl_->Name(name);
    return *this;
}

Task& Task::NotifyWhenComplete(task::Done done) {
    impl_->Notify(done);
    return *this;
}

void RunTask(task::Body fn) {
    RunTask(fn, task::Done());
}

void RunTask(task::Body fn, task::Done done) {
    Task task(fn);
    task.NotifyWhenComplete(done).Detach().Run();
}

} // namespace zel
} // namespace orn
