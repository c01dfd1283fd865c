// SPDX-License-Identifier: MIT
//
// Makes shared objects that are few and live long, such as managers and groups. Internal. What is made in a
// hot path comes from boost::make_shared().
#ifndef ZEL_SRC_SHARED_HPP
#define ZEL_SRC_SHARED_HPP

#include <utility>

#include <boost/shared_ptr.hpp>

namespace orn::zel::detail {

template <class T>
void destroy(void* object) {
    delete static_cast<T*>(object);
}

// As boost::make_shared(), but all types have one kind of counter. boost::make_shared() brings nine functions
// and a virtual table for each type, a kilobyte of code and relocations; this takes a second allocation
// instead.
template <class T, class... Arguments>
boost::shared_ptr<T> make_shared(Arguments&&... arguments) {
    T* const made = new T(std::forward<Arguments>(arguments)...);
    boost::shared_ptr<void> const owner(static_cast<void*>(made), &destroy<T>);
    return boost::shared_ptr<T>(owner, made);
}

} // namespace orn::zel::detail

#endif
