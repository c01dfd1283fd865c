// SPDX-License-Identifier: MIT
//
// The words of commands as the server of the command channel loads and unloads them. Internal. Who uses words
// takes <orn/zel/cmd.hpp>.
#ifndef ZEL_SRC_CMD_HPP
#define ZEL_SRC_CMD_HPP

#include <boost/shared_ptr.hpp>

namespace orn::zel::cmd {

// From here on Register() takes words.
void load_words();

// From here on nobody has a word. Returns the handlers, which are destroyed with the result: keep it for as
// long as a command may be running, and release it with no lock held.
boost::shared_ptr<void> unload_words();

} // namespace orn::zel::cmd

#endif
