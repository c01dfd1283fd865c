// SPDX-License-Identifier: MIT
//
// For tests of the command-line client: running it, and how it has ended. Needs ZELCTL, its path.
#ifndef TESTS_SUPPORT_ZELCTL_HPP
#define TESTS_SUPPORT_ZELCTL_HPP

#include <cstdlib>
#include <deque>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Programs.hpp"

namespace support {

using Json = nlohmann::json;

struct Result {
    explicit Result(Program& program)
        : output(program.rest()), errors(program.errors()), end(program.end()) {}

    std::string output;
    std::string errors;
    std::string end;
};

inline bool holds(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

// Whether the tool has ended like this with such an error.
inline ::testing::AssertionResult fails(Result const& result, std::string const& end,
                                        std::string const& error) {
    if (result.end == end && holds(result.errors, error) && result.errors.compare(0, 8, "zelctl: ") == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << result.end << ": " << result.errors;
}

inline Result zelctl(Words const& words) {
    Program program(joined({ZELCTL}, words));
    return Result(program);
}

// What stands in each line; null for a line that is no JSON.
inline std::vector<Json> objects(std::string const& lines) {
    std::vector<Json> found;
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);)
        found.push_back(Json::parse(line, nullptr, false));
    return found;
}

} // namespace support

#endif
