// SPDX-License-Identifier: MIT
//
// The server side of the command channel: the registry of words and the thread that serves the queue. The
// client side is in cmdClient.cpp.
#include <orn/zel/cmd.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>

#include <cxxabi.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>

#include <orn/log.h>
#include <orn/os/Thread.hpp>
#include <orn/zel/signal.hpp>
#include <orn/zel/threadGroup.hpp>

#include "clientTable.hpp"
#include "fork.hpp"
#include "immortal.hpp"
#include "shutdown.hpp"
#include "signalFork.hpp"
#include "threadRegistry.hpp"

namespace orn {
namespace zel {
namespace cmd {

namespace {

// exit() waits so many milliseconds for a command that is under way. A command takes a few; one that takes
// this long waits for the thread that is in exit(), as a rule, and would wait for ever.
int const longest_command_ms = 1000;

struct State {
    State() : signal_handle(0), runner_process(0), runner_tid(0), left(false), stop(false), ended(false) {}

    std::map<std::string, Handler> commands;
    boost::shared_ptr<Receptacle<int, unsigned long>> signal;
    unsigned long signal_handle;
    detail::ClientTable clients; // the command thread's, until it has ended
    boost::shared_ptr<os::Thread> runner;
    pid_t runner_process;                          // where the runner runs: fork() does not copy it
    boost::shared_ptr<thread::Group> runner_group; // set by the runner once it can be woken
    int runner_tid;                                // and this, too
    bool left;                                     // in exit(), in the middle of a command
    std::atomic<bool> stop;
    std::atomic<bool> ended; // the runner has left, or could not begin
};

struct StateLock;

// Guards the pointer to the state, the registry and the runner. Never held while a handler runs.
ThreadMutex& state_lock() {
    return detail::immortal<ThreadMutex, StateLock>();
}

boost::shared_ptr<State>& state() ZEL_REQUIRES(state_lock()) {
    return detail::immortal<boost::shared_ptr<State>, StateLock>();
}

boost::shared_ptr<State> current() {
    AutoLock const guard(state_lock());
    return state();
}

// Blocks every signal that says nothing about this thread's own code, so that a thread made in the scope
// takes none that are meant for the application's.
class SignalShield {
public:
    SignalShield() {
        sigset_t set;
        sigfillset(&set);
        for (int const signo : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&set, signo);
        pthread_sigmask(SIG_SETMASK, &set, &before_);
    }
    ~SignalShield() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalShield(SignalShield const&) = delete;
    SignalShield& operator=(SignalShield const&) = delete;

private:
    sigset_t before_;
};

// ---- SIGPIPE --------------------------------------------------------------------------------------------

extern "C" void ignore_sigpipe(int) {}

// An observer that goes away must not end the process. An empty handler rather than SIG_IGN, since exec()
// resets it; and only in place of the default, since anything else is the application's own choice.
void survive_sigpipe() {
    if (!signal::is_default(SIGPIPE))
        return;
    struct sigaction action = {};
    action.sa_handler = ignore_sigpipe;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
}

// Threads that exit() leaves running may be writing a line to a client that has gone: then it is ignored from
// here on. What is put back never points into this library, which may yet be unmapped.
void restore_sigpipe() {
    struct sigaction current = {};
    if (sigaction(SIGPIPE, nullptr, &current) != 0 || current.sa_handler != ignore_sigpipe)
        return;
    struct sigaction action = {};
    action.sa_handler = detail::Shutdown::keeps() ? SIG_IGN : SIG_DFL;
    sigaction(SIGPIPE, &action, nullptr);
}

// ---- Messages -------------------------------------------------------------------------------------------

// A received message, given back when the scope ends.
class Message {
public:
    Message() : message_() {
        message_.fd = -1;
        message_.count = 2;
        message_.parts[0].data = &pid_;
        message_.parts[0].length = sizeof pid_;
    }
    ~Message() { o_msg_release(&message_); }
    Message(Message const&) = delete;
    Message& operator=(Message const&) = delete;

