// SPDX-License-Identifier: MIT
//
// What signal context reads. Internal to signals. A signal handler may interrupt any code, may run in several
// threads at once and may be interrupted by other signals' handlers; so it takes no lock, spins on nothing
// and allocates nothing. It enters the gate, reads an immutable snapshot of the functions to call and leaves
// again. A change publishes another snapshot and waits until nobody can be in the old one any more.
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

    // Says that there is nobody to call yet, but soon will be: what arrives before the first publish() with
    // functions is counted, and made up for then. A handler is installed before anybody can be told of its
    // signal.
    static void await(int signo);

    // Replaces them. Not in signal context. When it returns, none of the functions that were there before and
    // are not any more is running or will run.
    static void publish(int signo, functions_type const& functions);
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
