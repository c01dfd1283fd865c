// SPDX-License-Identifier: MIT
//
// The command channel: text commands from other processes, and the client side of it. Public. A process that
// has the library can be sent commands with nothing written for it. It may add words of its own; see
// docs/modules.md for modules that do.
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
//     Loaded       The registry is there; signal 55 is watched by the thread that loaded the library.
//      |  that thread's group dispatches signal 55: InstallCommandChannel()
//      v
//     Installed    The command thread runs a group of its own and serves the queue "cmd.<pid>".
//      |  the library is taken down
//      v
//     Unloaded     The command thread has ended and was joined.
//
// Command handlers run on the command thread, one at a time, in the order in which the commands arrive. They
// answer on the descriptor that they are given, which is a pipe's and never blocks, and must not close it.
// What a handler throws is logged, and the next command is served. A process with rights that its user has
// not (set-user-ID and the like) is served for root alone, and talks to root's processes alone.
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

namespace orn {
namespace zel {

namespace cmd {

// Raised in a process by whoever wants to connect to it.
int const channel_signal = 55;

// args: the text behind the command word and the blanks after it. fd: where to answer; -1, where writing
// fails, for a client that has not connected.
using Handler = boost::function<void(std::string const& args, int fd)>;

// Gives a word to a handler, in place of the one that had it. Any thread. Nothing happens while the library
// is not loaded.
ORN_API void Register(std::string const& word, Handler handler);
// Takes the word away again. A call of the handler that is under way is not waited for: unload a module with
// the command "zel unload", which runs on the command thread itself.
ORN_API void Unregister(std::string const& word);

// The text before the first blank, and what follows the blanks after it. Only the character 32 is a blank.
ORN_API std::pair<std::string, std::string> GetFirstWord(std::string const& command);

// Calls the handler of the command's first word. A word that nobody has is answered with the command itself:
// once, or as many times as the number that the command begins with, as far as a pipe takes them.
ORN_API void ProcessCommand(std::string const& command, int resp_fd);

class ChannelImpl;

// The client's end of a connection; copies share it, and the last one closes it.
class ORN_API Channel {
public:
    explicit Channel(boost::shared_ptr<ChannelImpl> impl) : impl_(impl) {}
    virtual ~Channel();
    Channel(Channel const&) = default;
    Channel& operator=(Channel const&) = default;

    // Sends one command, once. Returns the number of bytes handed over, or -1 with errno when the target has
    // gone, does not keep up for a second, or the command is larger than a message may be. The answer comes
    // line by line to the function that was given to Connect(), and has no end mark.
    ssize_t Command(std::string const& command);

    // From here on counts how often the pipe for answers is found full, at the cost of a system call a read.
    // The target does not wait for room: text that comes then is cut or lost, perhaps in the middle of a
    // line. An answer during which the number stays the same is whole. Any thread.
    void CountOverflows();
    unsigned long Overflows() const;

private:
    boost::shared_ptr<ChannelImpl> impl_;
};

} // namespace cmd

// For modules: cmd::Register() and cmd::Unregister().
ORN_API void RegisterCommandModule(std::string const& word, cmd::Handler handler);
ORN_API void UnregisterCommandModule(std::string const& word);

// Connects to a process that has the library: raises signal 55 in it and waits, without limit and without
// running the loop, until it takes the connection. The default action of that signal ends a process which
// does not have the library: make sure before, from the SigCgt line of /proc/<pid>/status. fn is called with
// each line of an answer, without its newline, on the calling thread's group; it may give the channel up.
ORN_API cmd::Channel Connect(int pid, boost::function<void(std::string const&)> fn);

// The same for a caller who does not wait for ever. wait is called after each attempt that failed, with its
// reason in errno (see o_msg_send()), and returns when it is time for the next one. It may run the loop. What
// it throws gives the connection up and passes to the caller.
ORN_API cmd::Channel ConnectWith(int pid, boost::function<void(std::string const&)> fn,
                                 boost::function<void()> wait);

namespace cmd {

// ---- The implementation behind the interfaces -----------------------------------------------------------

using MsgQueue = o_msg_queue_t;

// What a message of the queue is for: its type. See docs/protocol.md.
enum MessageType { message_connect = 1, message_command = 2 };

ORN_API void InstallCommandChannel();
ORN_API void CommandChannelRunner();
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
    // What the handler on the pipe holds, so that a line's function may give the channel up.
    struct Reader;

    std::string queue_name_;
    os::Pipe response_;
    boost::shared_ptr<Reader> reader_;
    fd::AutoReceptor receptor_;
};

ORN_API void zel_cmd_load();
ORN_API void zel_cmd_unload();
// Ends the command thread and waits for it, unless it is the caller. The first step of taking the library
// down, since commands may be running code of modules that are unloaded next. False when one still is: exit()
// waits for a second only, and then leaves the thread to its command.
ORN_API bool stop_channel();
// Whether that has been asked for: a command that would wait for the dynamic linker must not begin to.
ORN_API bool stopping();

} // namespace cmd
} // namespace zel
} // namespace orn

#endif
