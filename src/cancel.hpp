// SPDX-License-Identifier: MIT
//
// Keeping cancellation out of a scope. Internal. write() and close() are cancellation points, and many of the
// library's calls of them stand in destructors: a cancelled thread that met one there would be terminated
// with the whole process instead of being unwound.
#ifndef ZEL_SRC_CANCEL_HPP
#define ZEL_SRC_CANCEL_HPP

#include <pthread.h>

namespace orn {
namespace zel {
namespace detail {

class CancelShield {
public:
    CancelShield() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelShield() { pthread_setcancelstate(before_, nullptr); }
    CancelShield(CancelShield const&) = delete;
    CancelShield& operator=(CancelShield const&) = delete;

private:
    int before_;
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
