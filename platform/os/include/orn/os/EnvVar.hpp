// SPDX-License-Identifier: MIT
//
// One environment variable, read when the object is made. Public. Changing the environment is left to
// setenv(); as with getenv(), no other thread may change it meanwhile.
#ifndef ORN_OS_ENVVAR_HPP
#define ORN_OS_ENVVAR_HPP

#include <string>

#include <orn/api.h>

namespace orn::os {

class ORN_API EnvVar {
public:
    // An unset variable and a null name read as the empty string. So does every variable in a program that
    // has more rights than its caller.
    explicit EnvVar(char const* name);

    operator std::string() const { return value_; }

private:
    std::string value_;
};

} // namespace orn::os

#endif
