// SPDX-License-Identifier: MIT
//
// Composing a text for an observer, and writing it with one system call.
#include <orn/zel/response.hpp>

#include <locale>

#include <sys/syscall.h>
#include <unistd.h>

#include <orn/cancel.hpp>

namespace orn::zel::cmd {

Response::Response() {
    imbue(std::locale::classic()); // clients read the numbers, whatever locale the host has chosen
    *this << "tid=" << syscall(SYS_gettid) << ' ';
}

Response::~Response() = default;

ssize_t Write(int fd, std::string const& text) {
    internal::CancelShield const shield; // destructors write monitor lines, and must not be unwound from
    return write(fd, text.data(), text.size());
}

void Write(int fd, Response const& response) {
    Write(fd, response.str());
}

} // namespace orn::zel::cmd