    bool receive(MsgQueue* queue) { return o_msg_recv(queue, &message_) >= 0; }
    int type() const { return message_.type; }
    int pid() const { return pid_; }
    bool has_text() const { return message_.count == 2 && message_.parts[1].data; }

    // Up to the first NUL, which need not be there.
    std::string text() const {
        char const* const data = static_cast<char const*>(message_.parts[1].data);
        return std::string(data, strnlen(data, message_.parts[1].length));
    }

    // The message's own, closed with it; -1 when none came along.
    int fd() const { return message_.fd; }

private:
    int pid_ = 0;
    o_msg_t message_;
};

// The same pipe, on a descriptor that does not block whatever the client does: O_NONBLOCK belongs to the open
// file, which the client shares and may change at any time. Nothing but a pipe can be opened anew and still
// be what it was. -1 when that fails, and why.
int open_anew(int fd, std::string& why) {
    struct stat what = {};
    if (fstat(fd, &what) == 0 && !S_ISFIFO(what.st_mode)) {
        why = "it is no pipe";
        return -1;
    }
    int const own = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (own == -1)
        why = strerror(errno);
    return own;
}

// Tells the client on what it has offered, which must not make this thread wait.
void refuse(Message const& message, std::string const& why) {
    std::string const text =
        "[zel] not connected: answers go to a pipe that this process can open anew: " + why + '\n';
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: pid=%d: not connected: %s", "CmdQueueHandler",
                  message.pid(), why.c_str());
    int const before = fcntl(message.fd(), F_GETFL);
    fcntl(message.fd(), F_SETFL, before | O_NONBLOCK);
    Write(message.fd(), text);
    fcntl(message.fd(), F_SETFL, before);
}

void connect_client(State& state, Message const& message) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: pid=%d, resp_fd=%d", "CmdQueueHandler",
                  message.pid(), message.fd());
    if (message.fd() == -1)
        return; // nowhere to answer
    std::string why;
    int const own = open_anew(message.fd(), why);
    if (own == -1)
        refuse(message, why); // a connection that the client had before stays here, too
    else
        state.clients.remember(message.pid(), own);
}

void serve_command(State& state, Message const& message) {
    std::string const command = message.text();
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: pid=%d, cmd='%s'", "CmdQueueHandler",
                  message.pid(), command.c_str());
    // -1, nowhere, for a client that has not connected: every other number is somebody's.
    int const fd = state.clients.of(message.pid());
    Write(fd, "received \"" + command + "\"\n");
    ProcessCommand(command, fd);
}

// ---- The answer to a word that nobody has ---------------------------------------------------------------

// How much text the descriptor takes now without a line being cut: what a pipe has free, in whole pages,
// since a page that is begun is not always filled up. Up to PIPE_BUF is written whole or not at all.
std::size_t room(int fd) {
    int const size = fcntl(fd, F_GETPIPE_SZ);
    int used = 0;
    if (size <= 0 || ioctl(fd, FIONREAD, &used) != 0)
        return 65536; // no pipe; what a pipe takes as a rule
    int const begun = 2 * 4096;
    return static_cast<std::size_t>(std::max({size - used - begun, std::min(size - used, PIPE_BUF), 0}));
}

void echo(std::string const& command, int fd) {
    long lines = 1;
    if (!command.empty() && command[0] >= '0' && command[0] <= '9') {
        lines = std::min<long>(std::strtol(command.c_str(), nullptr, 10), INT_MAX);
        if (lines < 1)
            return;
    }
    // What a pipe does not take would be lost anyway; a large number must cost neither memory nor time.
    std::size_t const most = room(fd);
    std::string const tail = '/' + std::to_string(lines) + ' ' + command + '\n';
    std::string text;
    for (long i = 1; i <= lines; ++i) {
        std::string const line = std::to_string(i) + tail;
        if (i > 1 && text.size() + line.size() > most)
            break;
        text += line;
    }
    Write(fd, text);
}

} // namespace

