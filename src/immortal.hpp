// SPDX-License-Identifier: MIT
//
// Objects that must outlive every thread. Internal. exit() runs the static destructors while other threads
// are still in their loops, so a lock that those threads take must never be destroyed. An immortal object
// lives in static storage and is constructed on first use; nothing is left allocated when the library is
// unmapped.
#ifndef ZEL_SRC_IMMORTAL_HPP
#define ZEL_SRC_IMMORTAL_HPP

#include <new>

namespace orn::zel::detail {

// One object for each pair of types; Tag tells objects of one type apart. T must hold nothing that an
// unmapped library would leak.
template <class T, class Tag>
T& immortal() {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const object = new (storage) T;
    return *object;
}

} // namespace orn::zel::detail

#endif
