// SPDX-License-Identifier: MIT
//
// The descriptors that answers go to, one for each client process. Internal to the command channel. No lock:
// the table is the command thread's.
#ifndef ZEL_SRC_CLIENTTABLE_HPP
#define ZEL_SRC_CLIENTTABLE_HPP

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace orn::zel::detail {

// A client's descriptor stays open after the client has gone: a monitor may still write to it, and must not
// hit another file that gets the number. But a process that is looked into again and again must not run out
// of descriptors. A descriptor is unused when nobody reads it any more or its client has connected again. The
// latest 64 unused ones are kept, and at most an eighth of what the process may have. Older ones are closed,
// unless a monitor writes to them. Of those that are kept and have no reader only the number is: clients make
// their pipes large, and what the kernel lends a user for all pipes together would go to dead ones.
class ClientTable {
public:
    // Opens the offered pipe on a descriptor of its own, and answers the process there from now on. The
    // offered descriptor stays the caller's. Returns false and says why when the pipe cannot be opened; an
    // earlier connection stays then.
    bool connect(int pid, int offered, std::string& why);

    // Where to answer a process; -1 when it has never connected.
    int of(int pid) const;

    // The process whose answers go to the descriptor; 0 when it is nobody's.
    int at(int fd) const;

    // Switches off the monitors that write to the descriptors, and closes all of them.
    void forget();

private:
    struct Client {
        int pid;
        int fd;
        bool emptied = false; // no client's pipe is behind the number any more
    };

    void remember(int pid, int fd);
    bool in_use(Client const& client) const;
    void give_back(std::size_t most_unused);
    void empty_unread();

    std::map<int, int> by_pid_; // the latest of each process
    std::vector<Client> all_;   // in the order in which they came
    std::size_t next_look_ = 0; // the size of the table at which give_back() looks again
};

} // namespace orn::zel::detail

#endif
