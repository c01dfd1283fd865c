// SPDX-License-Identifier: MIT
//
// What signal context reads. Internal to signals. A signal handler may interrupt any code, may run in several
// threads at once and may be interrupted by other signals' handlers. So it takes no lock, spins on nothing
// and allocates nothing: it enters the gate, reads an immutable snapshot of the functions to call, and
// leaves. A change publishes another snapshot and retires the one before, which is freed once nobody is
// inside the gate. Only unloading waits for that.
#ifndef ZEL_SRC_SIGNALGATE_HPP
#define ZEL_SRC_SIGNALGATE_HPP

#include <vector>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace orn::zel::detail {

class SignalGate {
public:
    using functions_type = std::vector<boost::shared_ptr<boost::function<void(int)>>>;

    // Calls the functions published for the signal. Signal-safe if the functions are.
    static void deliver(int signo);

    // The rest is not for signal context.

    // Counts the arrivals from now on, for the next publish() to make up for. A handler is installed before
    // there is a function to call.
    static void await(int signo);

    // Replaces the functions for the signal. A function that has been removed may still be running when this
    // returns, so it holds what it uses.
    static void publish(int signo, functions_type const& functions);

    // Frees what has been retired, if nobody is inside the gate. No lock may be held: functions are
    // destroyed, and what they hold may call back into the library.
    static void reclaim();

    // The same, but waits until everybody has left the gate. Gives up after a second, and frees nothing then.
    static void drain();

    // Called once in each child of fork(), where the threads that were inside the gate are not.
    static void forked();

    // How many forks lie between this process and the one that loaded the library. What was made with another
    // number belongs to a parent. Signal-safe.
    static unsigned lineage();
};

} // namespace orn::zel::detail

#endif
