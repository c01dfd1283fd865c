// SPDX-License-Identifier: MIT
//
// How the library is being taken down. Internal. There are three ways:
//
//     a call of ZEL_unload__()   the code stays, and may be loaded again: everything is freed
//     dlclose()                  the code goes: everything is freed and waited for, whatever threads live
//     exit()                     other threads go on to the very end: while there are any, what they may
//                                still come for is kept, and nobody is waited for without limit
#ifndef ZEL_SRC_SHUTDOWN_HPP
#define ZEL_SRC_SHUTDOWN_HPP

namespace orn {
namespace zel {
namespace detail {

class Shutdown {
public:
    // By the library's own destructor, before ZEL_unload__().
    static void begin(bool unmapped);

    static bool unmapping();
    static bool exiting();

    // In ZEL_unload__(), once no thread of the library's own is left to be waited for.
    static void look_for_threads();
    // Whether managers, records and descriptors stay: on the way through exit(), while another thread lives.
    // What stays is left where it is, so that those threads find it and go on as before.
    static bool keeps();

    // Before the code is unmapped. A thread that a signal has just reached may stand before the first
    // instruction of the handler, where it cannot be counted yet, or behind the last one that is. Returns
    // when the other threads sleep or have got on, after a second at most.
    static void let_threads_get_on();
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
