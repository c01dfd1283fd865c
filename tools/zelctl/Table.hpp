// SPDX-License-Identifier: MIT
//
// Objects shown as a table: aligned on a terminal, columns between tabs elsewhere, or one JSON object a line.
// Internal to the tool.
#ifndef ZELCTL_TABLE_HPP
#define ZELCTL_TABLE_HPP

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zelctl {

class Output;
struct Options;

using Json = nlohmann::ordered_json; // keys stay in the order in which the process tells them

// As the options say, else aligned where a person reads it. The columns are the keys, in the order in which
// they first come. What an object lacks is a dash.
void print_table(Output& output, Options const& options, std::vector<Json> const& objects);

// The same as lines, of which the first is the heading.
std::vector<std::string> table_lines(std::vector<Json> const& objects, bool align);

// A value as a cell shows it: lists with commas between, members of objects as key=value.
std::string cell(Json const& value);

// The object that stands in a line from a process; null when there is none. A process may send anything, so
// one that nests more deeply, or has more members, than any of the library's is taken for none.
Json object_in(std::string const& line);

// As one line of JSON, whatever bytes the strings hold.
std::string json_line(Json const& value);

// Headings in bold, alarming texts in red. Not where nobody sees it, nor where the environment says NO_COLOR.
std::string heading(Output const& output, std::string const& text);
std::string alarming(Output const& output, std::string const& text);

} // namespace zelctl

#endif
