// SPDX-License-Identifier: MIT
//
// orn::LibLoader over dlopen().
#include <orn/LibLoader.hpp>

#include <dlfcn.h>
#include <orn/log.h>

namespace orn {
namespace {

void report(char const* name, char const* why) {
    Log_SpecEntry(logSpecForceInfo, "std/LibLoader", __LINE__, "%s: '%s' is not loaded: %s",
                  "orn::LibLoader::load", name, why != nullptr ? why : "unknown reason");
}

} // namespace

LibLoader::LibLoader() = default;

LibLoader::~LibLoader() {
    unload();
}

bool LibLoader::load(std::string const& name) {
    if (name.empty()) {
        // dlopen("") would succeed: it is the program itself.
        report("", "empty name");
        return false;
    }
    // The place first: a handle that could not be kept would never be closed.
    handles_.reserve(handles_.size() + 1);
    void* const handle = dlopen(name.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr) {
        report(name.c_str(), dlerror());
        return false;
    }
    handles_.push_back(handle);
    return true;
}

void LibLoader::unload() {
    while (!handles_.empty()) {
        // Out of the list before its destructors run, which may come back here.
        void* const handle = handles_.back();
        handles_.pop_back();
        dlclose(handle);
    }
}

} // namespace orn
