// SPDX-License-Identifier: MIT
//
// POSIX signals as events of the loop. Public. A signal's arrival is written into a pipe in signal context;
// the handlers run later on the loop of each group that watches the signal, where they may do anything.
//
// From examples/04_signal.cpp:
//
//     bool stop = false;
//     orn::zel::signal::AutoReceptor terminate(SIGTERM, [&stop](int) { stop = true; });
//     orn::zel::SetAlarm(10, [] { kill(getpid(), SIGTERM); });
//     while (!stop)
//         orn::zel::RunOnce(-1);
//
// The library's own handler is installed when a signal is first watched, without SA_RESTART. It replaces
// whatever was there, which is put back when the library is taken down, and not earlier. Each arrival gives
// one call, except where the system merges pending signals. A signal may be watched at any time, from any
// thread, also while it arrives.
//
// An arrival calls the handlers that are registered when its turn comes, in the order of their registration.
// A handler is still called when an earlier one of the same arrival has destroyed its receptor, so what it
// uses must live on for that long.
//
// A handler that throws ends its arrival for the thread: the handlers after it are not called, and arrivals
// that are still in the pipe wait for the next turn. Registrations that are made or ended before the next
// arrival take effect after that one.
//
// A child of fork() has the dispositions back that were there before the signals were watched. If it goes on
// to use the library, it watches its signals anew.
#ifndef ORN_ZEL_SIGNAL_HPP
#define ORN_ZEL_SIGNAL_HPP

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>
#include <sys/types.h>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/os/Pipe.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>
#include <orn/zel/receptacle.hpp>

namespace orn::zel {

// The calling thread's handlers for a signal; insert() adds one. Throws orn::zel::Exception "failed to
// install handler for signal <n>: errno=<e> (<text>)" when the system refuses the signal.
ORN_API boost::shared_ptr<Receptacle<int, unsigned long>> Signal(int signo);

namespace detail {

class Answer;

} // namespace detail

namespace signal {

// Calls the handler on the calling thread's group for each arrival of a signal, for as long as this lives.
// Make and destroy it on one thread; a handler may destroy its own. Throws what Signal() throws, or
// orn::Exception "Empty handler function".
class ORN_API AutoReceptor {
public:
    AutoReceptor(int signo, boost::function<void(int)> handler);
    ~AutoReceptor();
    AutoReceptor(AutoReceptor const&) = delete;
    AutoReceptor& operator=(AutoReceptor const&) = delete;

private:
    boost::shared_ptr<Receptacle<int, unsigned long>> list_; // kept for as long as the registration
    orn::zel::AutoReceptor<int> receptor_;
};

// The state of signals, as the system tells it to the calling thread.
ORN_API bool is_ignored(int signo);
ORN_API bool is_default(int signo);
ORN_API bool is_pending(int signo);
// Change the calling thread's mask; old receives the mask before. Return what sigprocmask() returns.
ORN_API int block(sigset_t* set, sigset_t* old);
ORN_API int unblock(sigset_t* set, sigset_t* old);
// Reads the calling thread's mask into set. Returns what sigprocmask() returns.
ORN_API int blocked(sigset_t* set);
// Has the process ignore the signal. Returns 0; throws orn::zel::Exception "failed to install handler for
// signal <n>".
ORN_API int ignore(int signo);

// Writes the signal managers of the process, and the signals that the calling thread watches, to the
// descriptor. The name is not used. A thread that has no signal manager is given one, and with it two
// descriptors.
ORN_API void ListSignals(std::string const& name, int fd);

// ---- The implementation behind the interfaces -----------------------------------------------------------

class Manager;
class SignalHandlerImpl;

// Owns the process's handler for one signal.
class ORN_API SignalHandler {
public:
    // Installs it; throws as Signal() does.
    explicit SignalHandler(int signo);
    virtual ~SignalHandler();
    SignalHandler(SignalHandler const&) = delete;
    SignalHandler& operator=(SignalHandler const&) = delete;

