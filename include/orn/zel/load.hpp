// SPDX-License-Identifier: MIT
//
// The life of the library. Public for hosts that link the parts statically and bring them up themselves; with
// the shared library nothing here has to be called, since loading and unloading it does.
//
//     export ZEL_PRELOAD=libfirst.so:libsecond.so   # modules that come and go with the library
#ifndef ORN_ZEL_LOAD_HPP
#define ORN_ZEL_LOAD_HPP

#include <orn/api.h>

namespace orn {
namespace zel {

// Brings the subsystems up in the order in which they need one another, then loads the libraries that the
// environment variable ZEL_PRELOAD names, separated by blanks, colons, commas or semicolons. A name that
// cannot be loaded is passed over.
ORN_API void ZEL_load__();

// Unloads those libraries and takes the subsystems down in the reverse order.
ORN_API void ZEL_unload__();

} // namespace zel
} // namespace orn

#endif
