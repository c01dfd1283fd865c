// SPDX-License-Identifier: MIT
//
// Keeps cancellation out of a scope. Internal to the platform and to zel; not installed. close(), write(),
// waiting and joining are cancellation points. A thread that is cancelled at one inside a destructor cannot
// be unwound out of it: the whole process would be terminated.
#ifndef ORN_CANCEL_HPP
#define ORN_CANCEL_HPP

#include <pthread.h>

namespace orn::internal {

class CancelShield {
public:
    CancelShield() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelShield() { pthread_setcancelstate(before_, nullptr); }
    CancelShield(CancelShield const&) = delete;
    CancelShield& operator=(CancelShield const&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace orn::internal

#endif
