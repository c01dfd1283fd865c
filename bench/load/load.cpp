// SPDX-License-Identifier: MIT
//
// Measures loading the library into a process and unloading it, beside a library with nothing in it.
#include <memory>
#include <string>

#include <dirent.h>
#include <dlfcn.h>

#include "versus.hpp"

namespace {

// Counts the descriptors or threads that the kernel lists, to compare with a later count.
long entries(char const* directory) {
    std::unique_ptr<DIR, int (*)(DIR*)> const listing(opendir(directory), closedir);
    bench::expect(listing != nullptr, "no listing in /proc");
    long count = 0;
    while (readdir(listing.get()))
        ++count;
    return count;
}

bool loaded(char const* library) {
    void* const handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle != nullptr;
}

double load_and_unload(bench::Versus& versus, std::string const& name, char const* library, long count) {
    double loading = 0;
    double unloading = 0;
    for (long i = 0; i < count; ++i) {
        void* handle = nullptr;
        loading += bench::timed([&] { handle = dlopen(library, RTLD_NOW | RTLD_LOCAL); });
        if (!handle)
            throw std::runtime_error(dlerror());
        unloading += bench::timed([&] { dlclose(handle); });
    }
    bench::expect(!loaded(library), "the library has not been unloaded");
    versus.note_each(name + "_load", loading, count);
    versus.note_each(name + "_unload", unloading, count);
    return loading + unloading;
}

void load_and_unload_library(benchmark::State& state) {
    state.SetLabel("dlopen() and dlclose()");
    bench::Versus versus(state, 10, "us");
    versus.leg("zel", [&](long count) {
        long const descriptors = entries("/proc/self/fd");
        long const threads = entries("/proc/self/task");
        double const time = load_and_unload(versus, "zel", ZEL_LIBRARY, count);
        bench::expect(entries("/proc/self/fd") == descriptors, "descriptors are left");
        bench::expect(entries("/proc/self/task") == threads, "threads are left");
        return time;
    });
    versus.leg("bare", [&](long count) { return load_and_unload(versus, "bare", EMPTY_LIBRARY, count); });
    versus.run();
}
BENCHMARK(load_and_unload_library)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
