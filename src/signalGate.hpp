// SPDX-License-Identifier: MIT
//
// What signal context reads. Internal to signals. A signal handler may interrupt any code, may run in several
// threads at once and may be interrupted by other signals' handlers; so it takes no lock, spins on nothing
// and allocates nothing. It enters the gate, reads an immutable snapshot of the functions to call and leaves
// again. A change publishes another snapshot and retires the one before, which is freed once nobody is inside
// the gate. Nobody waits for that but unloading.
#ifndef ZEL_SRC_SIGNALGATE_HPP
#define ZEL_SRC_SIGNALGATE_HPP

#include <vector>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace orn {
namespace zel {
namespace detail {

class SignalGate {
public:
    typedef std::vector<boost::shared_ptr<boost::function<void(int)>>> functions_type;

    // Calls the functions published for the signal. Signal-safe if the functions are.
    static void deliver(int signo);

    // The rest is not for signal context.

    // Says that there is nobody to call yet, but soon will be: what arrives before the next publish() is
    // counted, and made up for then. A handler is installed before anybody can be told of its signal.
    static void await(int signo);

    // Replaces the functions for the signal. A function that is not among them any more may be running when
    // this returns, and holds what it uses.
    static void publish(int signo, functions_type const& functions);

    // Frees what has been retired, if nobody is inside the gate. Runs the destructors of functions, so the
    // caller holds no lock.
    static void reclaim();

    // The same, once everybody has left the gate; gives up after a second, and frees nothing then.
    static void drain();

    // In a child of fork(), which has not got the threads that were inside in its parent.
    static void forked();
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
