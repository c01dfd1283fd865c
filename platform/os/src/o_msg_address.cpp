// SPDX-License-Identifier: MIT
//
// The addresses of message queues, and who is at the other end. The rules are those of o_msg.h.
#include "o_msg_address.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <orn/descriptor.hpp>

namespace orn::os::msg {
namespace {

using internal::Descriptor;
using internal::unless_interrupted;

constexpr char address_prefix[] = "orn.msg.";

// The number after the name's last dot. One too large for any process stays too large.
std::optional<std::int64_t> process_asked_for(char const* name) {
    char const* digit = std::strrchr(name, '.');
    if (digit == nullptr || *++digit == '\0')
        return std::nullopt;
    std::int64_t number = 0;
    for (; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9')
            return std::nullopt;
        number = number > INT32_MAX ? number : number * 10 + (*digit - '0');
    }
    return number;
}

std::optional<ucred> peer_of(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    return peer;
}

// Whether the process that has this id now runs as that user.
bool runs_as(pid_t process, uid_t user) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(process));
    Descriptor const status(open(path, O_RDONLY | O_CLOEXEC));
    char text[1024]; // the line is among the first ten
    ssize_t const size = unless_interrupted([&] { return read(status.get(), text, sizeof text - 1); });
    if (size < 0)
        return false;
    text[size] = '\0';
    char* at = std::strstr(text, "\nUid:\t"); // real, effective, ...
    if (at == nullptr)
        return false;
    std::strtoul(at + std::strlen("\nUid:\t"), &at, 10);
    return std::strtoul(at, nullptr, 10) == user;
}

// Whether this process may do more than the user that it runs as: a set-user-ID or set-group-ID program, one
// with capabilities of its file's, one that has changed its user, or keeps others from looking into it. That
// user may not trace it, and must not steer it in any other way.
bool has_borrowed_rights() {
    return getauxval(AT_SECURE) != 0 || prctl(PR_GET_DUMPABLE) != 1;
}

} // namespace

bool make_address(char const* name, Address& address) {
    if (name == nullptr || *name == '\0') {
        errno = EINVAL;
        return false;
    }
    std::size_t const prefix = sizeof address_prefix - 1;
    std::size_t const length = std::strlen(name);
    address.name = {};
    if (length > sizeof address.name.sun_path - 1 - prefix) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.name.sun_family = AF_UNIX;
    // The leading NUL byte stays: the abstract namespace.
    std::memcpy(address.name.sun_path + 1, address_prefix, prefix);
    std::memcpy(address.name.sun_path + 1 + prefix, name, length);
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + prefix + length);
    return true;
}

// The kernel's word for who made the queue, which is not always who is meant: abstract names are anybody's to
// take. Nor is the id enough where users differ. A listener keeps the id of the process that made it after
// that has ended and the id has gone to another.
bool is_meant(int connection, char const* name) {
    auto const owner = peer_of(connection);
    if (!owner)
        return false;
    auto const process = process_asked_for(name);
    bool const found = process && *process > 0 && *process == owner->pid;
    uid_t const self = geteuid();
    bool const trusted =
        owner->uid == 0 || (!has_borrowed_rights() &&
                            (owner->uid == self || (self == 0 && found && runs_as(owner->pid, owner->uid))));
    if (trusted && (found || !process))
        return true;
    errno = EACCES;
    return false;
}

bool may_send_here(int connection) {
    auto const sender = peer_of(connection);
    return sender && (sender->uid == 0 || (sender->uid == geteuid() && !has_borrowed_rights()));
}

} // namespace orn::os::msg
