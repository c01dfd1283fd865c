// SPDX-License-Identifier: MIT
//
// One environment variable, read when the object is made. Public. Changing the environment is left to
// setenv(); as with getenv(), nobody may change it while it is read.
#ifndef ORN_OS_ENVVAR_HPP
#define ORN_OS_ENVVAR_HPP

#include <orn/api.h>
#include <string>

namespace orn::os {

class ORN_API EnvVar {
public:
    // An unset variable reads as the empty string, and so does a null name.
    explicit EnvVar(char const* name);

    operator std::string() const { return value_; }

private:
    std::string value_;
};

} // namespace orn::os

#endif
