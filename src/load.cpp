// SPDX-License-Identifier: MIT
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

#include "shutdown.hpp"

namespace orn {
namespace zel {

namespace {

LibLoader* loader = nullptr;

// A preloaded library that needs this one keeps it loaded until exit(), long after its host may have closed
// it. exit() closes that library from here: then it must not be the last one that keeps this code mapped.
void stay_for(std::string const& name) {
    void* const library = dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (!library)
        return;
    void* const needed = dlsym(library, "ZEL_Thread_create_extension");
    dlclose(library);
    Dl_info self = {};
    if (needed == reinterpret_cast<void*>(ZEL_Thread_create_extension) && dladdr(needed, &self) != 0)
        dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
}

} // namespace

void ZEL_load__() {
    thread::zel_thread_load();
    signal::zel_signal_load();
    alarm::zel_alarm_load();
    task::zel_task_load();
    cmd::zel_cmd_load();
    zelcmds::zel_zelcmds_load();

    std::vector<std::string> names;
    split(std::string(os::EnvVar("ZEL_PRELOAD")), " :,;", names);
    loader = new LibLoader;
    for (std::string const& name : names) {
        if (loader->load(name))
            stay_for(name);
    }
}

void ZEL_unload__() {
    // A command may be running code of a library that goes next.
    bool const no_command_runs = cmd::stop_channel();
    detail::Shutdown::look_for_threads();

    // Preloaded libraries first: they may use any subsystem.
    if (no_command_runs) {
        delete loader;
        loader = nullptr;
    }

    zelcmds::zel_zelcmds_unload();
    cmd::zel_cmd_unload();
    task::zel_task_unload();
    alarm::zel_alarm_unload();
    signal::zel_signal_unload();
    thread::zel_thread_unload();
}

} // namespace zel
} // namespace orn
