// SPDX-License-Identifier: MIT
//
// The server of the command channel: signal 55, the thread that it starts, the queue that the thread serves,
// and the end of all three. Read downwards it is the way of a command; cmd.cpp goes on with the command's
// word. The other side of the queue is cmdClient.cpp.
#include <orn/zel/cmd.hpp>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>

#include <cxxabi.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>

#include <orn/clock.hpp>
#include <orn/log.h>
#include <orn/os/Thread.hpp>
#include <orn/zel/signal.hpp>
#include <orn/zel/threadGroup.hpp>

#include "clientTable.hpp"
#include "cmd.hpp"
#include "fork.hpp"
#include "immortal.hpp"
#include "loaded.hpp"
#include "shared.hpp"
#include "shutdown.hpp"
#include "signalFork.hpp"
#include "trace.hpp"

namespace orn::zel::cmd {

namespace {

struct Server {
    boost::shared_ptr<void> words; // after the unload only, while an abandoned command may be running
    boost::shared_ptr<Receptacle<int, unsigned long>> signal;
    unsigned long signal_handle = 0;
    detail::ClientTable clients; // the command thread's until it has ended
    boost::shared_ptr<os::Thread> runner;
    pid_t runner_process = 0;                      // fork() copies the state, but not the thread
    boost::shared_ptr<thread::Group> runner_group; // set by the runner once it can be woken
    int runner_tid = 0;                            // set together with the group
    bool abandoned = false;                        // exit() has left the runner to its command
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false}; // the runner has ended, or could not begin
};

// The lock also guards what the state tells about the runner. No handler runs while it is held.
detail::Loaded<Server>& server() {
    return detail::immortal<detail::Loaded<Server>, Server>();
}

// ---- Signal 55 starts the command thread ----------------------------------------------------------------

// Hands the runner out, for the caller to join with the lock released. Empty when there is none to join.
boost::shared_ptr<os::Thread> take_runner(Server& state) ZEL_REQUIRES(server().lock) {
    boost::shared_ptr<os::Thread> runner;
    runner.swap(state.runner);
    if (runner && state.runner_process != detail::process_id()) {
        // The handle is the parent's, and joining a thread that fork() did not copy would hang. So the few
        // bytes of the handle are leaked.
        new boost::shared_ptr<os::Thread>(runner);
        runner.reset();
    }
    return runner;
}

void install() {
    boost::shared_ptr<os::Thread> before; // joined with the lock released
    AutoLock const guard(server().lock);
    boost::shared_ptr<Server> const state = server().state;
    if (!state || state->stop)
        return;
    bool const running = state->runner && !state->ended && state->runner_process == detail::process_id();
    if (running)
        return;
    // A runner that is there nevertheless could not open its queue, or is the parent's.
    before = take_runner(*state);
    state->ended = false;
    state->runner_process = detail::process_id();
    detail::SignalShield const shield; // the new thread takes no signal that is meant for the application's
    state->runner = detail::make_shared<os::Thread>(CommandChannelRunner);
}

} // namespace

void InstallCommandChannel() {
    try {
        // Making a thread needs the calling one's group. To make that in a child of fork() runs the child
        // hook, which takes the lock.
        if (detail::in_unused_child())
            thread::ThisGroup();
        install();
    } catch (std::exception const& error) {
        // The client waits and may try again. The loop that this runs in is the application's, and must not
        // be ended for a client.
        Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s", "InstallCommandChannel", error.what());
    }
}

// ---- The command thread serves the queue ----------------------------------------------------------------

std::string CmdQueueName(int pid) {
    return "cmd." + std::to_string(pid);
}

namespace {

void serve(Server& state);

} // namespace

void CommandChannelRunner() {
    pthread_setname_np(pthread_self(), "zel-command");
    boost::shared_ptr<Server> const state = server().current();
    if (!state)
        return;
    // However the thread ends, the next signal starts another one.
    struct Ending {
        ~Ending() {
            AutoLock const guard(server().lock);
            state.runner_group.reset();
            state.ended = true;
        }
        Server& state;
    } const ending{*state};
    try {
        serve(*state);
    } catch (std::exception const& error) { // no descriptor for the group, say
        Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: %s", "CommandChannelRunner", error.what());
    }
}

