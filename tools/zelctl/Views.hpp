// SPDX-License-Identifier: MIT
//
// What a process tells about itself as objects: from its word inspect, or from the listings of zel where the
// library does not have that yet. Internal to the tool.
#ifndef ZELCTL_VIEWS_HPP
#define ZELCTL_VIEWS_HPP

#include <optional>
#include <string>
#include <vector>

#include "Session.hpp"
#include "Table.hpp"

namespace zelctl {

struct View {
    std::vector<Json> objects;
    Answer answer;
    bool built_in = false;  // the library's own word has answered
    unsigned long lost = 0; // lines, as the process has counted them
    std::string error;      // the process's own; "" if there is none
};

// Nothing when the process does not have the word.
std::optional<View> inspect(Session& session, std::string const& what);

// The same from lines of listings; a line that is none gives nothing. proc is where the process's own details
// of threads and descriptors are.
std::vector<Json> objects_of_listing(std::string const& what, std::vector<std::string> const& lines,
                                     std::string const& proc);

// The number that stands right behind the key in a line; nothing when there is none.
std::optional<long> number_after(std::string const& line, std::string const& key);

} // namespace zelctl

#endif
