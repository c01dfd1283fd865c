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
// A slice runs on a later turn than the call that scheduled it. A body may do to its task what anybody may,
// such as completing it, cancelling it and destroying its handle.
//
// A body may run a nested loop, in which the tasks that were to follow it in its turn go on. That goes 32
// slices deep. What is nested deeper runs only tasks that are started or continued down there.
//
// A body may throw. The exception leaves the run call, and the task waits for a Continue(). The tasks that
// were to follow it in its turn wait until some task of the thread is scheduled.
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

namespace orn::zel {

namespace task {

// Steers a task; its body receives one. Calls from any thread, and calls when the task is over do nothing.
// The object of a task that is over is reused after 1024 later tasks of its thread have ended. A pointer that
// is kept for longer steers the new task.
class ORN_API Controller {
public:
    virtual ~Controller();
    // Schedules a slice, and ends the task's sleep. Called in the task's own slice it gives two further ones,
    // since the end of that slice schedules the task as well. Wakes the loop from whatever thread.
    virtual void Continue() = 0;
    // Ends the task: there is no further slice. Calls the completion function on the calling thread, before
    // it returns.
    virtual void Complete() = 0;
    // No slice follows the present one until Continue().
    virtual void Sleep() = 0;
};

using Body = boost::function<void(Controller*)>;
using Done = boost::function<void()>;

class TaskImpl;

} // namespace task

// A handle of one task, which is cancelled when this dies. One thread at a time may use it.
class ORN_API Task {
public:
    explicit Task(task::Body fn);
    virtual ~Task();

    // Starts the task on the loop of the calling thread's group. Throws orn::zel::Exception "NULL Task
    // function", and "managerMap not initizalized" while the library is not loaded. A second call starts a
    // second task, and the handle forgets the first.
    void Run();
    // From any thread. Does not wait: a slice that is under way goes on to its end. The completion function
    // is not called. Throws like Run() while the library is not loaded.
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

// Starts a task that has no handle: it lives until it completes, or until its thread's tasks are unloaded.
// Throws what Task::Run() throws.
ORN_API void RunTask(task::Body fn);
ORN_API void RunTask(task::Body fn, task::Done done);

namespace task {

// Writes the process's task managers and the calling thread's tasks to the descriptor. The name is not used.
// A thread that has no task manager is given one, and with it two descriptors.
ORN_API void ListTasks(std::string const& name, int fd);

// Writes a line to the descriptor whenever a task is made, runs, sleeps, continues or completes. The thread
// that does so writes it, and waits if the descriptor blocks. There is one such descriptor in the process. It
// stays the caller's, who switches off before closing it. Neither call uses the name, and switching off
// ignores the descriptor.
ORN_API void Monitor(std::string const& name, int fd);
ORN_API void Unmonitor(std::string const& name, int fd);

// ---- The implementation behind the interfaces -----------------------------------------------------------

class Manager;

// The pipe, the task table and the run queue of one manager. The handler on the pipe shares it, so that a
// slice which is under way in another thread when the process exits still finds it. Internal to the library.
class Core;

struct Spec {
    std::string name;
    Body fn;
    Done done;
};

// One task. The objects of a manager's tasks are reused, and freed with its core.
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
    unsigned runCount() const { return run_count_; }

private:
    friend class Core;

    ORN_LOCAL explicit ControllerImpl(Core* core);

    // Changed under the core's lock, except for run_count_, which only the thread that runs the slice
    // changes. id_ and spec_ do not change while the task is pinned, and are read without the lock then.
    Core* const core_;
    id_t id_;
    Spec spec_;
    std::atomic<bool> complete_;
    std::atomic<bool> sleeping_;
    std::atomic<unsigned> run_count_;
    bool listed_;   // in the task table
    bool retired_;  // over, and waiting for reuse
    bool overdue_;  // scheduled while the pipe could not take it
    unsigned pins_; // how many of its slices and completions are on a stack
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
    // Both take the task out of the table, and do not call the completion function.
    void Cancel(id_t id);
    void Complete(id_t id);
    // Runs one slice of a task that is in the table, and does nothing for any other.
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
// initizalized" while the library is not loaded. A thread that outlives the library in exit() still gets its
// manager.
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
    ORN_LOCAL void withdraw();

    boost::weak_ptr<Core> home_; // where the task runs, whichever thread cancels it
};

// The managers by the id of their fd manager. Null while the subsystem is not loaded.
ORN_API extern std::map<id_t, boost::shared_ptr<Manager>>* managerMap;

ORN_API void zel_task_load();
ORN_API void zel_task_unload();

} // namespace task
} // namespace orn::zel

#endif
