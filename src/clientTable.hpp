// SPDX-License-Identifier: MIT
//
// The descriptors that answers go to. Internal to the command channel. Not synchronised: the command
// thread's.
#ifndef ZEL_SRC_CLIENTTABLE_HPP
#define ZEL_SRC_CLIENTTABLE_HPP

#include <cstddef>
#include <map>
#include <vector>

namespace orn {
namespace zel {
namespace detail {

// A client's descriptor stays open after the client has gone, since a monitor may still write to it and must
// not hit another file that got the number. But a process that is looked into again and again must not run
// out: of the descriptors that nobody reads any more, or that their process has replaced, and that no monitor
// writes to, the most recent 64 are kept, and never more than an eighth of what the process may have.
class ClientTable {
public:
    // Takes the descriptor over, in place of the one that the process had.
    void remember(int pid, int fd);

    // Where to answer a process; -1 when it has never connected.
    int of(int pid) const;

    // Switches off the monitors that write to them, and closes all.
    void forget();

private:
    struct Client {
        int pid;
        int fd;
    };

    bool in_use(Client const& client) const;
    void give_back(std::size_t most_unused);

    std::map<int, int> by_pid_; // the latest of each process
    std::vector<Client> all_;   // in the order in which they came
    std::size_t next_look_ = 0; // at this size of the table
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
