// SPDX-License-Identifier: MIT
//
// Loads shared libraries and unloads them again in reverse order. Public. Looking for them is left to
// dlopen().
#ifndef ORN_LIBLOADER_HPP
#define ORN_LIBLOADER_HPP

#include <string>
#include <vector>

#include <orn/api.h>

namespace orn {

// Not synchronised: only one thread at a time may use a loader. The constructors and destructors of the
// libraries run in the calling thread.
class ORN_API LibLoader {
public:
    LibLoader();

    // Unloads what is still loaded.
    virtual ~LibLoader();

    LibLoader(LibLoader const&) = delete;
    LibLoader& operator=(LibLoader const&) = delete;

    // Loads one library, lazily bound and with its symbols visible to libraries that are loaded later.
    // Returns false and writes one log record when the name is empty or cannot be loaded; throws nothing but
    // std::bad_alloc. A library that is loaded twice has to be unloaded twice.
    bool load(std::string const& name);

    // Unloads everything that this loader has loaded, the last one first. The loader can be used again.
    void unload();

private:
    std::vector<void*> handles_;
};

} // namespace orn

#endif
