// SPDX-License-Identifier: MIT
#include <orn/zel/signal.hpp>

#include <cerrno>
#include <cstring>
#include <vector>

#include <pthread.h>

#include <boost/bind/bind.hpp>

#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "immortal.hpp"
#include "process.hpp"
#include "shutdown.hpp"
#include "signalGate.hpp"
#include "wire.hpp"

namespace orn {
namespace zel {
namespace signal {

namespace {

typedef std::map<int, boost::shared_ptr<SignalHandler>> handler_map;
typedef std::map<unsigned long, boost::shared_ptr<Manager>> manager_map;

struct StateLock;

// The maps, and the publishing of handlers. Never taken in signal context. The identifier lock is taken under
// it.
ThreadMutex& state_lock() {
    return detail::immortal<ThreadMutex, StateLock>();
}

handler_map* signal_handlers = nullptr; // null while the subsystem is not loaded
manager_map* managers = nullptr;

std::string install_failure(int signo) {
    return "failed to install handler for signal " + std::to_string(signo);
}

} // namespace

// ---- The process-wide handlers --------------------------------------------------------------------------

bool SignalHandlerImpl::PublishedList::insert_handler(std::pair<const unsigned long, receptor_type> entry) {
    AutoLock const guard(lock_);
    HandlerList<int>::insert_handler(entry);
    publish();
    return true;
}

void SignalHandlerImpl::PublishedList::remove_handler(id_t handle) {
    AutoLock const guard(lock_);
    HandlerList<int>::remove_handler(handle);
    publish();
}

void SignalHandlerImpl::PublishedList::withdraw() {
    AutoLock const guard(lock_);
    detail::SignalGate::publish(owner_.signo_, detail::SignalGate::functions_type());
}

void SignalHandlerImpl::PublishedList::publish() {
    if (owner_.installed_)
        detail::SignalGate::publish(owner_.signo_, handlers());
}

SignalHandlerImpl::SignalHandlerImpl(int signo)
    : signo_(signo), saved_action_(), installed_(false), handlers_(*this) {
    apply_signal_handler();
}

SignalHandlerImpl::~SignalHandlerImpl() {
    retire();
}

void SignalHandlerImpl::apply_signal_handler() {
    struct sigaction action = {};
    action.sa_handler = sig_handler;
    sigemptyset(&action.sa_mask);
    bool const possible = signo_ > 0 && signo_ < NSIG;
    if (possible)
        detail::SignalGate::await(signo_);
    installed_ = sigaction(signo_, &action, &saved_action_) == 0;
    if (!installed_) {
        int const error = errno;
        if (possible)
            handlers_.withdraw();
        throw Exception(install_failure(signo_) + ": errno=" + std::to_string(error) + " (" +
                        strerror(error) + ")");
    }
}

void SignalHandlerImpl::restore_original_handler() {
    // What was raised while the signal was watched, and no thread has come to take yet, must not end the
    // process: ignoring a signal discards it.
    if (saved_action_.sa_handler == SIG_DFL) {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(signo_, &ignore, nullptr);
        // A client that comes late must not end a process that is in exit().
        if (signo_ == detail::channel_signal && detail::Shutdown::exiting())
            return;
    }
    sigaction(signo_, &saved_action_, nullptr);
}

void SignalHandlerImpl::retire() {
    if (!installed_.exchange(false))
        return;
    restore_original_handler();
    handlers_.withdraw();
}

void SignalHandlerImpl::handle_signal() {
    detail::SignalGate::deliver(signo_);
}

SignalHandler::SignalHandler(int signo) : impl_(new SignalHandlerImpl(signo)) {}
SignalHandler::~SignalHandler() = default;

void SignalHandler::handle_signal() {
    impl_->handle_signal();
}

HandlerList<int>& SignalHandler::handlers() {
    return impl_->handlers();
}

boost::shared_ptr<SignalHandler> sigHandler(int signo) {
    AutoLock const guard(state_lock());
    if (!signal_handlers)
        signal_handlers = new handler_map;
    handler_map::const_iterator const it = signal_handlers->find(signo);
    if (it != signal_handlers->end())
        return it->second;
    boost::shared_ptr<SignalHandler> made(new SignalHandler(signo));
    signal_handlers->insert(std::make_pair(signo, made));
    return made;
}

// ---- Manager --------------------------------------------------------------------------------------------

namespace {

// What signal context calls for a watching manager.
struct Arrival {
    void operator()(int signo) const {
        // In a child of fork(), whose pipe is its parent's: the parent was not sent this signal.
        if (detail::process_id() == owner)
            detail::write_word_in_signal(pipe->WriteFD(), static_cast<std::uint32_t>(signo));
    }

