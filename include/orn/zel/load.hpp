// SPDX-License-Identifier: MIT
//
// The life of the library. Public, for hosts that link the parts statically and bring them up themselves.
// With the shared library nothing here has to be called: loading and unloading it does.
//
//     export ZEL_PRELOAD=libfirst.so:libsecond.so   # modules that come and go with the library
#ifndef ORN_ZEL_LOAD_HPP
#define ORN_ZEL_LOAD_HPP

#include <orn/api.h>

namespace orn::zel {

// Brings the subsystems up in the order in which they need one another, then loads the libraries that the
// environment variable ZEL_PRELOAD names, separated by blanks, colons, commas or semicolons. Passes over a
// name that cannot be loaded. The calling thread watches signal 55, so its loop opens the command channel.
// Blocks for as long as the libraries' constructors run. No other thread may be using the library yet.
ORN_API void ZEL_load__();

// Waits for a command that is under way, unloads those libraries and takes the subsystems down in the reverse
// order. No other thread may be using the library any more.
ORN_API void ZEL_unload__();

} // namespace orn::zel

#endif
