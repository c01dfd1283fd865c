// SPDX-License-Identifier: MIT
//
// Makes addresses from names and asks the kernel who is at the other end. The comment on top of o_msg.h has
// the rules of trust.
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

// The number after the name's last dot. A number that is too large for any process must not wrap around to
// one that is not.
std::optional<std::int64_t> process_asked_for(char const* name) {
    char const* digit = std::strrchr(name, '.');
    if (!digit || *++digit == '\0')
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
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    return peer;
}

// Whether the process that has this id now runs as this user.
bool runs_as(pid_t process, uid_t user) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(process));
    Descriptor const status(open(path, O_RDONLY | O_CLOEXEC));
    char text[1024]; // the line is among the first ten of the file
    ssize_t const size = unless_interrupted([&] { return read(status.get(), text, sizeof text - 1); });
    if (size < 0)
        return false;
    text[size] = '\0';
    char* at = std::strstr(text, "\nUid:\t"); // the real one comes first, the effective one second
    if (!at)
        return false;
    std::strtoul(at + std::strlen("\nUid:\t"), &at, 10);
    return std::strtoul(at, nullptr, 10) == user;
}

// Whether this process may do more than its user, as a set-user-ID or set-group-ID program, through
// capabilities of its file, or because it has changed its user. The user may not trace such a process, and
// messages must not become another way to steer it. A process that has made itself undumpable counts as one.
bool has_borrowed_rights() {
    return getauxval(AT_SECURE) != 0 || prctl(PR_GET_DUMPABLE) != 1;
}

} // namespace

bool make_address(char const* name, Address& address) {
    if (!name || *name == '\0') {
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
    // A leading NUL byte stands for the abstract namespace.
    std::memcpy(address.name.sun_path + 1, address_prefix, prefix);
    std::memcpy(address.name.sun_path + 1 + prefix, name, length);
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + prefix + length);
    return true;
}

// Abstract names are first come, first served, so this checks who created the listener. The process id alone
// is not enough: SO_PEERCRED keeps reporting the creator's id after the creator has ended and another process
// has got the id. So the users are compared as well.
bool may_be_sent_to(int connection, char const* name) {
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
