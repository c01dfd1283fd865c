// SPDX-License-Identifier: MIT
//
// The text output under every answer, listing and monitor line: a text is composed in one stream and written
// with one system call. Public, for command handlers. cmd.hpp is about how a text reaches another process.
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

namespace orn::zel::cmd {

// A string stream that begins with "tid=", the kernel's id of the constructing thread, and a blank. Only the
// thread that made it may use it.
class ORN_API Response : public std::stringstream {
public:
    Response();
    ~Response() override;
};

// Writes the text with exactly one write(2), with -1 for fd as well, and returns its result. A short or
// failed write is not tried again. Blocks if the descriptor does.
ORN_API ssize_t Write(int fd, std::string const& text);

// The same for the text composed so far. Ignores an observer that has gone away or does not read.
ORN_API void Write(int fd, Response const& response);

} // namespace orn::zel::cmd

#endif
