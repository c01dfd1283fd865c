// SPDX-License-Identifier: MIT
//
// What a subsystem has from its load to its unload, while other threads may be calling it. Internal.
#ifndef ZEL_SRC_LOADED_HPP
#define ZEL_SRC_LOADED_HPP

#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// Empty before the load and after the unload: calls then find nothing and do nothing. An immortal object
// (immortal.hpp), because exit() unloads while other threads go on calling.
template <class State>
struct Loaded {
    // What is taken out must be destroyed with the lock released: handlers go with it, and their destructors
    // may call back.
    boost::shared_ptr<State> take_out() {
        AutoLock const guard(lock);
        boost::shared_ptr<State> taken;
        taken.swap(state);
        return taken;
    }

    // A call that is under way holds the state, so that an unload does not pull it away.
    boost::shared_ptr<State> current() {
        AutoLock const guard(lock);
        return state;
    }

    ThreadMutex lock;
    boost::shared_ptr<State> state ZEL_GUARDED_BY(lock);
};

} // namespace orn::zel::detail

#endif
