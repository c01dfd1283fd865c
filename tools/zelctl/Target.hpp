// SPDX-License-Identifier: MIT
//
// The process that zelctl talks to, as /proc and the kernel describe it. Internal to the tool.
#ifndef ZELCTL_TARGET_HPP
#define ZELCTL_TARGET_HPP

#include <string>

namespace zelctl {

class Target {
public:
    // Throws Failure, with what to do, unless the process lives, may be signalled, catches signal 55, whose
    // default action would end it, and has its queue where this process can reach it.
    explicit Target(int pid);
    ~Target();
    Target(Target const&) = delete;
    Target& operator=(Target const&) = delete;

    int pid() const { return pid_; }
    std::string name() const { return "process " + std::to_string(pid_); }

    // Readable once the process has ended; -1 where the kernel has no such descriptors.
    int descriptor() const { return descriptor_; }
    // A process that has ended but that its parent has not collected (a zombie) has ended, too. Waits that
    // long for the end.
    bool ended(int wait_ms = 0) const;

    // What keeps it from answering, for a person. connected: it has taken the connection. error: why the last
    // attempt to send something failed, 0 when none did.
    std::string why_silent(bool connected, int error) const;

private:
    int const pid_;
    int const descriptor_;
};

} // namespace zelctl

#endif
