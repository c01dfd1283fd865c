// SPDX-License-Identifier: MIT
//
// Tasks: work that runs in slices on the loop of the thread that starts it. Public. Each call of the body is
// one slice; between slices the loop serves everything else. The loop itself is in threadGroup.hpp.
//
// From examples/11_task.cpp:
//
//     int left = 3;
//     bool complete = false;
//     orn::zel::RunTask(
//         [&left](orn::zel::task::Controller* task) {
//             std::printf("%d left\n", left--);
//             if (left == 0)
//                 task->Complete();
//         },
//         [&complete] { complete = true; });
//     while (!complete)
//         orn::zel::RunOnce(-1);
//
// What a task does after a slice is decided by what was called during it:
//
//     Run() ---> Scheduled <------------ Continue() ---------- Sleeping
//                  |    ^                                          ^
//          a turn  |    |  neither was called                      |
//                  v    |                                          |
//                 Running ------------------ Sleep() --------------+
//                    |
//                    +-- Complete(), also from elsewhere ---> Complete: done is called
//
//     Task::Cancel(), from any of the first three ----------> Cancelled: done is not called
//
// A slice runs on a later turn than the call that scheduled it. A body may do to its task what anybody may:
// complete, cancel or destroy the handle; it may run a nested loop, in which other tasks go on, also those of
// the same turn (below 32 nested slices only those that are started or continued down there); and it may
// throw: the exception leaves the run call, and the task waits for a Continue(). Identifiers of the same turn
// that were still to run then wait until some task of the thread is scheduled.
#ifndef ORN_ZEL_TASK_HPP
#define ORN_ZEL_TASK_HPP

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>

namespace orn {
namespace zel {

namespace task {

// How a task is steered; its body receives one. From any thread, and also when the task is over: the calls
// then do nothing. The object of a task that is over is given to a new one once 1024 others of its manager
// have ended after it; a pointer that is kept beyond that steers the new task.
class ORN_API Controller {
public:
    virtual ~Controller();
    // Schedules a slice, and ends the sleep if the task sleeps. Called in the task's own slice it gives two
    // further ones, since the end of that slice schedules the task too.
    virtual void Continue() = 0;
    // Ends the task: there is no further slice. Calls the completion function before it returns.
    virtual void Complete() = 0;
    // No slice follows the present one until Continue().
    virtual void Sleep() = 0;
};

typedef boost::function<void(Controller*)> Body;
typedef boost::function<void()> Done;

class TaskImpl;

} // namespace task

// A handle of one task, which is cancelled when this dies. Start the task, and set it up, on the thread whose
// loop is to run it.
class ORN_API Task {
public:
    explicit Task(task::Body fn);
    virtual ~Task();

    // Throws orn::zel::Exception "NULL Task function", and "managerMap not initizalized" while the library is
    // not loaded. A second call starts a second task, and the handle forgets the first.
    void Run();
    // From any thread. A slice that is under way goes on to its end.
    void Cancel();
    // The task goes on when the handle dies.
    Task& Detach();
    // These two take effect when the task is next started.
    Task& Name(std::string const& name);
    Task& NotifyWhenComplete(task::Done done);

