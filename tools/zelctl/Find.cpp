// SPDX-License-Identifier: MIT
//
// The table of processes.
#include "Find.hpp"

#include <algorithm>
#include <cstdio>

#include <pwd.h>

#include "Output.hpp"
#include "Process.hpp"
#include "Table.hpp"

namespace zelctl {

namespace {

std::string user_name(uid_t user) {
    passwd const* const entry = getpwuid(user);
    return entry ? entry->pw_name : std::to_string(user);
}

std::string attachable(Process const& process) {
    if (std::optional<Failure> const why = obstacle(process))
        return why->what();
    if (std::optional<Failure> const why = lacks_zel(process))
        return why->what();
    return process.stopped() ? "stopped: kill -CONT " + std::to_string(process.pid) : "yes";
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
    std::size_t hidden = 0;
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
    if (objects.empty())
        std::fputs("zelctl: no process with zel is visible here\n", stderr);
    if (hidden > 0) {
        std::fprintf(stderr,
                     "zelctl: %zu more may have zel, but are not this user's to look into: ask as root\n",
                     hidden);
    }
    return objects.empty() && !options.words.empty() ? not_found : ok;
}

} // namespace zelctl
