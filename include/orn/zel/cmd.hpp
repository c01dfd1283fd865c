// SPDX-License-Identifier: MIT
//
// The command channel: text commands from other processes, and the client side of it. Public. A process that
// has loaded the library takes commands without code of its own for it. It may add words; docs/modules.md is
// about modules that do, docs/protocol.md about clients without the library.
//
// From examples/12_cmd.cpp:
//
//     void level(std::string const& args, int fd) {
//         std::pair<std::string, std::string> const words = orn::zel::cmd::GetFirstWord(args);
//         if (words.first == "set")
//             orn::zel::cmd::Write(fd, "level is now " + words.second + "\n");
//         else
//             orn::zel::cmd::Write(fd, "level set NUMBER, not \"" + args + "\"\n");
//     }
//
// registered with RegisterCommandModule("level", level). Another process calls it, or any other word:
//
// From examples/13_Connect.cpp:
//
//     bool answered = false;
//     orn::zel::cmd::Channel target = orn::zel::Connect(pid, [&answered](std::string const& line) {
//         std::printf("%s\n", line.c_str());
//         answered = line == "tea tea"; // an answer has no end mark
//     });
//     target.Command("twice tea");
//     while (!answered)
//         orn::zel::RunOnce(-1);
//
// The server side of a process:
//
//     Loaded       Words can be registered. The thread that loaded the library watches signal 55.
//      |  that thread's group dispatches signal 55, or somebody else calls InstallCommandChannel()
//      v
//     Installed    The command thread runs a group of its own and serves the queue "cmd.<pid>".
//      |  the library is taken down
//      v
//     Unloaded     The command thread has ended and was joined.
//
// Command handlers run on the command thread, one at a time, in the order in which the commands arrive. They
// answer on the descriptor that they are given. It is a pipe's, never blocks, and must not be closed. What a
// handler throws is logged, and the next command is served. A process that has rights which its user has not
// (set-user-ID and the like) takes commands from root alone, and sends commands to root's processes alone.
#ifndef ORN_ZEL_CMD_HPP
#define ORN_ZEL_CMD_HPP

#include <string>
#include <utility>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/os/Pipe.hpp>
#include <orn/os/o_msg.h>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>
#include <orn/zel/response.hpp>

namespace orn::zel {

namespace cmd {

// Raised in a process by whoever wants to connect to it.
int const channel_signal = 55;

// args: the text behind the command word and the blanks after it. fd: where to answer. A client that has not
// connected gets no answer: fd is -1 then, and writing fails.
using Handler = boost::function<void(std::string const& args, int fd)>;

// Gives a word to a handler, in place of the one that had it. The copy of the handler is kept until the word
// is taken away or given to another, or the library is unloaded. Nothing happens while the library is not
// loaded.
ORN_API void Register(std::string const& word, Handler handler);
// Takes the word away again. Does not wait for a call of the handler that is under way, so code must not be
// unmapped right after it: unload a module with the command "zel unload", which runs on the command thread
// itself. Nothing happens when nobody has the word.
ORN_API void Unregister(std::string const& word);

// The text before the first blank, and what follows the blanks after it. Only the character 32 is a blank.
ORN_API std::pair<std::string, std::string> GetFirstWord(std::string const& command);

// Calls the handler of the command's first word on the calling thread, for as long as that takes, whichever
// thread serves the channel. What the handler throws passes to the caller. A word that nobody has is answered
// with the command itself: once, or as many times as the number that the command begins with, as far as a
// pipe takes them. resp_fd stays the caller's.
ORN_API void ProcessCommand(std::string const& command, int resp_fd);

// Opens the channel unless it is open: starts the command thread, which opens the queue. That is what signal
// 55 does once the loop of the thread that loaded the library turns. A program whose loop may be late or
// stuck calls this when it starts, and clients reach it whatever its loops do; ZEL_CHANNEL=1 in the
// environment does the same when the library is loaded. Costs a thread and its descriptors, and returns
// before the queue is open. Failures are logged, and the next signal tries again. Any thread.
ORN_API void InstallCommandChannel();

class ChannelImpl;

// The client's end of a connection. Copies share it, and the last one closes it: give it up on the thread
// that connected.
class ORN_API Channel {
public:
    explicit Channel(boost::shared_ptr<ChannelImpl> impl) : impl_(impl) {}
    virtual ~Channel();
    Channel(Channel const&) = default;
    Channel& operator=(Channel const&) = default;

