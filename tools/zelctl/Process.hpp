// SPDX-License-Identifier: MIT
//
// Processes as /proc describes them: what one is, which of them have zel, and why one cannot be talked to.
// Internal to the tool. Nothing here touches a process.
#ifndef ZELCTL_PROCESS_HPP
#define ZELCTL_PROCESS_HPP

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Failure.hpp"

namespace zelctl {

struct Process {
    enum class Library { absent, mapped, unknown }; // unknown: its maps may not be read

    int pid = 0;
    int owner = 0;     // the process that a thread's id belongs to, else pid
    int inner_pid = 0; // its own number for itself, in a pid namespace below this one; else 0
    int tracer = 0;    // the debugger that traces it; 0 if there is none
    int threads = 0;
    uid_t user = 0; // the effective one, which decides whom it serves
    std::string name;
    std::string state; // a letter and a word, as in /proc; of another thread when the main one has ended
    std::string proc;  // its directory in /proc, or that of such a thread, which the memory and files outlive
    // In ticks since the machine was started. It tells two processes of one id apart.
    unsigned long long start = 0;
    std::int64_t age_ms = 0;
    bool forked = false;  // and has not called exec() since
    bool catches = false; // signal 55, which opens the channel
    bool ignores = false;
    bool blocks = false; // all of its threads
    bool dumpable = false;
    Library library = Library::absent;
    std::string library_path; // as the process sees it
    std::string library_at;   // its address, which is another one after exec()
    bool channel_open = false;

    bool over() const;
    bool main_thread_ended() const; // alone; others go on
    bool stopped() const { return !state.empty() && state[0] == 'T'; }
};

std::string process_name(int pid); // for texts: "process 1234"

// Everything about the process that has this id now; nothing when there is none.
std::optional<Process> describe(int pid);

// Why no client may or can reach it; nothing when one can try. A process that is being started may lack the
// library and the signal's handler for a moment, so those two reasons are left to lacks_zel().
std::optional<Failure> obstacle(Process const& process);
std::optional<Failure> lacks_zel(Process const& process);

// Whether it may just be on its way from fork() to exec(), or through the dynamic linker.
bool starting(Process const& process);

// Whether it catches the signal just now and is not within exec(), which may take the handler away before the
// signal gets there. A process that runs may be, so one who is patient waits until it does not.
bool awaits_signal(Process const& process, bool patient);

// All but this one that have the library mapped, or an open channel, in the order of their ids. hidden: those
// that catch the signal, but cannot be looked into.
std::vector<Process> processes_with_zel(std::vector<Process>& hidden);

// The ids behind a pid, an exact name, or a unique part of one. Throws Failure: no such process, or several,
// which it lists.
int find_process(std::string const& text);

} // namespace zelctl

#endif