// ---- The registry ---------------------------------------------------------------------------------------

void Register(std::string const& word, Handler handler) {
    AutoLock const guard(state_lock());
    if (state())
        state()->commands[word].swap(handler); // the one before is destroyed with the lock released
}

void Unregister(std::string const& word) {
    Handler removed; // destroyed with the lock released
    AutoLock const guard(state_lock());
    if (!state())
        return;
    auto const it = state()->commands.find(word);
    if (it == state()->commands.end())
        return;
    removed.swap(it->second);
    state()->commands.erase(it);
}

std::pair<std::string, std::string> GetFirstWord(std::string const& command) {
    std::string::size_type const blank = command.find(' ');
    if (blank == std::string::npos)
        return std::make_pair(command, std::string());
    std::string::size_type const rest = command.find_first_not_of(' ', blank);
    return std::make_pair(command.substr(0, blank),
                          rest == std::string::npos ? std::string() : command.substr(rest));
}

void ProcessCommand(std::string const& command, int resp_fd) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: cmd=\"%s\" resp_fd=%d", "ProcessCommand",
                  command.c_str(), resp_fd);
    std::pair<std::string, std::string> const words = GetFirstWord(command);
    Handler handler;
    {
        AutoLock const guard(state_lock());
        if (state()) {
            auto const it = state()->commands.find(words.first);
            if (it != state()->commands.end())
                handler = it->second;
        }
    }
    // No lock is held here: a handler may register words and load modules that do.
    if (handler)
        handler(words.second, resp_fd);
    else
        echo(command, resp_fd);
}

// ---- The channel ----------------------------------------------------------------------------------------

std::string CmdQueueName(int pid) {
    return "cmd." + std::to_string(pid);
}

namespace {

// Hands the runner out, for the caller to join with the lock released; empty when there is none to join.
boost::shared_ptr<os::Thread> take_runner(State& state) ZEL_REQUIRES(state_lock()) {
    boost::shared_ptr<os::Thread> runner;
    runner.swap(state.runner);
    if (runner && state.runner_process != detail::process_id()) {
        // The parent's: there is no such thread here. Its handle is lost with the few bytes that it has.
        new boost::shared_ptr<os::Thread>(runner);
        runner.reset();
    }
    return runner;
}

} // namespace

void InstallCommandChannel() {
    boost::shared_ptr<os::Thread> before; // joined with the lock released
    AutoLock const guard(state_lock());
    if (!state() || state()->stop)
        return;
    bool const running =
        state()->runner && !state()->ended && state()->runner_process == detail::process_id();
    if (running)
        return;
    // The one before, if any, could not open its queue, or was left behind by fork().
    before = take_runner(*state());
    state()->ended = false;
    state()->runner_process = detail::process_id();
    SignalShield const shield;
    try {
        state()->runner = boost::shared_ptr<os::Thread>(new os::Thread(CommandChannelRunner));
    } catch (std::exception const& error) {
        // Whoever raised the signal waits; the application, whose loop this is, must not be ended for it.
        Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s", "InstallCommandChannel", error.what());
    }
}

namespace {

void serve(State& state) {
    NewThreadGroup();
    {
        AutoLock const guard(state_lock());
        state.runner_group = thread::ThisGroup();
        state.runner_tid = thread::self();
    }
    boost::shared_ptr<MsgQueue> const queue(
        o_msg_create_queue(CmdQueueName(getpid()).c_str(), O_MSG_EXCLUSIVE), [](MsgQueue* opened) {
            if (opened)
                o_msg_destroy_queue(opened);
        });
    if (!queue) {
        Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s: %s", "CommandChannelRunner",
                      CmdQueueName(getpid()).c_str(), strerror(errno));
        return;
    }
    survive_sigpipe();
    fd::AutoReceptor const receptor(o_msg_queue_fd(queue.get()),
                                    boost::bind(CmdQueueHandler, boost::placeholders::_1, queue.get()));
    int turned = 1;
    while (turned != 0 && !state.stop) {
        // A command that fails is its own affair; the next one is served.
        try {
            turned = RunOnce(-1);
        } catch (abi::__forced_unwind&) { // the thread is being ended
            throw;
        } catch (std::exception const& error) {
            Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s", "CommandChannelRunner",
                          error.what());
        } catch (...) {
            Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: a command failed",
                          "CommandChannelRunner");
        }
    }
}

} // namespace

