// SPDX-License-Identifier: MIT
//
// The order in which the subsystems come up and go down, the libraries of ZEL_PRELOAD, and the channel that
// ZEL_CHANNEL opens. onLoad.cpp calls both functions when the shared library is loaded and unloaded.
#include <orn/zel/load.hpp>

#include <string>
#include <vector>

#include <dlfcn.h>

#include <orn/LibLoader.hpp>
#include <orn/os/EnvVar.hpp>
#include <orn/zel/alarm.hpp>
#include <orn/zel/cmd.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/signal.hpp>
#include <orn/zel/task.hpp>
#include <orn/zel/threadGroup.hpp>
#include <orn/zel/zelcmds.hpp>

#include "immortal.hpp"
#include "inspect.hpp"
#include "load.hpp"
#include "loaded.hpp"
#include "shared.hpp"
#include "shutdown.hpp"

namespace orn::zel {

namespace {

using Names = std::vector<std::string>;

LibLoader* loader = nullptr;

// Empty until all have been loaded: one of them may open the channel, and a client may ask.
detail::Loaded<Names>& preloaded() {
    return detail::immortal<detail::Loaded<Names>, Names>();
}

// Whether the library has been linked with this one: it then finds one of this one's names.
bool needs_this_library(std::string const& name) {
    void* const library = dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (!library)
        return false;
    void* const found = dlsym(library, "ZEL_Thread_create_extension");
    dlclose(library);
    return found == reinterpret_cast<void*>(ZEL_Thread_create_extension);
}

} // namespace

std::vector<std::string> detail::preloaded_modules() {
    boost::shared_ptr<Names> const held = preloaded().current();
    return held ? *held : Names();
}

void ZEL_load__() {
    thread::zel_thread_load();
    signal::zel_signal_load();
    alarm::zel_alarm_load();
    task::zel_task_load();
    cmd::zel_cmd_load();
    zelcmds::zel_zelcmds_load();
    detail::zel_inspect_load();

    Names names;
    split(std::string(os::EnvVar("ZEL_PRELOAD")), " :,;", names);
    if (!loader) // else it is called a second time by hand, and the first one's libraries go with the others
        loader = new LibLoader;
    boost::shared_ptr<Names> const found = detail::make_shared<Names>();
    for (std::string const& name : names) {
        // Such a library keeps this one loaded after the host has closed it. exit() then closes that library
        // from here, which would unmap this code if nothing else kept it.
        if (!loader->load(name))
            continue;
        found->push_back(name);
        if (needs_this_library(name))
            detail::Shutdown::put_off_until_exit();
    }
    {
        AutoLock const guard(preloaded().lock);
        preloaded().state = found;
    }
    // Last, because a client may send commands at once.
    if (std::string(os::EnvVar("ZEL_CHANNEL")) == "1")
        cmd::InstallCommandChannel();
}

void ZEL_unload__() {
    // Commands end before anything else, because one may be running code of a preloaded library.
    bool const no_command_runs = cmd::stop_channel();
    detail::Shutdown::look_for_threads();

    // Preloaded libraries go before the subsystems, because they may use any of them.
    if (no_command_runs) {
        delete loader;
        loader = nullptr;
        preloaded().take_out();
    }

    detail::zel_inspect_unload();
    zelcmds::zel_zelcmds_unload();
    cmd::zel_cmd_unload();
    task::zel_task_unload();
    alarm::zel_alarm_unload();
    signal::zel_signal_unload();
    thread::zel_thread_unload();
}

} // namespace orn::zel
