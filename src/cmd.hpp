// SPDX-License-Identifier: MIT
//
// The words of commands as the server of the command channel loads and unloads them, and what the two know
// for those who list them. Internal. Who uses words takes <orn/zel/cmd.hpp>.
#ifndef ZEL_SRC_CMD_HPP
#define ZEL_SRC_CMD_HPP

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

namespace orn::zel::cmd {

// From here on Register() takes words.
void load_words();

// From here on nobody has a word. Returns the handlers, which are destroyed with the result: keep it for as
// long as a command may be running, and release it with no lock held.
boost::shared_ptr<void> unload_words();

// All words in alphabetical order, each with the place in the code that registered it. Any thread.
std::vector<std::pair<std::string, void const*>> words_and_registrars();

// How much text the descriptor takes now without cutting a line.
std::size_t room(int fd);

// Whether half of the pipe stays free when a line is written to it. A trace leaves it to the answers, which
// would be lost otherwise.
bool has_room(int fd);

// The process whose answers go to the descriptor. 0 when there is none, and on any other thread than the
// command thread, whose table it is.
int client_at(int fd);

} // namespace orn::zel::cmd

#endif
