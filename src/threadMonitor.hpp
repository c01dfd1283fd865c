// SPDX-License-Identifier: MIT
//
// What the loop reports of itself, to the poll monitor and to the extended log. Internal. The switches for it
// are public, in threadGroup.hpp. No lock may be held during a report: the calling thread's group is looked
// up and may be made.
#ifndef ZEL_SRC_THREADMONITOR_HPP
#define ZEL_SRC_THREADMONITOR_HPP

#include <poll.h>

namespace orn::zel::thread {

// Whether anybody is told of poll sets and of what poll() says of them.
bool reports_polls();

// Go around one wait, which may take several calls of poll(). The second keeps errno.
void report_poll_in(pollfd const* fds, unsigned long nfds, int timeoutMs);
void report_poll_out(pollfd const* fds, unsigned long nfds, int status);

// The result of fd is dropped, because its thread has left the group.
void report_left(int fd, int tid);

// Does nothing unless extended logging is on.
void log_pollset(char const* label, pollfd const* fds, unsigned long nfds);

} // namespace orn::zel::thread

#endif
