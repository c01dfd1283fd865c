// SPDX-License-Identifier: MIT
//
// The process that zelctl talks to, as the kernel describes it. Internal to the tool.
#ifndef ZELCTL_TARGET_HPP
#define ZELCTL_TARGET_HPP

#include <string>

namespace zelctl {

class Target {
public:
    // Throws Failure, which says what to do, unless the process lives, may be signalled, catches signal 55
    // (the default action would end it), and has its queue where this process can reach it.
    explicit Target(int pid);
    ~Target();
    Target(Target const&) = delete;
    Target& operator=(Target const&) = delete;

    int pid() const { return pid_; }
    std::string name() const { return "process " + std::to_string(pid_); }

    // Readable once the process has ended; -1 where the kernel has no such descriptors.
    int descriptor() const { return descriptor_; }
    // Waits that long for the end. A zombie, whose parent has not collected it yet, has ended.
    bool ended(int wait_ms = 0) const;

    // Says what keeps it from answering. connected: it has taken the connection. error: the errno of the last
    // attempt to send something, 0 if that did not fail.
    std::string why_silent(bool connected, int error) const;

private:
    int const pid_;
    int const descriptor_;
};

} // namespace zelctl

#endif
