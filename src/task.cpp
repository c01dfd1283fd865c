// SPDX-License-Identifier: MIT
#include <orn/zel/task.hpp>

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include <unistd.h>

#include <orn/log.h>
#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "cancel.hpp"
#include "immortal.hpp"
#include "observers.hpp"
#include "plainText.hpp"
#include "shutdown.hpp"
#include "wire.hpp"

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

std::atomic<int> monitorFd(-1);

// Guards managerMap, and is a leaf. Good before load and after unload as well: threads that the process's
// exit leaves running still come for it.
ThreadMutex& map_lock() {
    return detail::immortal<ThreadMutex, ManagerMapLock>();
}

// First in, first out, in one block of memory that is kept: in the long run nothing is allocated.
class IdQueue {
public:
    bool empty() const { return head_ == words_.size(); }

    std::uint32_t pop() { return words_[head_++]; }

    // For so many push() that do not fail.
    void make_room(std::size_t count) {
        if (head_ > 0 && head_ >= words_.size() / 2) {
            words_.erase(words_.begin(), words_.begin() + static_cast<std::ptrdiff_t>(head_));
            head_ = 0;
        }
        if (words_.capacity() - words_.size() < count)
            words_.reserve(2 * words_.size() + count);
    }

    void push(std::uint32_t word) { words_.push_back(word); }

private:
    std::vector<std::uint32_t> words_;
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

    Core()
        : pipe_(false), all_(nullptr), first_retired_(nullptr), last_retired_(nullptr), retired_count_(0),
          rounds_(0), nudged_(false), any_overdue_(false) {}
    ~Core();
    Core(Core const&) = delete;
    Core& operator=(Core const&) = delete;

    int read_fd() const { return pipe_.ReadFD(); }

    ControllerImpl& open(Spec const& spec);
    void remove(id_t id);
    void schedule(id_t id);
    void run(id_t id);
    void handle(fd::Event* event);
    void load(int fd);
    void run_queue();
    void list(std::ostream& text);

    ThreadMutex& lock() { return lock_; }

private:
    class Round;

    ControllerImpl* vacant() ZEL_REQUIRES(lock_);
    ControllerImpl* pin(id_t id) ZEL_REQUIRES(lock_);
    ControllerImpl* pin_next();
    void unpin(ControllerImpl& task);
    void retire(ControllerImpl& task, Functions& functions) ZEL_REQUIRES(lock_);
    void post(std::uint32_t word);
    void take_words(std::uint32_t const* words, std::size_t count) ZEL_REQUIRES(lock_);
    void take_overdue() ZEL_REQUIRES(lock_);
    void end_round();

    os::Pipe pipe_;
    ThreadMutex lock_; // a leaf; guards the tasks' fields too
    std::map<id_t, ControllerImpl*> tasks_ ZEL_GUARDED_BY(lock_);
    IdQueue queue_ ZEL_GUARDED_BY(lock_);
    ControllerImpl* all_ ZEL_GUARDED_BY(lock_);
    ControllerImpl* first_retired_ ZEL_GUARDED_BY(lock_); // the oldest
    ControllerImpl* last_retired_ ZEL_GUARDED_BY(lock_);
    unsigned long retired_count_ ZEL_GUARDED_BY(lock_);
    unsigned rounds_ ZEL_GUARDED_BY(lock_); // run_queue() on the stack
    bool nudged_ ZEL_GUARDED_BY(lock_);     // a round's nudge is in the pipe
    bool any_overdue_ ZEL_GUARDED_BY(lock_);
};

Core::~Core() ZEL_NO_ANALYSIS {
    // All functions first: what they hold may still steer another of these tasks when it goes.
    for (ControllerImpl* task = all_; task; task = task->next_) {
        Functions functions;
        functions.fn.swap(task->spec_.fn);
        functions.done.swap(task->spec_.done);
    }
    while (all_) {
        ControllerImpl* const task = all_;
        all_ = task->next_;
        delete task;
    }
}

ControllerImpl* Core::vacant() {
    ControllerImpl* task = first_retired_;
    if (retired_count_ > retired_before_reuse) {
        first_retired_ = task->next_retired_;
        --retired_count_;
        return task;
    }
    task = new ControllerImpl(this);
    task->next_ = all_;
    all_ = task;
    return task;
}

void Core::retire(ControllerImpl& task, Functions& functions) {
    functions.fn.swap(task.spec_.fn);
    functions.done.swap(task.spec_.done);
    task.retired_ = true;
    task.next_retired_ = nullptr;
    if (retired_count_ == 0)
        first_retired_ = &task;
    else
        last_retired_->next_retired_ = &task;
    last_retired_ = &task;
    ++retired_count_;
}