namespace {

extern "C" void ignore_sigpipe(int) {}

// An observer that goes away must not end the process. The handler is an empty one and not SIG_IGN, because
// exec() resets it. It takes the place of the default only, since anything else is the application's choice.
void survive_sigpipe() {
    if (!signal::is_default(SIGPIPE))
        return;
    struct sigaction action = {};
    action.sa_handler = ignore_sigpipe;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
}

void serve(Server& state) {
    NewThreadGroup();
    {
        AutoLock const guard(server().lock);
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
    detail::Trace trace;
    bool over = false;
    while (!over && !state.stop) {
        // A command that fails must not keep the next one from being served.
        try {
            int const wait_ms = trace.wait_ms(); // serve() may end the wish that it is for
            over = RunOnce(wait_ms) == 0 && wait_ms == -1;
            trace.serve();
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

// ---- A message connects a client, or brings a command ---------------------------------------------------

namespace {

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

    // The message owns it and closes it; -1 when none came along.
    int fd() const { return message_.fd; }

private:
    int pid_ = 0;
    o_msg_t message_;
};

void connect_client(Server& state, Message const& message);
void refuse(Message const& message, std::string const& why);
void serve_command(Server& state, Message const& message);

} // namespace

void CmdQueueHandler(fd::Event*, MsgQueue* queue) {
    Message message;
    boost::shared_ptr<Server> const state = server().current();
    if (!message.receive(queue) || !state)
        return;
    if (message.type() == message_connect)
        connect_client(*state, message);
    else if (message.type() == message_command && message.has_text())
        serve_command(*state, message);
}

namespace {

void connect_client(Server& state, Message const& message) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: pid=%d, resp_fd=%d", "CmdQueueHandler",
                  message.pid(), message.fd());
    if (message.fd() == -1)
        return; // nowhere to answer
    std::string why;
    if (!state.clients.connect(message.pid(), message.fd(), why))
        refuse(message, why);
}

// Tells the client why on the descriptor that it has offered. Writing there must not make this thread wait.
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

void serve_command(Server& state, Message const& message) {
    std::string const command = message.text();
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: pid=%d, cmd='%s'", "CmdQueueHandler",
                  message.pid(), command.c_str());
    // -1 for a client that has not connected. Any other number could be an open file of the application's.
    int const fd = state.clients.of(message.pid());
    Write(fd, "received \"" + command + "\"\n");
    ProcessCommand(command, fd);
}

} // namespace

// ---- Load -----------------------------------------------------------------------------------------------

namespace {

// The calling thread's group gets the signal: that of the thread that loads the library, or, in a child of
// fork() that goes on without exec(), that of the thread that first uses the library there.
void watch_channel_signal() {
    boost::shared_ptr<Server> const state = server().current();
    if (!state)
        return;
    state->signal = Signal(channel_signal);
    state->signal_handle = state->signal->insert([](int) { InstallCommandChannel(); });
}

} // namespace

void zel_cmd_load() {
    {
        AutoLock const guard(server().lock);
        if (server().state)
            return;
        server().state = detail::make_shared<Server>();
    }
    load_words();
    watch_channel_signal();
    detail::expect_from_others(channel_signal);
    detail::set_child_hook(watch_channel_signal); // the thread registry runs it in a child of fork()
}

// ---- Unload ---------------------------------------------------------------------------------------------

int client_at(int fd) {
    boost::shared_ptr<Server> const state = server().current();
    if (!state)
        return 0;
    {
        AutoLock const guard(server().lock);
        if (!state->runner_group || state->runner_tid != thread::self())
            return 0;
    }
    return state->clients.at(fd);
}

bool stopping() {
    boost::shared_ptr<Server> const state = server().current();
    return !state || state->stop;
}

namespace {

bool ends_in_time(Server const& state) {
    // A command takes a few milliseconds. One that takes this long as a rule waits for the thread that is in
    // exit(), and would wait for ever.
    internal::Patience const longest_command(1000);
    while (!state.ended) {
        if (!longest_command.nap())
            return false;
    }
    return true;
}

// A thread that exit() leaves running may be writing a line to a client that has gone, so from here on the
// signal is ignored then. The handler never stays: it points into this library, which may be unmapped.
void restore_sigpipe() {
    struct sigaction current = {};
    if (sigaction(SIGPIPE, nullptr, &current) != 0 || current.sa_handler != ignore_sigpipe)
        return;
    struct sigaction action = {};
    action.sa_handler = detail::Shutdown::keeps() ? SIG_IGN : SIG_DFL;
    sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

bool stop_channel() {
    boost::shared_ptr<os::Thread> runner; // joined when it goes, with the lock released
    boost::shared_ptr<thread::Group> group;
    boost::shared_ptr<Server> const state = server().current();
    if (!state || state->abandoned)
        return !state;
    {
        AutoLock const guard(server().lock);
        state->stop = true;
        runner = take_runner(*state);
        if (runner && state->runner_tid != thread::self())
            group = state->runner_group;
    }
    if (!group)
        return true;
    group->WakeUp('x'); // the lock is released here, because the thread takes it when it ends
    // dlclose() waits for as long as the command takes, because the code goes. exit() does not.
    if (!detail::Shutdown::exiting() || ends_in_time(*state))
        return true;
    state->abandoned = true;
    state->runner.swap(runner); // not joined: the last reference to the state is the thread's own
    return false;
}

void zel_cmd_unload() {
    stop_channel();
    boost::shared_ptr<Server> const doomed = server().take_out();
    if (!doomed)
        return;
    doomed->words = unload_words();
    if (doomed->signal)
        doomed->signal->remove(doomed->signal_handle);
    if (!doomed->abandoned)
        doomed->clients.forget();
    restore_sigpipe();
}

} // namespace orn::zel::cmd
