// SPDX-License-Identifier: MIT
//
// The built-in word "zel": which function each of its words calls, and the libraries that it has loaded.
#include <orn/zel/zelcmds.hpp>

#include <map>
#include <utility>
#include <vector>

#include <dlfcn.h>

#include <boost/shared_ptr.hpp>

#include <orn/zel/alarm.hpp>
#include <orn/zel/cmd.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>
#include <orn/zel/signal.hpp>
#include <orn/zel/task.hpp>
#include <orn/zel/threadGroup.hpp>

#include "immortal.hpp"
#include "loaded.hpp"
#include "shared.hpp"
#include "shutdown.hpp"
#include "zelcmds.hpp"

namespace orn::zel::zelcmds {

namespace {

struct Builtin {
    std::map<std::string, cmd::Handler> subcommands; // not changed after load
    // By the name that loaded them. The lock is not held while a library is loaded or unloaded: two threads
    // at a time may look, but one alone may change them.
    std::map<std::string, void*> libraries;
    ThreadMutex libraries_lock;
};

detail::Loaded<Builtin>& builtin() {
    return detail::immortal<detail::Loaded<Builtin>, Builtin>();
}

template <class Each>
void for_each_word(std::string const& args, Each each) {
    std::string rest = args;
    while (!rest.empty()) {
        std::pair<std::string, std::string> words = cmd::GetFirstWord(rest);
        if (!words.first.empty())
            each(words.first);
        rest.swap(words.second);
    }
}

using Switch = void (*)(std::string const&, int);

struct Monitored {
    char const* word;
    Switch on;
    Switch off;
};

Monitored const monitored[] = {{"poll", thread::MonitorPoll, thread::UnmonitorPoll},
                               {"thread", thread::MonitorThread, thread::UnmonitorThread},
                               {"task", task::Monitor, task::Unmonitor},
                               {"alarm", alarm::Monitor, alarm::Unmonitor}};

void switch_monitors(std::string const& args, int fd, Switch Monitored::*direction) {
    for_each_word(args, [&](std::string const& word) {
        for (Monitored const& subsystem : monitored) {
            if (word == subsystem.word)
                (subsystem.*direction)(word, fd);
        }
    });
}

std::string load_library(Builtin& state, std::string const& name) {
    // The module's constructors run here, for as long as they like, and may register words.
    void* const handle = dlopen(name.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (!handle)
        return std::string(dlerror()) + '\n';
    AutoLock const guard(state.libraries_lock);
    state.libraries.insert(std::make_pair(name, handle)); // loaded again: the handle is the same
    return name + ": loaded\n";
}

std::string unload_library(Builtin& state, std::string const& name) {
    auto const it = state.libraries.find(name);
    if (it == state.libraries.end())
        return name + ": not found\n";
    if (dlclose(it->second) != 0)
        return std::string(dlerror()) + '\n';
    AutoLock const guard(state.libraries_lock);
    state.libraries.erase(name);
    return name + ": unloaded\n";
}

void change_libraries(std::string const& args, int fd, std::string (*change)(Builtin&, std::string const&)) {
    boost::shared_ptr<Builtin> const held = builtin().current();
    if (!held)
        return;
    if (cmd::stopping())
        return; // dlclose() of this library may be under way already
    // Another thread's dlclose() of this library would hold the dynamic linker's lock and wait for the
    // command thread, which would be waiting for that same lock below.
    detail::Shutdown::put_off_until_exit();
    std::string text;
    for_each_word(args, [&](std::string const& name) { text += change(*held, name); });
    cmd::Write(fd, text);
}

} // namespace

void Monitor(std::string const& args, int fd) {
    switch_monitors(args, fd, &Monitored::on);
}

void Unmonitor(std::string const& args, int fd) {
    switch_monitors(args, fd, &Monitored::off);
}

void Load(std::string const& args, int fd) {
    change_libraries(args, fd, load_library);
}

void Unload(std::string const& args, int fd) {
    change_libraries(args, fd, unload_library);
}

std::vector<std::string> loaded_modules() {
    std::vector<std::string> names;
    if (boost::shared_ptr<Builtin> const held = builtin().current()) {
        AutoLock const guard(held->libraries_lock);
        for (auto const& item : held->libraries)
            names.push_back(item.first);
    }
    return names;
}

void ProcessCommand(std::string const& args, int resp_fd) {
    std::pair<std::string, std::string> const words = cmd::GetFirstWord(args);
    boost::shared_ptr<Builtin> const held = builtin().current();
    if (held) {
        auto const it = held->subcommands.find(words.first);
        if (it != held->subcommands.end()) {
            it->second(words.second, resp_fd);
            return;
        }
    }
    cmd::Write(resp_fd, "[zel] " + words.first + ": no such command\n");
}

void zel_zelcmds_load() {
    boost::shared_ptr<Builtin> const made = detail::make_shared<Builtin>();
    made->subcommands["tasks"] = task::ListTasks;
    made->subcommands["threads"] = thread::ListThreads;
    made->subcommands["monitor"] = Monitor;
    made->subcommands["unmonitor"] = Unmonitor;
    made->subcommands["signals"] = signal::ListSignals;
    made->subcommands["fds"] = fd::ListFds;
    made->subcommands["load"] = Load;
    made->subcommands["unload"] = Unload;
    {
        AutoLock const guard(builtin().lock);
        builtin().state = made;
    }
    cmd::Register("zel", ProcessCommand);
}

void zel_zelcmds_unload() {
    cmd::Unregister("zel");
    builtin().take_out(); // libraries that are still open stay loaded
}

} // namespace orn::zel::zelcmds
