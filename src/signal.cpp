// SPDX-License-Identifier: MIT
#include <orn/zel/signal.hpp>

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>

#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "fork.hpp"
#include "immortal.hpp"
#include "perThread.hpp"
#include "shutdown.hpp"
#include "signalFork.hpp"
#include "signalGate.hpp"
#include "wordPipe.hpp"

namespace {

// The C library cancels a thread that waits in a system call by a signal of its own, which unwinds from where
// it arrives. In the middle of a handler there may be nothing to unwind by, and the thread would end without
// giving up its place in its group. So that signal stays blocked in the handler. sigaddset() refuses it.
void add_cancellation(sigset_t& mask) {
    unsigned const signo = 32; // glibc's SIGCANCEL
    unsigned const bits = CHAR_BIT * sizeof(unsigned long);
    // The words of the set, as the kernel has them.
    reinterpret_cast<unsigned long*>(&mask)[(signo - 1) / bits] |= 1UL << ((signo - 1) % bits);
}

// Of the signals that are pending the system delivers the one with the lowest number. Where one that is
// watched is pending again whenever its handler returns, the cancellation would never have its turn. In here
// it is only noted, since cancellation is deferred. Once in a tick of the clock, which is read without a
// system call: nobody pays for those that let it in.
void let_cancellation_in() {
    static std::atomic<long> last_tick(-1);
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (last_tick.exchange(now.tv_nsec, std::memory_order_relaxed) == now.tv_nsec)
        return;
    sigset_t mask;
    sigemptyset(&mask);
    add_cancellation(mask);
    // pthread_sigmask() refuses it, too.
    syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &mask, nullptr, NSIG / 8);
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &mask, nullptr, NSIG / 8);
}

} // namespace

extern "C" {

// What sigaction() gets. It is not exported, so no function of the application's takes its place, as one that
// is called sig_handler takes the exported one's.
void orn_zel_receive_signal(int signo);
void orn_zel_receive_signal(int signo) {
    int const error = errno;
    // A request that was made while the thread waits in a system call acts at the end, from a place that can
    // be unwound, and out of the gate. Not a scope object, because the unwinding may begin here.
    int type = PTHREAD_CANCEL_DEFERRED;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    orn::zel::detail::SignalGate::deliver(signo);
    if (type != PTHREAD_CANCEL_DEFERRED) {
        let_cancellation_in();
        pthread_testcancel(); // setting the type may act too, but then forgets PTHREAD_CANCELED
        pthread_setcanceltype(type, nullptr);
    }
    errno = error;
}

void sig_handler(int signo) __attribute__((alias("orn_zel_receive_signal")));
}

namespace orn {
namespace zel {
namespace signal {

namespace {

typedef std::map<int, boost::shared_ptr<SignalHandler>> handler_map;

struct StateLock;

// The maps, and the publishing of handlers. Never taken in signal context. The identifier lock is taken under
// it.
ThreadMutex& state_lock() {
    return detail::immortal<ThreadMutex, StateLock>();
}

handler_map* signal_handlers = nullptr; // null while the subsystem is not loaded
std::map<id_t, boost::shared_ptr<Manager>>* manager_map = nullptr;
detail::PerThread<Manager> managers(manager_map);

std::string install_failure(int signo) {
    return "failed to install handler for signal " + std::to_string(signo);
}

bool ends_the_process_by_default(int signo) {
    for (int const harmless : {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU})
        if (signo == harmless)
            return false;
    return true;
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
    {
        AutoLock const guard(lock_);
        HandlerList<int>::remove_handler(handle);
        publish();
    }
    detail::SignalGate::reclaim(); // with the lock released: what is destroyed may come back here
}

bool SignalHandlerImpl::PublishedList::knows(unsigned long handle) const {
    AutoLock const guard(lock_);
    return HandlerList<int>::knows(handle);
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
    action.sa_handler = orn_zel_receive_signal;
    sigemptyset(&action.sa_mask);
    add_cancellation(action.sa_mask);
    bool const possible = signo_ > 0 && signo_ < NSIG;
    if (possible)
        detail::SignalGate::await(signo_);
    int error = 0;
    {
        detail::ForkBarrier const barrier;
        installed_ = sigaction(signo_, &action, &saved_action_) == 0;
        if (installed_)
            detail::handler_installed(signo_, saved_action_);
        else
            error = errno;
    }
    if (!installed_) {
        if (possible)
            handlers_.withdraw();
        throw Exception(install_failure(signo_) + ": errno=" + std::to_string(error) + " (" +
                        strerror(error) + ")");
    }
}

void SignalHandlerImpl::restore_original_handler() {
    // What was raised while the signal was watched, and no thread has come to take yet, must not end the
    // process: ignoring a signal discards it. Where the default is harmless there is no need, and it does
    // harm: while SIGCHLD is ignored the exit statuses of children are lost.
    if (saved_action_.sa_handler == SIG_DFL && ends_the_process_by_default(signo_)) {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(signo_, &ignore, nullptr);
        // A client that comes late must not end a process that is in exit().
        if (signo_ == detail::channel_signal && detail::Shutdown::exiting())
            return;
    }
    sigaction(signo_, &saved_action_, nullptr);
}

bool SignalHandlerImpl::installed() const {
    return installed_ && detail::handler_in_place(signo_);
}

void SignalHandlerImpl::retire() {
    if (!installed_.exchange(false))
        return;
    // A child of fork() has got its dispositions back already, and may have chosen others.
    {
        detail::ForkBarrier const barrier;
        if (detail::handler_given_up(signo_))
            restore_original_handler();
    }
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
    if (it != signal_handlers->end()) {
        // Inherited from the parent of a fork(), and now watched in the child as well.
        if (!it->second->impl().installed())
            it->second->impl().apply_signal_handler();
        return it->second;
    }
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
        if (detail::lineage() == born)
            detail::write_word_in_signal(pipe->WriteFD(), static_cast<std::uint32_t>(signo));
    }

