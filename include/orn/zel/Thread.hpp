// SPDX-License-Identifier: MIT
//
// A thread as an object, with a start in two phases. Public. Making the object starts the thread and has it
// initialise its work; the work itself begins with Start(). Threads made here join their creator's group, see
// threadGroup.hpp.
//
// From examples/10_Thread.cpp:
//
//     Counting work;
//     orn::zel::Thread worker(work); // Init() has run when this returns
//     worker.Start();
//     worker.Join();
//     std::printf("counted to %d\n", worker.Status().value());
//
// The life of a thread, with the calls that lead on:
//
//     constructor: create, Init()
//         |
//         v
//     Initialised --- Stop() ------------------------------------------------> Ended, with status 0
//         |                                                                      ^   |
//       Start()                                                                  |   | Join()
//         v                                                                      |   v
//     Running --- Run() returns; Stop(), when Cancel() cannot end the work ------+  Joined, Status() defined
//
//     Detach(), in any state before Joined: the thread ends unobserved, and Join() throws. One that was never
//     started ends, without running its work, when the object is destroyed.
//
// The members are for the owner of the object, one thread at a time. All platform calls go through the
// orn_zel_pthread_ pointers of threadFunctions.hpp.
#ifndef ORN_ZEL_THREAD_HPP
#define ORN_ZEL_THREAD_HPP

#include <atomic>
#include <type_traits>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>
#include <orn/zel/threadFunctions.hpp>

namespace orn::zel {

// The work of a thread: override the three operations, or fill in the three functions. An exception out of
// Init() or Run() ends the process, as it does for any thread.
class ORN_API Runnable {
public:
    Runnable() {}
    virtual ~Runnable();

    // Called in the new thread, while the constructor of Thread waits. The result is not used.
    virtual int Init();
    // Called in the new thread, after Start(). The result is the thread's status.
    virtual int Run();
    // Called by Stop(), on its caller's thread, to ask the work to end itself. Anything but 0 says that it
    // cannot, and has the thread cancelled. Without a function the result is -1.
    virtual int Cancel();

    boost::function<int()> init;
    boost::function<int()> run;
    boost::function<int()> cancel;
};

// Stands for another Runnable, which must outlive it.
class ORN_API RunnableReference : public Runnable {
public:
    explicit RunnableReference(Runnable& runnable) : runnable_(runnable) {}
    ~RunnableReference() override;

    int Init() override;
    int Run() override;
    int Cancel() override;

private:
    Runnable& runnable_;
};

class ORN_API Thread {
public:
    // What the object and its thread share.
    struct RunData {
        explicit RunData(boost::shared_ptr<Runnable> const& work)
            : runnable(work), initialized(false), start(false), stop(false), thread_id(0), ended(false) {}

        boost::shared_ptr<Runnable> runnable;
        std::atomic<bool> initialized;
        std::atomic<bool> start;
        std::atomic<bool> stop;
        std::atomic<int> thread_id; // as thread::self() says it

        ThreadMutex mutex;
        bool ended ZEL_GUARDED_BY(mutex); // the handle of a detached thread is good until then
    };

    // "attempt to join a detached thread"
    class ORN_API JoinDetached : public Exception {
    public:
        JoinDetached();
        ~JoinDetached() override;
    };

    // No work, no thread: Id() is 0, and Join() returns at once.
    Thread();

    // These block until the new thread has run Init(), and are no cancellation points. They throw
    // std::system_error when the system refuses the thread. An empty pointer gives an object without a
    // thread.
    explicit Thread(Runnable& runnable); // which must outlive the thread
    explicit Thread(boost::shared_ptr<Runnable> runnable);
    explicit Thread(boost::function<int()> run);
    template <class Work, class = typename std::enable_if<std::is_convertible<Work*, Runnable*>::value>::type>
    explicit Thread(boost::shared_ptr<Work> const& runnable)
        : Thread(boost::shared_ptr<Runnable>(runnable)) {}

    // Stops and joins, unless Stop(), Join() or Detach() has been called, and so may block. Not a
    // cancellation point. After Stop() call Join() first: the thread is not joined here, and its memory would
    // stay.
    virtual ~Thread();

    virtual void Start();
    // Has the thread end, and does not wait for that. When it was started, this calls Runnable::Cancel(),
    // once, and cancels the thread when that fails; when it was not, the thread ends without running the
    // work.
    virtual void Stop();
    // Whether Stop() or Join() has been called.
    virtual bool isStopped();
    virtual void Detach();
    virtual bool isDetached();
    // Blocks until the thread has ended. Does nothing when there is no thread, or it has been joined. Throws
    // JoinDetached.
    virtual void Join();
    // The result of Run(), 0 when it never ran, -1 when it was cancelled; undefined before Join().
    virtual PossiblyUndefined<int> Status() const;

    // The kernel's id of the thread.
    int Id() const { return id_; }

    // The first phase; the constructors call it.
    void InitializeThread();

    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

private:
    int id_;
    boost::shared_ptr<Runnable> runnable_;
    boost::shared_ptr<RunData> run_data_;
    bool detached_;
    bool stopped_;
    PossiblyUndefined<int> status_;
    o_pthread_t handle_;
    bool joined_; // the handle is void
};

} // namespace orn::zel

// What every thread made here runs; the argument is the address of its Thread's shared RunData pointer.
extern "C" ORN_API void* threadProc(void* ptr);

#endif
