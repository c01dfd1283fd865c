// SPDX-License-Identifier: MIT
//
// The thread object: what its thread runs, and how both of them agree on the start and the end.
#include <orn/zel/Thread.hpp>

#include <cstdint>
#include <system_error>

#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/zel/threadGroup.hpp>

#include "fixedLine.hpp"
#include "shared.hpp"

// What the thread layer is told to run. threadProc is the same function, but exported: a function of the
// application's with that name would take its place.
extern "C" void* orn_zel_run_thread(void* ptr);

namespace orn::zel {

namespace {

unsigned const poll_microseconds = 5;

// Tells that the thread ends, however it does: it returns, leaves in the middle of Init() or Run(), or is
// cancelled.
class Ending {
public:
    explicit Ending(Thread::RunData& data) : data_(data) {}
    ~Ending() {
        data_.initialized = true; // else a thread that left in Init() would keep its creator waiting
        AutoLock const guard(data_.mutex);
        data_.ended = true;
    }
    Ending(Ending const&) = delete;
    Ending& operator=(Ending const&) = delete;

private:
    Thread::RunData& data_;
};

int run(Thread::RunData& data) {
    data.runnable->Init();
    data.initialized = true;
    {
        // A thread that Stop() cancels right after Start() must begin its work, and end in there.
        internal::CancelShield const shield;
        while (!data.start && !data.stop)
            usleep(poll_microseconds);
    }
    return data.start ? data.runnable->Run() : 0;
}

} // namespace

// ---- Runnable -------------------------------------------------------------------------------------------

Runnable::~Runnable() = default;

int Runnable::Init() {
    return init.empty() ? 0 : init();
}

int Runnable::Run() {
    return run();
}

int Runnable::Cancel() {
    return cancel.empty() ? -1 : cancel();
}

RunnableReference::~RunnableReference() = default;

int RunnableReference::Init() {
    return runnable_.Init();
}

int RunnableReference::Run() {
    return runnable_.Run();
}

int RunnableReference::Cancel() {
    return runnable_.Cancel();
}

// ---- Thread ---------------------------------------------------------------------------------------------

Thread::JoinDetached::JoinDetached() : Exception("attempt to join a detached thread") {}
Thread::JoinDetached::~JoinDetached() = default;

Thread::Thread() : Thread(boost::shared_ptr<Runnable>()) {
    Thread::Start();
}

Thread::Thread(Runnable& runnable)
    : Thread(boost::shared_ptr<Runnable>(detail::make_shared<RunnableReference>(boost::ref(runnable)))) {}

Thread::Thread(boost::shared_ptr<Runnable> runnable)
    : id_(0), runnable_(runnable), run_data_(detail::make_shared<RunData>(runnable)), detached_(false),
      stopped_(false), handle_(), joined_(false) {
    InitializeThread();
}

Thread::Thread(boost::function<int()> run)
    : Thread([&run] {
          boost::shared_ptr<Runnable> work = detail::make_shared<Runnable>();
          work->run.swap(run);
          return work;
      }()) {}

Thread::~Thread() {
    // A thread that was detached before Start() would wait for a call that nobody can make any more.
    if (detached_)
        run_data_->stop = true;
    if (stopped_ || detached_)
        return;
    // Joining is a cancellation point, and an unwinding that leaves a destructor ends the process.
    internal::CancelShield const shield;
    Thread::Stop();
    Thread::Join();
}

void Thread::InitializeThread() {
    if (!runnable_)
        return;
    // A cancellation in here would destroy the object while its thread uses it.
    internal::CancelShield const shield;
    int const error = orn_zel_pthread_create(&handle_, nullptr, orn_zel_run_thread, &run_data_);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "thread");
    while (!run_data_->initialized)
        usleep(poll_microseconds);
    id_ = run_data_->thread_id;
}

void Thread::Start() {
    run_data_->start = true;
}

void Thread::Stop() {
    if (id_ != 0) {
        if (!run_data_->start) {
            run_data_->stop = true;
        } else if (runnable_ && !stopped_ && runnable_->Cancel() != 0) {
            // The handle of a detached thread dies with it. The lock keeps the thread from ending right now.
            AutoLock const guard(run_data_->mutex);
            if (!detached_ || !run_data_->ended)
                orn_zel_pthread_cancel(handle_);
        }
    }
    stopped_ = true;
}

bool Thread::isStopped() {
    return stopped_;
}

void Thread::Detach() {
    if (id_ == 0 || !runnable_ || detached_ || joined_)
        return;
    orn_zel_pthread_detach(handle_);
    detached_ = true;
}

bool Thread::isDetached() {
    return detached_;
}

void Thread::Join() {
    if (!runnable_ || id_ == 0)
        return;
    if (detached_)
        throw JoinDetached();
    if (joined_)
        return;
    void* value = nullptr;
    joined_ = orn_zel_pthread_join(handle_, &value) == 0;
    stopped_ = true;
    status_ = static_cast<int>(reinterpret_cast<std::intptr_t>(value));
}

PossiblyUndefined<int> Thread::Status() const {
    return status_;
}

} // namespace orn::zel

extern "C" {

void* orn_zel_run_thread(void* ptr) {
    using namespace orn::zel;
    detail::check(ptr != nullptr, "ptr", "src/Thread", detail::line_of_thread_start);
    // A copy: the object may be gone before its thread.
    boost::shared_ptr<Thread::RunData> const data = *static_cast<boost::shared_ptr<Thread::RunData>*>(ptr);
    data->thread_id = thread::self();
    Ending const ending(*data);
    void* const result = reinterpret_cast<void*>(static_cast<std::intptr_t>(run(*data)));
    orn_zel_pthread_exit(result);
    return result; // a host's own exit function may return
}

void* threadProc(void* ptr) __attribute__((alias("orn_zel_run_thread")));
}