    Task(Task const&) = delete;
    Task& operator=(Task const&) = delete;

private:
    std::unique_ptr<task::TaskImpl> impl_;
};

// Starts a task that has no handle. Throws what Task::Run() throws.
ORN_API void RunTask(task::Body fn);
ORN_API void RunTask(task::Body fn, task::Done done);

namespace task {

// Writes the process's task managers and the calling thread's tasks to the descriptor. The name is not used.
ORN_API void ListTasks(std::string const& name, int fd);

// Writes a line to the descriptor whenever a task is made, runs, sleeps, continues or completes. One
// descriptor per process; neither call uses the name, and switching off ignores the descriptor too.
ORN_API void Monitor(std::string const& name, int fd);
ORN_API void Unmonitor(std::string const& name, int fd);

// ---- The implementation behind the interfaces -----------------------------------------------------------

class Manager;

// The pipe, the task table and the run queue of one manager, shared with the handler on the pipe: a slice
// that is under way in another thread when the process exits still finds them. In task.cpp only.
class Core;

struct Spec {
    std::string name;
    Body fn;
    Done done;
};

// One task. The manager's own are reused, never freed before the manager's core.
class ORN_API ControllerImpl : public Controller, public basic_ProcessUnique<unsigned long> {
public:
    // The manager must outlive it.
    ControllerImpl(Manager* manager, Spec const& spec);
    ~ControllerImpl() override;
    ControllerImpl(ControllerImpl const&) = delete;
    ControllerImpl& operator=(ControllerImpl const&) = delete;

    void Continue() override;
    void Complete() override;
    void Sleep() override;

    // One slice.
    void Run();
    // Reports a change of state to whoever watches the tasks.
    void display_task(std::string const& op);

    basic_Id<unsigned long> id() const;
    bool complete() const { return complete_; }
    bool sleeping() const { return sleeping_; }
    unsigned runCount() const { return runCount_; }

private:
    friend class Core;

    explicit ControllerImpl(Core* core);

    // All changes are made under the core's lock, but for runCount_, which is the runner's. While the task
    // is pinned, id_ and spec_ stay as they are, and need no lock to be read.
    Core* const core_;
    id_t id_;
    Spec spec_;
    std::atomic<bool> complete_;
    std::atomic<bool> sleeping_;
    std::atomic<unsigned> runCount_;
    bool listed_;   // in the task table
    bool retired_;  // over, and waiting for reuse
    bool overdue_;  // scheduled while the pipe could not take it
    unsigned pins_; // slices and completions that are on some stack
};

// The tasks of one fd manager, and so of one thread. Lives until the library is taken down.
class ORN_API Manager : public basic_ProcessUnique<unsigned long> {
public:
    Manager();
    ~Manager() override;
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    // Throws orn::zel::Exception "NULL Task function".
    id_t NewTask(Spec const& spec);
    void Schedule(id_t id);
    // These take the task out of the table; the completion function is not their concern.
    void Cancel(id_t id);
    void Complete(id_t id);
    // One slice of a task that is in the table, else nothing.
    void Run(id_t id);

    void fd_handler(fd::Event* event);
    void load_task_queue(int fd);
    void run_task_queue();

    basic_Id<unsigned long> const& id() const { return id_; }
    int task_fd() const;
    boost::shared_ptr<Core> const& core() const { return core_; }

private:
    basic_Id<unsigned long> id_;
    boost::shared_ptr<Core> core_;
    boost::shared_ptr<fd::Monitor> monitor_;
    AutoReceptor<fd::Event*> receptor_;
};

// The calling thread's task manager, made on first use. Throws orn::zel::Exception "managerMap not
// initizalized", except in a thread that outlives the library in exit().
ORN_API boost::shared_ptr<Manager> manager();

class ORN_API TaskImpl {
public:
    explicit TaskImpl(Body const& fn);
    virtual ~TaskImpl();
    TaskImpl(TaskImpl const&) = delete;
    TaskImpl& operator=(TaskImpl const&) = delete;

    void Run();
    void Cancel();
    void Detach();
    void Name(std::string const& name);
    void Notify(Done const& done);

    id_t id; // 0 while there is no task: never started, or cancelled
    Spec spec;
    bool cancelOnDestroy;

private:
    void withdraw();

    boost::weak_ptr<Core> home_; // where the task runs, whichever thread cancels it
};

// By fd manager identifier; null while the subsystem is not loaded.
ORN_API extern std::map<id_t, boost::shared_ptr<Manager>>* managerMap;

ORN_API void zel_task_load();
ORN_API void zel_task_unload();

} // namespace task
} // namespace zel
} // namespace orn

#endif
