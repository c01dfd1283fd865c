// SPDX-License-Identifier: MIT
//
// The identity of mapped libraries, from what the dynamic linker lists.
#include "mappedModule.hpp"

#include <cstddef>

#include <link.h>

namespace orn::os {
namespace {

// FNV-1a.
std::uint64_t digest_of(void const* bytes, std::size_t size, std::uint64_t digest) {
    auto const* at = static_cast<unsigned char const*>(bytes);
    for (std::size_t i = 0; i < size; ++i)
        digest = (digest ^ at[i]) * 1099511628211u;
    return digest;
}

struct Search {
    std::uintptr_t address;
    MappedModule found;
    bool first; // the dynamic linker lists the program first
};

bool holds(dl_phdr_info const& object, std::uintptr_t address) {
    for (std::size_t i = 0; i < object.dlpi_phnum; ++i) {
        auto const& segment = object.dlpi_phdr[i];
        // An address below the segment wraps around to a distance that is too large as well.
        if (segment.p_type == PT_LOAD && address - (object.dlpi_addr + segment.p_vaddr) < segment.p_memsz)
            return true;
    }
    return false;
}

int look_at(dl_phdr_info* object, std::size_t, void* argument) {
    auto& search = *static_cast<Search*>(argument);
    bool const program = search.first;
    search.first = false;
    if (!holds(*object, search.address))
        return 0;
    std::uint64_t digest = 14695981039346656037u;
    for (char const* name = object->dlpi_name; name && *name != '\0'; ++name)
        digest = digest_of(name, 1, digest);
    digest = digest_of(object->dlpi_phdr, object->dlpi_phnum * sizeof *object->dlpi_phdr, digest);
    search.found = {object->dlpi_addr, digest,
                    program || holds(*object, reinterpret_cast<std::uintptr_t>(&look_at))};
    return 1;
}

} // namespace

// Does not use dladdr(), which takes the lock that dlclose() holds while a library's destructors run: those
// may be waiting for the very thread that asks. dl_iterate_phdr() takes another lock.
MappedModule module_of(std::uintptr_t address) {
    Search search = {address, {}, true};
    dl_iterate_phdr(look_at, &search);
    return search.found;
}

} // namespace orn::os
