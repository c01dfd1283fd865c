// SPDX-License-Identifier: MIT
//
// Holding a process, and raising the one signal that it may be sent.
#include "Target.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/zel/cmd.hpp>

namespace zelctl {

namespace {

int open_process(int pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); // close-on-exec by itself
#else
    static_cast<void>(pid);
    return -1;
#endif
}

// By the descriptor where there is one: the number may belong to another process by now.
int send_signal(int pid, int descriptor, int signo) {
#ifdef SYS_pidfd_send_signal
    if (descriptor != -1)
        return static_cast<int>(syscall(SYS_pidfd_send_signal, descriptor, signo, nullptr, 0));
#else
    static_cast<void>(descriptor);
#endif
    return kill(pid, signo);
}

// /proc and kill() have to mean the same process, because the signal would end one that does not expect it.
void make_sure_of_proc() {
    char self[16] = "";
    ssize_t const length = readlink("/proc/self", self, sizeof self - 1);
    if (length < 1 || std::strtol(self, nullptr, 10) != getpid()) {
        throw Failure(not_attachable,
                      "/proc is not mounted, or is that of another pid namespace: mount -t proc proc /proc");
    }
}

Failure no_such(int pid) {
    return Failure(not_found,
                   process_name(pid) + ": " + strerror(ESRCH) + ": zelctl ps lists those with zel");
}

// errno says why.
Failure forbidden(int pid) {
    return Failure(not_permitted,
                   process_name(pid) + ": " + strerror(errno) + "; ask as root or as the user who runs it");
}

} // namespace

// The descriptor comes first: what is read after it is opened is about the process that it holds, as long as
// that has not ended.
Target::Target(int pid) : pid_(pid), descriptor_(open_process(pid)) {
    try {
        make_sure_of_proc();
        if (kill(pid, 0) != 0 && errno == ESRCH)
            throw no_such(pid);
        process_ = look();
        std::optional<Failure> const why = obstacle(process_);
        if (why)
            throw *why;
        if (kill(pid, 0) != 0)
            throw errno == ESRCH ? no_such(pid) : forbidden(pid);
    } catch (...) {
        close(descriptor_);
        throw;
    }
}

Target::~Target() {
    close(descriptor_);
}

Process Target::look() const {
    std::optional<Process> const now = describe(pid_);
    // /proc may hide the processes of other users (hidepid).
    if (!now)
        throw kill(pid_, 0) != 0 && errno == EPERM ? forbidden(pid_) : no_such(pid_);
    return *now;
}

bool Target::ended(int wait_ms) const {
    pollfd entry = {descriptor_, POLLIN, 0};
    if (poll(&entry, 1, wait_ms) > 0)
        return true;
    if (descriptor_ != -1)
        return false;
    std::optional<Process> const now = describe(pid_);
    return !now || now->over() || now->start != process_.start;
}

void Target::make_sure_it_is_the_same() const {
    if (ended() || look().start != process_.start)
        throw Failure(not_attachable, name() + " has ended");
}

// Between the last look and the signal there is nothing but the call, because exec() takes the handler away.
// Nor is a signal left to a process that blocks it: it would wait there for the next program.
void Target::raise_signal(std::optional<std::string>& told, bool patient) const {
    Process const now = look();
    if (starting(now))
        return;
    std::optional<Failure> const why = lacks_zel(now);
    make_sure_it_is_the_same(); // one that ends loses the library first
    if (why)
        throw *why;
    // An open channel needs no signal, and its process may not catch one any more.
    bool const needed = now.catches && told != now.library_at;
    if (!needed || now.blocks || !awaits_signal(now, patient))
        return;
    if (send_signal(pid_, descriptor_, orn::zel::cmd::channel_signal) != 0 && errno != ESRCH)
        throw forbidden(pid_);
    told = now.library_at;
}

std::string Target::why_silent(bool connected, int error) const {
    std::optional<Process> const now = describe(pid_);
    std::string const proc = now ? now->proc : process_.proc;
    std::string const state = now ? now->state : "";
    if (now && now->stopped()) {
        return "it is stopped (State in " + proc + "/status): kill -CONT " + std::to_string(pid_) +
               " lets it go on";
    }
    if (state.compare(0, 1, "t") == 0)
        return "it is held by process " + std::to_string(now->tracer) + ", a debugger";
    if (connected) {
        return "it has taken the connection, and is busy with another command, or its processors are: "
               "see the thread zel-command in /proc/" +
               std::to_string(pid_) + "/task";
    }
    if (now && starting(*now))
        return "it is being started, and signal 55 might end it: try again in two seconds";
    if (error == EAGAIN)
        return "its queue is full: it is behind with its commands";
    if (now && now->blocks)
        return "all its threads block signal 55, which opens the channel: see SigBlk in " + proc + "/status";
    std::string const remedy = "; one started with ZEL_CHANNEL=1 answers whatever its loops do";
    if (now && now->main_thread_ended())
        return "its main thread has ended, and no thread turns the loop that opens the channel" + remedy;
    std::string const doing = state.empty() ? "gone" : state;
    return "the thread that has loaded zel, as a rule the main thread, does not turn its loop, and is " +
           doing + ": see " + proc + "/stack and " + proc + "/wchan" + remedy;
}

} // namespace zelctl
