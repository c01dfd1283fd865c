// SPDX-License-Identifier: MIT
//
// Reading /proc, and the reasons not to talk to a process.
#include "Process.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/zel/cmd.hpp>

#include "Output.hpp"

namespace zelctl {

namespace {

std::string directory(int pid) {
    return "/proc/" + std::to_string(pid);
}

// The fields of a status file, read in one piece so that they belong together.
std::map<std::string, std::string> status_of(std::string const& proc) {
    std::map<std::string, std::string> fields;
    std::ifstream file(proc + "/status");
    for (std::string line; std::getline(file, line);) {
        std::string::size_type const colon = line.find(':');
        std::string::size_type const begin = line.find_first_not_of(" \t", colon + 1);
        if (colon != std::string::npos && begin != std::string::npos)
            fields[line.substr(0, colon)] = line.substr(begin);
    }
    return fields;
}

int number(std::string const& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

bool has_channel_signal(std::string const& mask) {
    return std::strtoull(mask.c_str(), nullptr, 16) >> (orn::zel::cmd::channel_signal - 1) & 1;
}

// Whether two names lead to different files. False when one of them may not be looked at.
bool differ(std::string const& one, std::string const& other) {
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           (first.st_ino != second.st_ino || first.st_dev != second.st_dev);
}

// ids, its: the lines NSpid of this process and of the other, with an id for each namespace from here
// inwards.
int inner_id(std::string const& ids, std::string const& its) {
    std::istringstream own(ids);
    std::istringstream other(its);
    int id = 0;
    while (own >> id)
        other >> id;
    int inner = 0;
    while (other >> id)
        inner = id;
    return inner;
}

std::int64_t age_of(unsigned long long start) {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    unsigned long long const per_second = static_cast<unsigned long long>(sysconf(_SC_CLK_TCK));
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000 -
           static_cast<std::int64_t>(start * 1000 / per_second);
}

// Reads the numbers of /proc/PID/stat that nothing else tells: the 9th field, where a bit says that the
// process has not called exec() since it was forked, and the 22nd. The second one, the name, may hold
// anything, blanks and brackets included.
void read_stat(Process& process) {
    std::ifstream file(directory(process.pid) + "/stat");
    std::string line;
    std::getline(file, line);
    std::string::size_type const end = line.rfind(')');
    std::istringstream fields(end == std::string::npos ? "" : line.substr(end + 1));
    std::string field;
    for (int i = 3; fields >> field; ++i) {
        unsigned long const forked_without_exec = 0x40;
        if (i == 9)
            process.forked = (std::strtoul(field.c_str(), nullptr, 10) & forked_without_exec) != 0;
        if (i == 22)
            process.start = std::strtoull(field.c_str(), nullptr, 10);
    }
    process.age_ms = age_of(process.start);
}

// The kernel keeps 15 bytes of a name, and shows it as it is only in this file. The program file's name is
// the whole one if it begins like that.
std::string whole_name(Process const& process) {
    std::size_t const kept = 15;
    std::ifstream comm(directory(process.pid) + "/comm");
    std::string name;
    std::getline(comm, name, '\0'); // nothing when the process has ended since
    if (!name.empty())
        name.pop_back(); // the newline
    std::error_code error;
    std::string const file = std::filesystem::read_symlink(process.proc + "/exe", error).filename().string();
    return !error && name.size() == kept && file.compare(0, kept, name) == 0 ? file : name;
}

void look_for_library(Process& process) {
    std::ifstream maps(process.proc + "/maps");
    bool const forbidden = !maps.is_open() && (errno == EACCES || errno == EPERM);
    process.library = forbidden ? Process::Library::unknown : Process::Library::absent; // as when it ends
    for (std::string line; std::getline(maps, line);) {
        std::string::size_type const path = line.find('/');
        std::string::size_type const file = line.rfind("/libzel.so");
        if (path == std::string::npos || file == std::string::npos)
            continue;
        process.library = Process::Library::mapped;
        process.library_path = line.substr(path);
        process.library_at = line.substr(0, line.find('-'));
        return;
    }
}

bool has_ended(std::string const& state) {
    return state.empty() || state[0] == 'Z' || state[0] == 'X';
}

// The directory of the first living thread whose status meets the condition; the main thread comes first.
// Empty when there is none.
template <class Condition>
std::string find_thread(int pid, Condition holds) {
    std::error_code error; // threads come and go meanwhile
    for (std::filesystem::directory_iterator it(directory(pid) + "/task", error), end; !error && it != end;
         it.increment(error)) {
        std::map<std::string, std::string> fields = status_of(it->path().string());
        if (!has_ended(fields["State"]) && holds(fields))
            return it->path().string();
    }
    return "";
}

std::string living_thread(int pid) {
    return find_thread(pid, [](std::map<std::string, std::string>&) { return true; });
}

// Any thread that does not block the signal takes it for the process.
bool all_threads_block(int pid) {
    return find_thread(pid,
                       [](std::map<std::string, std::string>& fields) {
                           return !has_channel_signal(fields["SigBlk"]);
                       })
        .empty();
}

// Whether somebody listens under the name of the process's queue, in the network namespace of the process.
bool has_open_queue(Process const& process) {
    int const pid = process.inner_pid == 0 ? process.pid : process.inner_pid;
    std::string const name = "@orn.msg." + orn::zel::cmd::CmdQueueName(pid);
    std::ifstream sockets(process.proc + "/net/unix");
    for (std::string line; std::getline(sockets, line);) {
        if (line.size() > name.size() && line.compare(line.size() - name.size(), name.size(), name) == 0 &&
            line[line.size() - name.size() - 1] == ' ')
            return true;
    }
    return false;
}

std::string command_for(std::string const& how, int pid, int inner) {
    return "nsenter -t " + std::to_string(pid) + how + " zelctl " + std::to_string(inner) + " ...";
}

std::optional<Failure> unreachable(Process const& process) {
    std::string const name = process_name(process.pid);
    if (process.inner_pid != 0) {
        return Failure(not_attachable,
                       name + " lives in another pid namespace, and its queue is named after its id there, " +
                           std::to_string(process.inner_pid) + ": " +
                           command_for(" -m -n -p", process.pid, process.inner_pid));
    }
    if (differ("/proc/self/ns/net", process.proc + "/ns/net")) {
        return Failure(not_attachable,
                       name + " lives in another network namespace, where its queue is out of reach: " +
                           command_for(" -n", process.pid, process.pid));
    }
    return std::nullopt;
}

// A process silently drops the messages of users whom it does not serve, so it would seem to be busy.
std::optional<Failure> serves_others(Process const& process) {
    if (geteuid() == 0)
        return std::nullopt;
    std::string const name = process_name(process.pid);
    if (process.user != geteuid()) {
        return Failure(not_permitted, name + " runs as user " + std::to_string(process.user) +
                                          ", and serves that one and root: ask as root");
    }
    if (!process.dumpable) {
        return Failure(not_permitted,
                       name + " has rights or secrets that its user has not (it is not dumpable), "
                              "and serves root alone: ask as root");
    }
    return std::nullopt;
}

// The order counts. exec() takes the old memory away, then marks the process, and then takes the handlers
// away. So in a process that is marked and has the library mapped, the handler is the new program's.
//
// proc: the directory of a thread that lives. The main thread's tells of the signals of all, but of no memory
// any more when it has ended before the others.
std::optional<Process> describe_by(int pid, std::string const& proc) {
    Process process;
    process.pid = pid;
    process.proc = proc;
    read_stat(process);
    look_for_library(process);
    std::map<std::string, std::string> fields = status_of(directory(pid));
    if (fields.empty())
        return std::nullopt;
    process.owner = number(fields["Tgid"]);
    process.inner_pid = inner_id(status_of("/proc/self")["NSpid"], fields["NSpid"]);
    process.threads = number(fields["Threads"]);
    std::istringstream(fields["Uid"]) >> process.user >> process.user; // real, effective, ...
    process.name = whole_name(process);
    process.catches = has_channel_signal(fields["SigCgt"]);
    process.ignores = has_channel_signal(fields["SigIgn"]);
    if (proc != directory(pid))
        fields = status_of(proc);
    process.state = fields["State"];
    process.tracer = number(fields["TracerPid"]);
    process.blocks = has_channel_signal(fields["SigBlk"]) && all_threads_block(pid);
    // The kernel gives the files in /proc to root when the process's own user may not trace it.
    struct stat owner = {};
    process.dumpable = stat((proc + "/status").c_str(), &owner) == 0 && owner.st_uid == process.user;
    process.channel_open = has_open_queue(process);
    return process;
}

} // namespace

std::string process_name(int pid) {
    return "process " + std::to_string(pid);
}

std::optional<Process> describe(int pid) {
    std::optional<Process> process = describe_by(pid, directory(pid));
    // The main thread may have ended alone. Another one that is looked at may end meanwhile as well, and
    // loses the memory before its state tells.
    unsigned const enough = 20;
    for (unsigned looks = 0; process && process->threads > 1 && looks < enough; ++looks) {
        bool const lost = process->main_thread_ended() && process->library == Process::Library::absent;
        if (!process->over() && !lost)
            break;
        std::string const thread = living_thread(pid);
        if (!thread.empty())
            process = describe_by(pid, thread);
    }
    return process;
}

bool Process::over() const {
    return has_ended(state);
}

bool Process::main_thread_ended() const {
    return proc != directory(pid);
}

std::optional<Failure> obstacle(Process const& process) {
    std::string const name = process_name(process.pid);
    std::string const owner = std::to_string(process.owner);
    if (process.owner != process.pid) {
        return Failure(not_attachable, std::to_string(process.pid) + " is a thread of process " + owner +
                                           ": zelctl " + owner + " ...");
    }
    if (process.over()) {
        return Failure(not_attachable,
                       name + " has ended, and waits for its parent to take notice (a zombie)");
    }
    std::optional<Failure> const far = unreachable(process);
    return far ? far : serves_others(process);
}

std::optional<Failure> lacks_zel(Process const& process) {
    std::string const name = process_name(process.pid);
    if (process.channel_open)
        return std::nullopt;
    if (process.library == Process::Library::mapped && process.ignores)
        return Failure(not_attachable, name + " ignores signal 55, so its channel stays closed: restart it");
    if (process.library == Process::Library::mapped && !process.catches) {
        return Failure(not_attachable, name + " has zel, but does not catch signal 55, which would end it: "
                                              "find what has taken zel's handler away");
    }
    if (process.catches && process.library != Process::Library::absent)
        return std::nullopt;
    return Failure(not_attachable, name + " has not loaded zel" +
                                       (process.catches ? "" : ", and signal 55 would end it") +
                                       ": zelctl ps lists those that have");
}

// fork() copies the handlers and exec() takes them away, so the signal ends a process that comes to exec()
// just then. One that has not called it within this time as a rule never does.
bool starting(Process const& process) {
    long const until_exec_ms = 2000;
    long const until_mapped_ms = 500; // on a busy machine
    long const until_loaded_ms = 2000;
    bool const known = process.library == Process::Library::mapped;
    long const longest = known ? until_loaded_ms : until_mapped_ms;
    return ((process.forked || !known) && process.catches && process.age_ms < until_exec_ms) ||
           (process.age_ms < longest && lacks_zel(process));
}

// exec() may sleep as well, when its program or its arguments come late.
bool awaits_signal(Process const& process, bool patient) {
    long call = -1;
    std::ifstream(process.proc + "/syscall") >> call;
    if (call == SYS_execve || call == SYS_execveat)
        return false;
    std::map<std::string, std::string> fields = status_of(process.proc);
    std::string const state = fields["State"];
    bool const rests = state.find_first_of(patient ? "ST" : "STR") == 0;
    return rests && has_channel_signal(fields["SigCgt"]);
}

std::vector<Process> processes_with_zel(std::vector<Process>& hidden) {
    std::vector<Process> found;
    std::error_code error; // processes come and go meanwhile
    for (std::filesystem::directory_iterator it("/proc", error), end; !error && it != end;
         it.increment(error)) {
        int const pid = number(it->path().filename().string());
        std::optional<Process> const process =
            pid > 0 && pid != getpid() ? describe(pid) : std::optional<Process>();
        if (!process)
            continue;
        // A queue of this name may be that of a process in another pid namespace, where it has the same id.
        if (process->library == Process::Library::mapped || (process->channel_open && process->catches))
            found.push_back(*process);
        else if (process->library == Process::Library::unknown && process->catches)
            hidden.push_back(*process);
    }
    std::sort(found.begin(), found.end(),
              [](Process const& one, Process const& other) { return one.pid < other.pid; });
    return found;
}

namespace {

// Those of exactly this name, or else those whose names hold it.
std::vector<Process> named(std::vector<Process> const& all, std::string const& text) {
    std::vector<Process> whole;
    std::vector<Process> part;
    for (Process const& process : all) {
        if (process.name == text)
            whole.push_back(process);
        else if (process.name.find(text) != std::string::npos)
            part.push_back(process);
    }
    return whole.empty() ? part : whole;
}

int pid_of(std::string const& text) {
    long const pid = text.size() < 10 ? std::strtol(text.c_str(), nullptr, 10) : 0;
    if (pid < 1)
        throw Failure(misused, "'" + text + "' is no process id, nor a name");
    return static_cast<int>(pid);
}

} // namespace

int find_process(std::string const& text) {
    if (text.empty() || text[0] == '-' || text.find_first_not_of("0123456789") == std::string::npos)
        return pid_of(text);
    std::vector<Process> hidden;
    std::vector<Process> found = named(processes_with_zel(hidden), text);
    if (found.empty())
        found = named(hidden, text); // which is refused with the reason
    if (found.size() == 1)
        return found[0].pid;
    std::string const quoted = "'" + printable(text) + "'";
    if (found.empty())
        throw Failure(not_found, "no process with zel is named " + quoted + ": zelctl ps lists them");
    std::string candidates;
    std::size_t const enough = 10;
    for (std::size_t i = 0; i < std::min(found.size(), enough); ++i)
        candidates += ' ' + std::to_string(found[i].pid) + " (" + printable(found[i].name) + ')';
    if (found.size() > enough)
        candidates += ", and " + std::to_string(found.size() - enough) + " more, which zelctl ps lists";
    throw Failure(not_found, "several processes are named " + quoted + ", say which:" + candidates);
}

} // namespace zelctl