    // Sends one command, once. Returns the number of bytes handed over, else -1 and errno says why (see
    // o_msg_send()): the target has gone, its queue is full, or the command is larger than a message may be.
    // Blocks while the queue is full: for a second when the target takes nothing, and for up to ten seconds
    // when it does, but others are quicker to fill the places. The answer comes line by line to the function
    // that was given to Connect(), and has no end mark.
    ssize_t Command(std::string const& command);

    // From here on Overflows() counts how often the pipe for answers is found full, at the cost of one system
    // call for each read. The target does not wait for room: text that comes then is cut or lost, perhaps in
    // the middle of a line. An answer during which the number stays the same is whole.
    void CountOverflows();
    unsigned long Overflows() const;

private:
    boost::shared_ptr<ChannelImpl> impl_;
};

} // namespace cmd

// cmd::Register() and cmd::Unregister() under the names that modules use.
ORN_API void RegisterCommandModule(std::string const& word, cmd::Handler handler);
ORN_API void UnregisterCommandModule(std::string const& word);

// Connects to a process that has the library: raises signal 55 in it and blocks, without limit and without
// running the loop, until it takes the connection. The default action of that signal ends a process which
// does not have the library, so look first whether the process catches it: the SigCgt line of
// /proc/<pid>/status tells. The calling thread's group calls fn with each line of an answer, without its
// newline. fn may give the channel up.
ORN_API cmd::Channel Connect(int pid, boost::function<void(std::string const&)> fn);

// The same for a caller who does not want to block for ever. Calls wait after each attempt that failed, with
// the reason in errno (see o_msg_send()). wait returns when it is time for the next attempt, and may run the
// loop. What it throws gives the connection up and passes to the caller.
ORN_API cmd::Channel ConnectWith(int pid, boost::function<void(std::string const&)> fn,
                                 boost::function<void()> wait);

namespace cmd {

// ---- The implementation behind the interfaces -----------------------------------------------------------

using MsgQueue = o_msg_queue_t;

// What a message of the queue is for: its type. See docs/protocol.md.
enum MessageType { message_connect = 1, message_command = 2 };

// The command thread: serves the queue until the channel is stopped.
ORN_API void CommandChannelRunner();
// Takes one message from the queue and does what it says.
ORN_API void CmdQueueHandler(fd::Event* event, MsgQueue* queue);
ORN_API std::string CmdQueueName(int pid);

class ORN_API ChannelImpl {
public:
    ChannelImpl(int pid, boost::function<void(std::string const&)> fn);
    ChannelImpl(int pid, boost::function<void(std::string const&)> fn, boost::function<void()> wait);
    virtual ~ChannelImpl();
    ChannelImpl(ChannelImpl const&) = delete;
    ChannelImpl& operator=(ChannelImpl const&) = delete;

    ssize_t Command(std::string const& command);
    void CountOverflows();
    unsigned long Overflows() const;
    void ResponseHandler(fd::Event* event);

private:
    // The handler on the pipe shares it with the channel, so that the user's function may give the channel
    // up.
    struct ORN_LOCAL Reader;

    std::string queue_name_;
    os::Pipe response_;
    boost::shared_ptr<Reader> reader_;
    fd::AutoReceptor receptor_;
};

ORN_API void zel_cmd_load();
ORN_API void zel_cmd_unload();
// Ends the command thread and waits for it, unless it is the caller. Taking the library down begins with
// this, because a command may be running code of modules that are unloaded next. Returns false when one still
// is: exit() waits for a second only, and then leaves the thread to its command.
ORN_API bool stop_channel();
// Whether that has been asked for. A command that would wait for the dynamic linker must not begin then.
ORN_API bool stopping();

} // namespace cmd
} // namespace orn::zel

#endif