void CommandChannelRunner() {
    pthread_setname_np(pthread_self(), "zel-command");
    boost::shared_ptr<State> const held = current();
    if (!held)
        return;
    // However the thread ends, the next signal starts another one.
    struct Ending {
        ~Ending() {
            AutoLock const guard(state_lock());
            state.runner_group.reset();
            state.ended = true;
        }
        State& state;
    } const ending{*held};
    try {
        serve(*held);
    } catch (std::exception const& error) { // no descriptor for the group, say
        Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s", "CommandChannelRunner", error.what());
    }
}

void CmdQueueHandler(fd::Event*, MsgQueue* queue) {
    Message message;
    boost::shared_ptr<State> const held = current();
    if (!message.receive(queue) || !held)
        return;
    if (message.type() == message_connect)
        connect_client(*held, message);
    else if (message.type() == message_command && message.has_text())
        serve_command(*held, message);
}

// ---- Load and unload ------------------------------------------------------------------------------------

namespace {

// On the calling thread's group: that of the thread that loads the library, or, in a child of fork() that
// goes on without exec(), of the thread that first uses it there.
void watch_channel_signal() {
    boost::shared_ptr<State> const held = current();
    if (!held)
        return;
    held->signal = Signal(channel_signal);
    held->signal_handle = held->signal->insert([](int) { InstallCommandChannel(); });
}

} // namespace

void zel_cmd_load() {
    {
        AutoLock const guard(state_lock());
        if (state())
            return;
        state() = boost::shared_ptr<State>(new State);
    }
    watch_channel_signal();
    // A client that knocks at a child which has not come to use the library yet must not end it.
    detail::expect_from_others(channel_signal);
    detail::set_child_hook(watch_channel_signal);
}

bool stopping() {
    AutoLock const guard(state_lock());
    return !state() || state()->stop;
}

namespace {

bool ends_in_time(State const& state) {
    for (int waited = 0; !state.ended; ++waited) {
        if (waited == longest_command_ms)
            return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

} // namespace

bool stop_channel() {
    boost::shared_ptr<os::Thread> runner; // joined when it goes, with the lock released
    boost::shared_ptr<thread::Group> group;
    boost::shared_ptr<State> const held = current();
    if (!held || held->left)
        return !held;
    {
        AutoLock const guard(state_lock());
        held->stop = true;
        runner = take_runner(*held);
        if (runner && held->runner_tid != thread::self())
            group = held->runner_group;
    }
    if (!group)
        return true;
    group->WakeUp('x');
    // dlclose() has to wait for as long as it takes, since the code goes.
    if (!detail::Shutdown::exiting() || ends_in_time(*held))
        return true;
    held->left = true;
    held->runner.swap(runner); // the thread's own reference to the state is the last one
    return false;
}

void zel_cmd_unload() {
    stop_channel();
    boost::shared_ptr<State> doomed;
    {
        AutoLock const guard(state_lock());
        doomed.swap(state());
    }
    if (!doomed)
        return;
    if (doomed->signal)
        doomed->signal->remove(doomed->signal_handle);
    if (!doomed->left)
        doomed->clients.forget();
    restore_sigpipe();
}

} // namespace cmd

void RegisterCommandModule(std::string const& word, cmd::Handler handler) {
    cmd::Register(word, handler);
}

void UnregisterCommandModule(std::string const& word) {
    cmd::Unregister(word);
}

} // namespace zel
} // namespace orn