    boost::shared_ptr<os::Pipe> pipe;
    pid_t owner;
};

// For lists that replay changes, which lock them once more, under their lock.
class RecursiveMutex : public Mutex {
public:
    RecursiveMutex() : owner_(0), depth_(0) {}

    void Lock() override ZEL_NO_ANALYSIS {
        int const me = thread::self();
        if (owner_ != me) {
            mutex_.Lock();
            owner_ = me;
        }
        ++depth_;
    }

    void Unlock() override ZEL_NO_ANALYSIS {
        if (--depth_ == 0) {
            owner_ = 0;
            mutex_.Unlock();
        }
    }

private:
    ThreadMutex mutex_;
    std::atomic<int> owner_; // only ever equal to a thread's id when that thread has set it
    unsigned depth_;
};

} // namespace

// What a manager keeps for a signal that it watches. The source outlives the registration in its list, also
// when it has been retired by an unload.
struct Manager::SignalBundle {
    SignalBundle(int signo, boost::shared_ptr<os::Pipe> const& pipe,
                 boost::shared_ptr<HandlerList<int>> const& users)
        : source(sigHandler(signo)), registration(source->handlers(), Arrival{pipe, detail::process_id()}),
          list(users) {}

    boost::shared_ptr<SignalHandler> source;
    orn::zel::AutoReceptor<int> registration;
    boost::shared_ptr<HandlerList<int>> list;
};

struct Manager::Watch {
    // With rearm, a bundle whose source was retired by an unload is tied to the signal anew.
    boost::shared_ptr<HandlerList<int>> list(int signo, boost::shared_ptr<os::Pipe> const& pipe, bool rearm);
    void drain(fd::Event* event, boost::shared_ptr<os::Pipe> const& pipe);

    std::vector<int> signals();

private:
    boost::shared_ptr<HandlerList<int>> find(int signo, bool& retired);

