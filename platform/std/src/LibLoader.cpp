// SPDX-License-Identifier: MIT
//
// orn::LibLoader over dlopen(). Libraries that cannot be loaded are reported to the log.
#include <orn/LibLoader.hpp>

#include <dlfcn.h>

#include <orn/log.h>

namespace orn {
namespace {

void report(char const* name, char const* why) {
    Log_SpecEntry(logSpecForceInfo, "std/LibLoader", __LINE__, "%s: '%s' is not loaded: %s",
                  "orn::LibLoader::load", name, why ? why : "unknown reason");
}

} // namespace

LibLoader::LibLoader() = default;

LibLoader::~LibLoader() {
    unload();
}

bool LibLoader::load(std::string const& name) {
    if (name.empty()) {
        // dlopen("") would open the program itself.
        report("", "empty name");
        return false;
    }
    // Reserved before the library is opened, because a handle that cannot be kept would never be closed.
    handles_.reserve(handles_.size() + 1);
    void* const handle = dlopen(name.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (!handle) {
        report(name.c_str(), dlerror());
        return false;
    }
    handles_.push_back(handle);
    return true;
}

void LibLoader::unload() {
    while (!handles_.empty()) {
        // Taken off the list first, because the library's destructors may call this function again.
        void* const handle = handles_.back();
        handles_.pop_back();
        dlclose(handle);
    }
}

} // namespace orn
