// SPDX-License-Identifier: MIT
//
// orn::os::EnvVar over secure_getenv(), because a program with more rights than its caller must not load the
// modules that the caller names.
#include <orn/os/EnvVar.hpp>

#include <stdlib.h>

namespace orn::os {

EnvVar::EnvVar(char const* name) {
    if (char const* value = name ? secure_getenv(name) : nullptr)
        value_ = value;
}

} // namespace orn::os
