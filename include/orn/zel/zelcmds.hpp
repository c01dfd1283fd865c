// SPDX-License-Identifier: MIT
//
// The built-in command word "zel": listings of what the library knows, live monitoring, and modules that come
// and go in the running process. Public for hosts that want the same answers without a client. As a command:
//
//     zel threads | tasks | signals | fds     one listing
//     zel monitor | unmonitor WORD...         of poll, thread, task, alarm: this client gets each event
//     zel load | unload LIBRARY...            a line for each library
//
// "zel threads" is written to the poll monitor: switch that on first ("zel monitor poll").
#ifndef ORN_ZEL_ZELCMDS_HPP
#define ORN_ZEL_ZELCMDS_HPP

#include <string>

#include <orn/api.h>

namespace orn {
namespace zel {
namespace zelcmds {

// The handler of the word "zel". An unknown sub-command is answered with "[zel] <word>: no such command".
ORN_API void ProcessCommand(std::string const& args, int resp_fd);

// Words that are not known are passed over; nothing is answered.
ORN_API void Monitor(std::string const& args, int fd);
ORN_API void Unmonitor(std::string const& args, int fd);

// Libraries are named as dlopen() takes them, and unloaded under the name that they were loaded with. From
// the first of these on zel itself stays in the process until it ends: dlclose() of it has no effect any
// more.
ORN_API void Load(std::string const& args, int fd);
ORN_API void Unload(std::string const& args, int fd);

ORN_API void zel_zelcmds_load();
ORN_API void zel_zelcmds_unload();

} // namespace zelcmds
} // namespace zel
} // namespace orn

#endif
