// SPDX-License-Identifier: MIT
//
// The text output layer under every answer, listing and monitor line: a text is composed in one stream and
// written with one system call. Public, for command handlers. How a text reaches another process is
// cmd.hpp's.
//
// From examples/22_response.cpp:
//
//     orn::zel::cmd::Response line;
//     line << "level=" << 3 << '\n';
//     orn::zel::cmd::Write(answers.WriteFD(), line); // "tid=812 level=3\n"
#ifndef ORN_ZEL_RESPONSE_HPP
#define ORN_ZEL_RESPONSE_HPP

#include <sstream>
#include <string>

#include <sys/types.h>

#include <orn/api.h>

namespace orn {
namespace zel {
namespace cmd {

// A string stream that begins with "tid=", the kernel's id of the constructing thread, and a blank. Belongs
// to the thread that made it.
class ORN_API Response : public std::stringstream {
public:
    Response();
    ~Response() override;
};

// Writes the whole text with exactly one write(2) and returns its result: a short or failed write is the
// caller's to judge, and is not tried again. Any thread. -1 is not filtered here.
ORN_API ssize_t Write(int fd, std::string const& text);

// The same for the text composed so far; an observer that has gone away, or does not read, is ignored.
ORN_API void Write(int fd, Response const& response);

} // namespace cmd
} // namespace zel
} // namespace orn

#endif