ControllerImpl& Core::open(Spec const& spec) {
    Spec copy(spec);
    Functions none;
    AutoLock const guard(lock_);
    ControllerImpl& task = *vacant();
    try {
        // Not one that a live task has kept from before the counter wrapped.
        do {
            task.id_ = ControllerImpl::next_id();
        } while (task.id_ == 0 || !tasks_.emplace(task.id_, &task).second);
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
        queue_.make_room(1);
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
        {
            AutoLock const guard(lock_);
            queue_.make_room(most); // before they are out of the pipe
        }
        got = read(fd, words, sizeof words);
        if (got < 1)
            break;
        AutoLock const guard(lock_);
        take_words(words, static_cast<std::size_t>(got) / sizeof *words);
    } while (got == static_cast<ssize_t>(sizeof words));
    AutoLock const guard(lock_);
    take_overdue();
}

void Core::handle(fd::Event* event) {
    if (!(event->revents() & POLLIN))
        return;
    load(event->fd());
    run_queue();
}

// Rounds nest: a slice may run the loop. While one slice runs and others of its turn are still in the queue,
// a nudge in the pipe has that loop come here for them; without it, a task that waits in a nested loop for
// one of them would wait for ever.
class Core::Round {
public:
    explicit Round(Core& core) : core_(core) {
        AutoLock const guard(core_.lock_);
        ++core_.rounds_;
    }
    ~Round() { core_.end_round(); }
    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;

private:
    Core& core_;
};

// The nudge goes with what it was for: it must not make the loop turn once more.
void Core::end_round() {
    detail::CancelShield const shield;
    {
        AutoLock const guard(lock_);
        --rounds_;
        if (!nudged_ || (rounds_ > 0 && !queue_.empty()))
            return;
        nudged_ = false;
    }
    std::uint32_t word;
    // Before it there may be what another thread wrote meanwhile, which stays for the next turn.
    while (detail::read_word(pipe_.ReadFD(), word) && word != nudge)
        post(word);
}

ControllerImpl* Core::pin_next() {
    ControllerImpl* task = nullptr;
    {
        AutoLock const guard(lock_);
        while (!task) {
            if (queue_.empty())
                return nullptr;
            task = pin(queue_.pop());
        }
        if (queue_.empty() || nudged_)
            return task;
        nudged_ = true;
    }
    // A pipe that cannot take it is full, and does as well.
    if (detail::write_word(pipe_.WriteFD(), nudge) < 1) {
        AutoLock const guard(lock_);
        nudged_ = false;
    }
    return task;
}

void Core::run_queue() {
    Round const round(*this);
    while (ControllerImpl* const task = pin_next()) {
        Pin const pinned(*this, *task);
        // No lock is held here: the body may complete, cancel and start tasks, and run a nested loop.
        task->Run();
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
      retired_(false), overdue_(false), pins_(0), next_(nullptr), next_retired_(nullptr) {}

ControllerImpl::ControllerImpl(Manager* manager, Spec const& spec)
    : core_(manager->core().get()), pooled_(false), id_(next_id()), spec_(spec), complete_(false),
      sleeping_(false), runCount_(0), listed_(false), retired_(false), overdue_(false), pins_(0),
      next_(nullptr), next_retired_(nullptr) {
    display_task("new");
}

ControllerImpl::~ControllerImpl() = default;

basic_Id<unsigned long> ControllerImpl::id() const {
    AutoLock const guard(core_->lock());
    return basic_Id<unsigned long>(id_);
}

void ControllerImpl::display_task(std::string const& op) {
    int const observer = monitorFd;
    if (observer == -1)
        return;
    cmd::Response line;
    {
        AutoLock const guard(core_->lock());
        line << "task " << id_ << " \"" << spec_.name << "\" op=" << op << " runCount=" << runCount_;
        flags(line, *this);
    }
    line << '\n';
    cmd::Write(observer, line.str());
}

void ControllerImpl::Run() {
    if (Log_Enabled(logSpecInfo))
        Log_SpecEntry(logSpecInfo, "src/task", __LINE__, "%s: %s", "Run", spec_.name.c_str());
    if (complete_)
        return;
    ++runCount_;
    display_task("Run");
    spec_.fn(this);
    if (!complete_ && !sleeping_)
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
    : id_(next_id()), core_(new Core), monitor_(Fd(core_->read_fd())),
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
        core_->remove(id); // the observer's descriptor is a cancellation point
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
    core_->run_queue();
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
    check_loaded(); // before the thread is given an fd manager
    id_t const key = thread::FdMgr()->id().value();
    {
        AutoLock const guard(map_lock());
        manager_map& managers = loaded_map();
        manager_map::const_iterator const it = managers.find(key);
        if (it != managers.end())
            return it->second;
    }
    // Made with the lock released, since it registers with the group. Only the thread itself has this key.
    boost::shared_ptr<Manager> const made(new Manager);
    AutoLock const guard(map_lock());
    return loaded_map()[key] = made;
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
    monitorFd = fd;
}

void Unmonitor(std::string const&, int) {
    monitorFd = -1;
}

bool is_observer(int fd) {
    return monitorFd == fd;
}

void forget_observer(int fd) {
    detail::forget(monitorFd, fd);
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
