// SPDX-License-Identifier: MIT
//
// What a library with static objects can find out about its own mapping. Internal to the platform and to zel;
// not installed. It is header-only, because the two may be linked apart.
//
// Static destructors run in exit() and in dlclose(), and the C library does not tell in which. The order of
// calls does. dlclose() calls a library's __attribute__((destructor)) functions before it destroys the static
// objects. exit() destroys the static objects of a library that was opened while the program ran first, and
// calls the destructor functions after them. It calls them first as well in a library that came with the
// program; but such a library is never unmapped, and begin() recognises it. A library that is opened by a
// constructor of the program's own libraries is wrongly taken for one that is being unmapped.
#ifndef ORN_MAPPING_HPP
#define ORN_MAPPING_HPP

#include <atomic>

#include <dlfcn.h>

namespace orn::internal {

// For a static object. It is constant-initialised and never destroyed, so its state is that of one mapping.
class Mapping {
public:
    // Called by the constructor of a static object. False when that has run before: a thread that is in
    // dlopen() while another one is in exit() has the loader run constructors again. The name is that of a
    // function which the library exports.
    bool begin(char const* exported_name) {
        if (begun_.exchange(true))
            return false;
        with_program_ = came_with_program(exported_name);
        return true;
    }

    // Called by a function with __attribute__((destructor)).
    void destructor_function() { unmapped_ = !with_program_; }

    // Called by the destructor of a static object. True in dlclose(), after which this code is gone.
    bool unmapped() const { return unmapped_; }

private:
    // The program's handle finds functions of libraries that came with the program or were preloaded, but
    // none of a library that is being opened, even with RTLD_GLOBAL. The addresses are compared because
    // another library may have a function of the same name.
    bool came_with_program(char const* exported_name) const {
        void* const program = dlopen(nullptr, RTLD_LAZY);
        if (!program)
            return false;
        void* const found = dlsym(program, exported_name);
        dlclose(program);
        dlerror(); // whoever opens us must not see an error because the function was not found
        Dl_info theirs = {};
        Dl_info ours = {};
        return found && dladdr(found, &theirs) != 0 && dladdr(this, &ours) != 0 &&
               theirs.dli_fbase == ours.dli_fbase;
    }

    std::atomic<bool> begun_{false};
    std::atomic<bool> with_program_{false};
    std::atomic<bool> unmapped_{false};
};

} // namespace orn::internal

#endif
