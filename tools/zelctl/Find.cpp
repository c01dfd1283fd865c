// SPDX-License-Identifier: MIT
//
// The table of processes.
#include "Find.hpp"

#include <algorithm>
#include <cstdio>

#include <pwd.h>
#include <unistd.h>

#include "Output.hpp"
#include "Process.hpp"
#include "Table.hpp"

namespace zelctl {

namespace {

std::string user_name(uid_t user) {
    passwd const* const entry = getpwuid(user);
    return entry ? entry->pw_name : std::to_string(user);
}

// The line is about the process anyhow.
std::string without_name(std::string const& text, Process const& process) {
    std::string const name = process_name(process.pid) + ' ';
    return text.compare(0, name.size(), name) == 0 ? text.substr(name.size()) : text;
}

std::string attachable(Process const& process) {
    for (auto const reason : {obstacle, lacks_zel}) {
        if (std::optional<Failure> const why = reason(process))
            return without_name(why->what(), process);
    }
    if (process.stopped())
        return "stopped: kill -CONT " + std::to_string(process.pid);
    std::string const status = "/proc/" + std::to_string(process.pid) + "/status";
    if (process.blocks && !process.channel_open)
        return "all its threads block signal 55: see SigBlk in " + status;
    return "yes";
}

Json object_of(Process const& process) {
    return {{"pid", process.pid},
            {"user", user_name(process.user)},
            {"name", process.name},
            {"threads", process.threads},
            {"signal", process.catches   ? "caught"
                       : process.ignores ? "ignored"
                                         : "default"},
            {"channel", process.channel_open ? "open" : "closed"},
            {"attach", attachable(process)}};
}

} // namespace

ExitStatus list_processes(Output& output, Options const& options) {
    std::vector<Process> hidden;
    std::vector<Json> objects;
    for (Process const& process : processes_with_zel(hidden)) {
        bool const wanted =
            options.words.empty() ||
            std::any_of(options.words.begin(), options.words.end(), [&](std::string const& word) {
                return process.name.find(word) != std::string::npos;
            });
        if (wanted)
            objects.push_back(object_of(process));
    }
    print_table(output, options, objects);
    output.flush();
    if (objects.empty() && options.words.empty()) {
        std::fputs("zelctl: no process with zel is visible here\n", stderr);
    } else if (objects.empty()) {
        std::fprintf(stderr, "zelctl: no process with zel has a name with '%s': zelctl ps lists all\n",
                     printable(joined(options.words, "' or '")).c_str());
    }
    if (!hidden.empty()) {
        std::fprintf(stderr, "zelctl: %zu more may have zel, but may not be looked into: %s\n", hidden.size(),
                     geteuid() != 0 ? "ask as root" : "this root lacks the right to trace them");
    }
    return objects.empty() && !options.words.empty() ? not_found : ok;
}

} // namespace zelctl