    // Tells every watching manager. Signal-safe.
    void handle_signal();
    // The functions that are called in signal context, so each must be signal-safe. A function may still be
    // running in another thread when remove() has returned, so it holds what it uses. It is destroyed when no
    // signal's handler is running, by a later change here or by unloading. A function that is jumped out of
    // keeps everything that is removed after it from being destroyed; unloading waits a second for it.
    HandlerList<int>& handlers();
    SignalHandlerImpl& impl() { return *impl_; }

private:
    std::unique_ptr<SignalHandlerImpl> impl_;
};

class ORN_API SignalHandlerImpl {
public:
    explicit SignalHandlerImpl(int signo);
    virtual ~SignalHandlerImpl();
    SignalHandlerImpl(SignalHandlerImpl const&) = delete;
    SignalHandlerImpl& operator=(SignalHandlerImpl const&) = delete;

    void handle_signal();
    HandlerList<int>& handlers() { return handlers_; }
    void apply_signal_handler();
    void restore_original_handler();

    bool installed() const;
    // Puts the disposition back that was there before, although this may live on.
    void retire();

private:
    // The handlers in the form that signal context reads: every change publishes a new, immutable snapshot.
    class PublishedList : public HandlerList<int> {
    public:
        explicit PublishedList(SignalHandlerImpl& owner) : owner_(owner) {}
        ORN_LOCAL bool insert_handler(std::pair<const unsigned long, receptor_type> entry) override;
        ORN_LOCAL void remove_handler(id_t handle) override;
        ORN_LOCAL void withdraw();

    protected:
        ORN_LOCAL bool knows(unsigned long handle) const override;

    private:
        ORN_LOCAL void publish();
        SignalHandlerImpl& owner_;
        mutable RecursiveThreadMutex lock_; // threads come and go; never taken in signal context
    };

    int const signo_;
    struct sigaction saved_action_;
    std::atomic<bool> installed_;
    PublishedList handlers_;
};

// The process-wide handler of a signal, made and installed on first use.
ORN_API boost::shared_ptr<SignalHandler> sigHandler(int signo);

// The signals that one thread watches, and their pipe. Lives until the library is taken down.
class ORN_API Manager : public basic_ProcessUnique<unsigned long> {
public:
    Manager();
    ~Manager() override;
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    boost::shared_ptr<Receptacle<int, unsigned long>> monitor(int signo);
    // Writes the number into the pipe, and returns what write() returns. Signal-safe.
    ssize_t signal_handler(int signo);
    // Calls the thread's handlers for every number in the pipe.
    void fd_handler(fd::Event* event);

    basic_Id<unsigned long> const& id() const { return id_; }
    int signal_fd() const;
    // The numbers watched, in ascending order. The manager's own thread only.
    std::vector<int> signals() const;
    // Internal to the library, for the word "inspect": an object for each signal of this thread. Any thread.
    ORN_LOCAL void tell(int tid, detail::Answer& answer) const;

private:
    struct ORN_LOCAL Inbox;
    struct ORN_LOCAL SignalBundle;
    struct ORN_LOCAL Watch;

    basic_Id<unsigned long> id_;
    // The handler on the pipe shares the inbox and what is watched, so that a call which is under way in
    // another thread when the process exits still finds them. Signal context shares the inbox only.
    boost::shared_ptr<Inbox> inbox_;
    boost::shared_ptr<Watch> watch_;
    fd::AutoReceptor receptor_;
};

// The calling thread's signal manager, made on first use.
ORN_API boost::shared_ptr<Manager> manager();

ORN_API void zel_signal_load();
// Puts every disposition back. Managers, and with them the handlers of users, live on.
ORN_API void zel_signal_unload();
// Ends the managers. The last step of taking the library down, after all subsystems.
ORN_API void release_managers();

} // namespace signal
} // namespace orn::zel

extern "C" {
// What sigaction() installs for every watched signal.
ORN_API void sig_handler(int signo);
}

#endif
