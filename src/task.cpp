// SPDX-License-Identifier: MIT
//
// What steers tasks: handles, controllers and managers, and what tells of them. How a scheduled task comes to
// its slice is in taskCore.cpp.
#include <orn/zel/task.hpp>

#include <orn/log.h>
#include <orn/zel/response.hpp>

#include "observer.hpp"
#include "perThread.hpp"
#include "plainText.hpp"
#include "shared.hpp"
#include "taskCore.hpp"
#include "trace.hpp"

namespace orn::zel {
namespace task {

std::map<id_t, boost::shared_ptr<Manager>>* managerMap = nullptr;

namespace {

detail::PerThread<Manager> managers(managerMap, "managerMap not initizalized");

} // namespace

// ---- Controller -----------------------------------------------------------------------------------------

Controller::~Controller() = default;

ControllerImpl::ControllerImpl(Core* core)
    : core_(core), id_(0), complete_(false), sleeping_(false), run_count_(0), listed_(false), retired_(false),
      overdue_(false), pins_(0) {}

ControllerImpl::ControllerImpl(Manager* manager, Spec const& spec) : ControllerImpl(manager->core().get()) {
    id_ = detail::draw_id();
    spec_ = spec;
    pins_ = 1; // never given back: the object is its maker's, and the core must not reuse it
    display_task("new");
}

ControllerImpl::~ControllerImpl() = default;

basic_Id<unsigned long> ControllerImpl::id() const {
    AutoLock const guard(core_->lock());
    return basic_Id<unsigned long>(id_);
}

void ControllerImpl::display_task(std::string const& op) {
    detail::task_observer.report([&](detail::PlainText& line) {
        AutoLock const guard(core_->lock());
        line << "task " << id_ << " \"" << spec_.name << "\" op=" << op;
        print_state(line, *this);
    });
}

void ControllerImpl::Run() {
    if (Core::slice(*this))
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
        id = id_; // copied now: the object may be reused before schedule() runs
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
    // No lock may be held here: the function may start tasks, and run a nested loop.
    if (!spec_.done.empty())
        spec_.done();
}

// ---- Manager --------------------------------------------------------------------------------------------

Manager::Manager()
    : id_(detail::draw_id()), core_(detail::make_shared<Core>()), monitor_(Fd(core_->read_fd())),
      receptor_(*monitor_, [core = core_](fd::Event* event) { core->handle(event); }) {
    Log_SpecEntry(logSpecForceInfo, "src/task", __LINE__, "%s: task pipe rd fd=%d",
                  "orn::zel::task::Manager::Manager()", core_->read_fd());
}

Manager::~Manager() = default;

id_t Manager::NewTask(Spec const& spec) {
    if (spec.fn.empty())
        throw Exception("NULL Task function");
    id_t const id = core_->start(spec);
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

boost::shared_ptr<Manager> manager() {
    return managers.get();
}

void ListTasks(std::string const&, int fd) {
    detail::PlainText text;
    text << "TaskMgrs:\n";
    for (auto const& item : managers.all()) {
        text << '[' << item.second->id() << "] fdMgr=" << item.first << " task_fd=" << item.second->task_fd()
             << '\n';
    }
    text << "Tasks:\n";
    manager()->core()->list(text);
    cmd::Write(fd, text.str());
}

void tell_tasks(detail::Answer& answer) {
    if (detail::Trace* const trace = detail::Trace::current())
        trace->serve(); // so that the times are up to date
    managers.each([&](Manager& manager, int tid) { manager.core()->tell(tid, answer); });
}

void Monitor(std::string const&, int fd) {
    detail::task_observer.watch(fd);
}

void Unmonitor(std::string const&, int) {
    detail::task_observer.unwatch();
}

void zel_task_load() {
    managers.load();
}

void zel_task_unload() {
    managers.unload();
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
    managers.check_loaded();
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

} // namespace orn::zel
