// SPDX-License-Identifier: MIT
//
// The built-in command word "zel": listings of what the library knows, live monitoring, and modules that come
// and go in the running process. Public, for hosts that want the same answers without a client. The functions
// work on the calling thread; a client's commands call them on the command thread. As a command:
//
//     zel threads | tasks | signals | fds     one listing
//     zel monitor | unmonitor WORD...         of poll, thread, task, alarm: this client gets each event
//     zel load | unload LIBRARY...            a line for each library
//
// "zel threads" is written to the poll monitor, so switch that on first ("zel monitor poll").
#ifndef ORN_ZEL_ZELCMDS_HPP
#define ORN_ZEL_ZELCMDS_HPP

#include <string>

#include <orn/api.h>

namespace orn::zel::zelcmds {

// The handler of the word "zel". An unknown sub-command is answered with "[zel] <word>: no such command".
ORN_API void ProcessCommand(std::string const& args, int resp_fd);

// Switch on and off the monitors that args names, pass over other words and answer nothing. Monitored threads
// write to fd, which stays the caller's and should not block: switch the monitor off before it is closed.
ORN_API void Monitor(std::string const& args, int fd);
ORN_API void Unmonitor(std::string const& args, int fd);

// Load and unload the libraries that args names, and answer a line for each: what was done, or the dynamic
// linker's reason. Libraries are named as dlopen() takes them, and unloaded under the name that they were
// loaded with. Both block for as long as the libraries' constructors and destructors run. What is not
// unloaded stays until the process ends. From the first call on zel itself stays, too: dlclose() of it has no
// effect any more. Not for two threads at a time, so not while a client may ask for the same. Once zel is
// being unloaded nothing happens, and nothing is answered.
ORN_API void Load(std::string const& args, int fd);
ORN_API void Unload(std::string const& args, int fd);

ORN_API void zel_zelcmds_load();
ORN_API void zel_zelcmds_unload();

} // namespace orn::zel::zelcmds

#endif
