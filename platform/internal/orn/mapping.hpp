// SPDX-License-Identifier: MIT
//
// What a library that has static objects can find out about its own mapping. Internal to the platform and to
// zel; not installed. Header-only, since the two may be linked apart.
//
// Static destructors run in exit() and in dlclose(), and the C library does not tell which. It shows in an
// order. dlclose() runs a library's __attribute__((destructor)) functions before its static objects. exit()
// runs the handlers that were registered after the loader's own one first, so the static objects of a
// library that was opened while the program ran come before its destructor functions; those of a library
// that came with the program come after them, but such a library is never unmapped. A library that a
// constructor of the program's own libraries opens is taken for one that is unmapped.
#ifndef ORN_MAPPING_HPP
#define ORN_MAPPING_HPP

#include <atomic>
#include <dlfcn.h>

namespace orn::internal {

// Constant-initialised, and never destroyed: its state belongs to one mapping of the library.
class Mapping {
public:
    // From the constructor of a static object. False when that has run before: a thread that is in dlopen()
    // while another one is in exit() has the loader run constructors again.
    bool begin(char const* exported_name) {
        if (begun_.exchange(true))
            return false;
        with_program_ = came_with_program(exported_name);
        return true;
    }

    // From a function with __attribute__((destructor)).
    void destructor_function() { unmapped_ = !with_program_; }

    // From the destructor of a static object: in dlclose(), after which this code is gone.
    bool unmapped() const { return unmapped_; }

private:
    // A library that is being opened is not yet among those that the program's handle finds, also with
    // RTLD_GLOBAL; one that is preloaded is. Another library may have a function of the same name.
    bool came_with_program(char const* exported_name) const {
        void* const program = dlopen(nullptr, RTLD_LAZY);
        if (program == nullptr)
            return false;
        void* const found = dlsym(program, exported_name);
        dlclose(program);
        dlerror(); // not finding it is no error that our opener should see
        Dl_info theirs = {};
        Dl_info ours = {};
        return found != nullptr && dladdr(found, &theirs) != 0 && dladdr(this, &ours) != 0 &&
               theirs.dli_fbase == ours.dli_fbase;
    }

    std::atomic<bool> begun_{false};
    std::atomic<bool> with_program_{false};
    std::atomic<bool> unmapped_{false};
};

} // namespace orn::internal

#endif