    boost::shared_ptr<os::Pipe> pipe; // so that it outlives an arrival that is under way
    unsigned born;
};

} // namespace

// What a manager keeps for a signal that it watches. The source outlives the registration in its list, also
// when it has been retired by an unload.
struct Manager::SignalBundle {
    SignalBundle(int signo, boost::shared_ptr<os::Pipe> const& pipe,
                 boost::shared_ptr<HandlerList<int>> const& users)
        : source(sigHandler(signo)), registration(source->handlers(), Arrival{pipe, detail::lineage()}),
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
    // The thread that watches and the one that runs the group's loop may be two. No other lock's holder comes
    // for this one. A bundle is made under it: whoever came second would otherwise put an empty list in the
    // place of one that has handlers, or have each arrival written twice.
    ThreadMutex lock_;
    std::map<int, SignalBundle> bundles_ ZEL_GUARDED_BY(lock_);
};

std::vector<int> Manager::Watch::signals() {
    std::vector<int> numbers;
    AutoLock const guard(lock_);
    for (auto const& item : bundles_)
        numbers.push_back(item.first);
    return numbers;
}

boost::shared_ptr<HandlerList<int>> Manager::Watch::list(int signo, boost::shared_ptr<os::Pipe> const& pipe,
                                                         bool rearm) {
    std::map<int, SignalBundle>::node_type replaced; // withdrawn with the lock released
    boost::shared_ptr<HandlerList<int>> users;
    {
        AutoLock const guard(lock_);
        std::map<int, SignalBundle>::const_iterator const found = bundles_.find(signo);
        if (found != bundles_.end()) {
            users = found->second.list;
            if (!rearm || found->second.source->impl().installed())
                return users;
        } else {
            users.reset(new HandlerList<int>(boost::shared_ptr<Mutex>(new RecursiveThreadMutex)));
        }
        SignalBundle const fresh(signo, pipe, users);
        replaced = bundles_.extract(signo);
        bundles_.emplace(signo, fresh);
    }
    detail::SignalGate::reclaim(); // with the lock released: what is destroyed may come back here
    return users;
}

void Manager::Watch::drain(fd::Event* event, boost::shared_ptr<os::Pipe> const& pipe) {
    detail::QueuedWords queued(*event);
    std::uint32_t word;
    while (queued.next(word)) {
        int const signo = static_cast<int>(word);
        boost::shared_ptr<HandlerList<int>> const users = list(signo, pipe, false);
        // No lock is held here: the handlers may change this list, and run a nested loop.
        Dispatch(*users, signo);
    }
}

Manager::Manager()
    : id_(detail::draw_id()), pipe_(new os::Pipe(false)), watch_(new Watch),
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
    return managers.get();
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
    cmd::Response text;
    text << "SignalMgrs:\n";
    for (auto const& item : managers.all())
        text << '[' << item.second->id() << "] fdMgr=" << item.first
             << " signal_fd=" << item.second->signal_fd();
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
    detail::SignalGate::drain(); // the code that signal context runs may be unmapped next
}

void release_managers() {
    managers.unload();
}

} // namespace signal

boost::shared_ptr<Receptacle<int, unsigned long>> Signal(int signo) {
    return signal::manager()->monitor(signo);
}

} // namespace zel
} // namespace orn
