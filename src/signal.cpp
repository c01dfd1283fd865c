// SPDX-License-Identifier: MIT
//
// Signals of the process: the handler that is installed for those that are watched, dispositions and masks.
// What a thread watches, and how an arrival comes to its loop, is in signalManager.cpp.
#include <orn/zel/signal.hpp>

#include <cerrno>
#include <climits>
#include <cstring>

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "immortal.hpp"
#include "shared.hpp"
#include "shutdown.hpp"
#include "signalFork.hpp"
#include "signalGate.hpp"

namespace {

// Adds the signal with which the C library cancels a thread that waits in a system call. Its handler unwinds
// the stack from where it arrives. In the middle of another handler there may be nothing to unwind by, and
// the thread would end without giving up its place in its group, so this signal stays blocked there.
void add_cancellation(sigset_t& mask) {
    unsigned const signo = 32; // glibc's SIGCANCEL
    unsigned const bits = CHAR_BIT * sizeof(unsigned long);
    // sigaddset() refuses this signal, so its bit is set in the words of the set, as the kernel has them.
    reinterpret_cast<unsigned long*>(&mask)[(signo - 1) / bits] |= 1UL << ((signo - 1) % bits);
}

// Lets a pending cancellation arrive, once in a tick of a clock that is read without a system call. Of the
// pending signals the system delivers the one with the lowest number, so a watched signal that is pending
// again whenever its handler returns would keep the cancellation out for ever. While cancellation is
// deferred, its arrival is only noted, and nothing is unwound from here.
void let_cancellation_in() {
    static std::atomic<long> last_tick(-1);
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (last_tick.exchange(now.tv_nsec, std::memory_order_relaxed) == now.tv_nsec)
        return;
    sigset_t mask;
    sigemptyset(&mask);
    add_cancellation(mask);
    // Bare system calls, since pthread_sigmask() refuses this signal, too.
    syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &mask, nullptr, NSIG / 8);
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &mask, nullptr, NSIG / 8);
}

} // namespace

extern "C" {

// The handler that sigaction() gets. It is not exported: an application may have a function named
// sig_handler, which takes the place of the exported one.
void orn_zel_receive_signal(int signo);
void orn_zel_receive_signal(int signo) {
    int const error = errno;
    // A request to cancel a thread that waits in a system call must not act inside the gate. It is deferred,
    // and acts at the end, from where the stack can be unwound. A scope object would not do, since its
    // destructor cannot be left by unwinding.
    int type = PTHREAD_CANCEL_DEFERRED;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    orn::zel::detail::SignalGate::deliver(signo);
    if (type != PTHREAD_CANCEL_DEFERRED) {
        let_cancellation_in();
        pthread_testcancel(); // pthread_setcanceltype() may act, too, but loses PTHREAD_CANCELED
        pthread_setcanceltype(type, nullptr);
    }
    errno = error;
}

void sig_handler(int signo) __attribute__((alias("orn_zel_receive_signal")));
}

namespace orn::zel::signal {

namespace {

using HandlerMap = std::map<int, boost::shared_ptr<SignalHandler>>;

struct HandlersLock;

// Held while a handler is looked up or made. Never taken in signal context.
ThreadMutex& handlers_lock() {
    return detail::immortal<ThreadMutex, HandlersLock>();
}

HandlerMap* signal_handlers ZEL_GUARDED_BY(handlers_lock()) = nullptr; // null while not loaded

std::string install_failure(int signo) {
    return "failed to install handler for signal " + std::to_string(signo);
}

bool ends_the_process_by_default(int signo) {
    for (int const harmless : {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU}) {
        if (signo == harmless)
            return false;
    }
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
    // The lock must not be held here: what a removed function holds may call back when it is destroyed.
    detail::SignalGate::reclaim();
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
    // An arrival that no thread has taken yet must not end the process when the default comes back. Ignoring
    // the signal discards it. A signal whose default is harmless is not ignored even for a moment: children
    // that end while SIGCHLD is ignored leave no exit status.
    if (saved_action_.sa_handler == SIG_DFL && ends_the_process_by_default(signo_)) {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(signo_, &ignore, nullptr);
        // A process that is in exit() must not be ended by one that does not know it.
        if (detail::expected_from_others(signo_) && detail::Shutdown::exiting())
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
    {
        // A child of fork() has got its dispositions back already, and may have chosen others since.
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
    AutoLock const guard(handlers_lock());
    if (!signal_handlers)
        signal_handlers = new HandlerMap;
    auto const it = signal_handlers->find(signo);
    if (it != signal_handlers->end()) {
        // A child of fork() has inherited the object, but not the installed handler.
        if (!it->second->impl().installed())
            it->second->impl().apply_signal_handler();
        return it->second;
    }
    boost::shared_ptr<SignalHandler> made = detail::make_shared<SignalHandler>(signo);
    signal_handlers->insert(std::make_pair(signo, made));
    return made;
}

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

// ---- Load and unload ------------------------------------------------------------------------------------

void zel_signal_load() {
    AutoLock const guard(handlers_lock());
    if (!signal_handlers)
        signal_handlers = new HandlerMap;
}

void zel_signal_unload() {
    std::unique_ptr<HandlerMap> doomed;
    {
        AutoLock const guard(handlers_lock());
        doomed.reset(signal_handlers);
        signal_handlers = nullptr;
    }
    if (!doomed)
        return;
    // Retired explicitly, because managers that live on share these objects and keep them from being
    // destroyed.
    for (auto const& item : *doomed)
        item.second->impl().retire();
    detail::SignalGate::drain(); // before the code that signal context runs may be unmapped
}

} // namespace orn::zel::signal
