// SPDX-License-Identifier: MIT
//
// How the library is being taken down. Internal. It decides; the subsystems ask, and do what follows from it.
// There are three ways:
//
//     a call of ZEL_unload__()   the code stays, and may be loaded again: everything is freed
//     dlclose()                  the code goes: everything is freed and waited for, whatever threads live
//     exit()                     other threads go on to the very end: while there are any, what they may
//                                still come for is kept, and nobody is waited for without limit
#ifndef ZEL_SRC_SHUTDOWN_HPP
#define ZEL_SRC_SHUTDOWN_HPP

namespace orn::zel::detail {

class Shutdown {
public:
    // From here on dlclose() has no effect on the library any more, which then goes by exit(). Takes the
    // dynamic linker's lock.
    static void put_off_until_exit();

    // The library's own destructor calls this before ZEL_unload__().
    static void begin(bool unmapped);

    static bool unmapping();
    static bool exiting();

    // ZEL_unload__() calls this once it has waited for the threads of the library's own.
    static void look_for_threads();
    // Whether managers, records and descriptors stay: on the way through exit(), while another thread lives.
    // What stays is left where it is, so that those threads find it and go on as before.
    static bool keeps();
};

} // namespace orn::zel::detail

#endif
