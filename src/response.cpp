// SPDX-License-Identifier: MIT
#include <orn/zel/response.hpp>

#include <locale>

#include <sys/syscall.h>
#include <unistd.h>

#include <orn/cancel.hpp>

namespace orn {
namespace zel {
namespace cmd {

Response::Response() {
    imbue(
        std::locale::classic()); // whoever reads the answer expects plain digits, whatever the host's locale
    *this << "tid=" << syscall(SYS_gettid) << ' ';
}

Response::~Response() = default;

ssize_t Write(int fd, std::string const& text) {
    internal::CancelShield const shield; // monitor lines are written in destructors too
    return write(fd, text.data(), text.size());
}

void Write(int fd, Response const& response) {
    Write(fd, response.str());
}

} // namespace cmd
} // namespace zel
} // namespace orn
