// SPDX-License-Identifier: MIT
//
// Tells which mapped library an address is in, and whether that library is still there later. Internal.
#ifndef ORN_OS_MAPPEDMODULE_HPP
#define ORN_OS_MAPPEDMODULE_HPP

#include <cstdint>

namespace orn::os {

// Identifies a library by address, name and program headers, so that another one which is mapped at the same
// address later is told apart. A zero base and digest means: not mapped.
struct MappedModule {
    std::uintptr_t base = 0;
    std::uint64_t digest = 0;
    // Whether it is the program itself or the library that holds this code, which stay while anybody asks.
    bool permanent = false;
};

inline bool operator==(MappedModule const& a, MappedModule const& b) {
    return a.base == b.base && a.digest == b.digest;
}

// The library that the address is in. Any thread.
MappedModule module_of(std::uintptr_t address);

} // namespace orn::os

#endif
