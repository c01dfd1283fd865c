// SPDX-License-Identifier: MIT
//
// Loads shared libraries and unloads them again in reverse order. Public. Where libraries are looked for and
// what they do when they are loaded is left to dlopen() and to them.
#ifndef ORN_LIBLOADER_HPP
#define ORN_LIBLOADER_HPP

#include <orn/api.h>
#include <string>
#include <vector>

namespace orn {

// Not synchronised: one thread at a time.
class ORN_API LibLoader {
public:
    LibLoader();

    // Unloads what is still loaded.
    virtual ~LibLoader();

    LibLoader(LibLoader const&) = delete;
    LibLoader& operator=(LibLoader const&) = delete;

    // Loads one library lazily bound, its symbols visible to those that are loaded later. A name that is
    // empty or cannot be loaded returns false and leaves one log record; it throws nothing (std::bad_alloc
    // aside). A library that is loaded twice counts twice.
    bool load(std::string const& name);

    // Unloads everything that this loader loaded, last loaded first. The loader can be used again.
    void unload();

private:
    std::vector<void*> handles_;
};

} // namespace orn

#endif
