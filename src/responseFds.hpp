// SPDX-License-Identifier: MIT
//
// The descriptors that answers go to. Internal to the command channel. Not synchronised: the command
// thread's.
#ifndef ZEL_SRC_RESPONSEFDS_HPP
#define ZEL_SRC_RESPONSEFDS_HPP

#include <deque>
#include <map>
#include <set>

namespace orn {
namespace zel {
namespace detail {

// A client's descriptor stays open after the client has gone, since a monitor may still write to it and must
// not hit another file that got the number. But a process that is looked into again and again must not run
// out: of the descriptors that nobody reads any more, or that their process has replaced, and that no monitor
// writes to, the most recent 64 are kept.
class ResponseFds {
public:
    // Takes the descriptor over, in place of the one that the process had.
    void remember(int pid, int fd);

    bool knows(int pid) const;

    // Where to answer a process; 0, standard input, when it has never connected.
    int of(int pid) const;

    // Switches off the monitors that write to them, and closes all.
    void forget();

private:
    bool in_use(int fd) const;
    void give_back();

    std::map<int, int> by_pid_;
    std::deque<int> all_; // in the order in which they came
    std::set<int> quiet_; // that were no monitor's when they were last looked at
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