    // The thread that watches and the one that runs the group's loop may be two. A leaf: bundles are made and
    // destroyed with it released.
    ThreadMutex lock_;
    std::map<int, SignalBundle> bundles_ ZEL_GUARDED_BY(lock_);
};

boost::shared_ptr<HandlerList<int>> Manager::Watch::find(int signo, bool& retired) {
    AutoLock const guard(lock_);
    std::map<int, SignalBundle>::const_iterator const it = bundles_.find(signo);
    if (it == bundles_.end())
        return boost::shared_ptr<HandlerList<int>>();
    retired = !it->second.source->impl().installed();
    return it->second.list;
}

std::vector<int> Manager::Watch::signals() {
    std::vector<int> numbers;
    AutoLock const guard(lock_);
    for (auto const& item : bundles_)
        numbers.push_back(item.first);
    return numbers;
}

boost::shared_ptr<HandlerList<int>> Manager::Watch::list(int signo, boost::shared_ptr<os::Pipe> const& pipe,
                                                         bool rearm) {
    bool retired = false;
    boost::shared_ptr<HandlerList<int>> users = find(signo, retired);
    if (users && !(rearm && retired))
        return users;
    if (!users)
        users.reset(new HandlerList<int>(boost::shared_ptr<Mutex>(new RecursiveMutex)));
    SignalBundle const fresh(signo, pipe, users);
    std::map<int, SignalBundle>::node_type replaced;
    AutoLock const guard(lock_);
    replaced = bundles_.extract(signo);
    bundles_.emplace(signo, fresh);
    return users;
}

void Manager::Watch::drain(fd::Event* event, boost::shared_ptr<os::Pipe> const& pipe) {
    if (!(event->revents() & POLLIN))
        return;
    detail::QueuedWords queued(event->fd());
    std::uint32_t word;
    while (queued.next(word)) {
        int const signo = static_cast<int>(word);
        boost::shared_ptr<HandlerList<int>> const users = list(signo, pipe, false);
        // No lock is held here: the handlers may change this list, and run a nested loop.
        Dispatch(*users, signo);
    }
}

Manager::Manager()
    : id_(next_id()), pipe_(new os::Pipe(false)), watch_(new Watch),
      receptor_(pipe_->ReadFD(),
                [watch = watch_, pipe = pipe_](fd::Event* event) { watch->drain(event, pipe); }) {}

Manager::~Manager() = default;

boost::shared_ptr<Receptacle<int, unsigned long>> Manager::monitor(int signo) {
    return watch_->list(signo, pipe_, true);
}

ssize_t Manager::signal_handler(int signo) {
    return detail::write_word_in_signal(pipe_->WriteFD(), static_cast<std::uint32_t>(signo));
}

void Manager::fd_handler(fd::Event* event) {
    watch_->drain(event, pipe_);
}

int Manager::signal_fd() const {
    return pipe_->ReadFD();
}

std::vector<int> Manager::signals() const {
    return watch_->signals();
}

boost::shared_ptr<Manager> manager() {
    id_t const key = thread::FdMgr()->id().value();
    {
        AutoLock const guard(state_lock());
        if (!managers)
            managers = new manager_map;
        boost::shared_ptr<Manager> const& found = (*managers)[key];
        if (found)
            return found;
    }
    // Made with the lock released, since it registers with the group. Only the thread itself has this key.
    boost::shared_ptr<Manager> const made(new Manager);
    AutoLock const guard(state_lock());
    if (!managers)
        managers = new manager_map;
    return (*managers)[key] = made;
}

AutoReceptor::AutoReceptor(int signo, boost::function<void(int)> handler)
    : list_(Signal(signo)), receptor_(*list_, handler) {}

AutoReceptor::~AutoReceptor() = default;

// ---- The process's signal state -------------------------------------------------------------------------

namespace {

bool has_disposition(int signo, void (*handler)(int)) {
    struct sigaction current = {};
    return sigaction(signo, nullptr, &current) == 0 && !(current.sa_flags & SA_SIGINFO) &&
           current.sa_handler == handler;
}

} // namespace

bool is_ignored(int signo) {
    return has_disposition(signo, SIG_IGN);
}

bool is_default(int signo) {
    return has_disposition(signo, SIG_DFL);
}

bool is_pending(int signo) {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, signo) == 1;
}

int block(sigset_t* set, sigset_t* old) {
    sigemptyset(old);
    return sigprocmask(SIG_BLOCK, set, old);
}

int unblock(sigset_t* set, sigset_t* old) {
    sigemptyset(old);
    return sigprocmask(SIG_UNBLOCK, set, old);
}

int blocked(sigset_t* set) {
    sigemptyset(set);
    return sigprocmask(SIG_SETMASK, nullptr, set);
}

int ignore(int signo) {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    if (sigaction(signo, &action, nullptr) != 0)
        throw Exception(install_failure(signo));
    return 0;
}

void ListSignals(std::string const&, int fd) {
    manager_map known;
    {
        AutoLock const guard(state_lock());
        if (managers)
            known = *managers;
    }
    cmd::Response text;
    text << "SignalMgrs:\n";
    for (auto const& item : known) {
        if (item.second)
            text << '[' << item.second->id() << "] fdMgr=" << item.first
                 << " signal_fd=" << item.second->signal_fd();
    }
    text << " signals={ ";
    for (int const signo : manager()->signals())
        text << signo << ' ';
    text << '}';
    cmd::Write(fd, text);
}

// ---- Load and unload ------------------------------------------------------------------------------------

void zel_signal_load() {
    AutoLock const guard(state_lock());
    if (!signal_handlers)
        signal_handlers = new handler_map;
}

void zel_signal_unload() {
    std::unique_ptr<handler_map> doomed;
    {
        AutoLock const guard(state_lock());
        doomed.reset(signal_handlers);
        signal_handlers = nullptr;
    }
    if (!doomed)
        return;
    // Explicitly, because the bundles of managers that live on share the handlers.
    for (auto const& item : *doomed)
        item.second->impl().retire();
}

void release_managers() {
    std::unique_ptr<manager_map> doomed; // outside the lock: managers withdraw their registrations
    AutoLock const guard(state_lock());
    doomed.reset(managers);
    managers = nullptr;
}

} // namespace signal

boost::shared_ptr<Receptacle<int, unsigned long>> Signal(int signo) {
    return signal::manager()->monitor(signo);
}

} // namespace zel
} // namespace orn

void sig_handler(int signo) {
    int const error = errno;
    // While a thread waits in a system call, a cancellation may act at any instruction, also in here: the
    // handler must first be out of the gate. Not a scope object, because the unwinding may begin here.
    int type = PTHREAD_CANCEL_DEFERRED;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    orn::zel::detail::SignalGate::deliver(signo);
    if (type != PTHREAD_CANCEL_DEFERRED) {
        pthread_testcancel(); // setting the type may act too, but then forgets PTHREAD_CANCELED
        pthread_setcanceltype(type, nullptr);
    }
    errno = error;
}
