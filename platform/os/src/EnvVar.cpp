// SPDX-License-Identifier: MIT
//
// orn::os::EnvVar over getenv().
#include <orn/os/EnvVar.hpp>

#include <cstdlib>

namespace orn::os {

EnvVar::EnvVar(char const* name) {
    if (char const* value = name != nullptr ? std::getenv(name) : nullptr) {
        value_ = value;
    }
}

} // namespace orn::os
