// SPDX-License-Identifier: MIT
//
// The process that zelctl talks to: held by a descriptor, signalled only while it is safe, and asked what
// keeps it from answering. Internal to the tool.
#ifndef ZELCTL_TARGET_HPP
#define ZELCTL_TARGET_HPP

#include <optional>
#include <string>

#include "Process.hpp"

namespace zelctl {

class Target {
public:
    // Throws Failure, which says what to do, unless the process lives and may be talked to.
    explicit Target(int pid);
    ~Target();
    Target(Target const&) = delete;
    Target& operator=(Target const&) = delete;

    int pid() const { return pid_; }
    std::string name() const { return process_name(pid_); }
    Process const& process() const { return process_; } // as it was in the beginning

    // Readable once the process has ended; -1 where the kernel has no such descriptors.
    int descriptor() const { return descriptor_; }
    // Waits that long for the end. A zombie, whose parent has not collected it yet, has ended.
    bool ended(int wait_ms = 0) const;

    // Raises signal 55, which opens the channel, unless that may end the process now: try again soon. Throws
    // Failure when it always may. told: where the library lay that has been told, if any has; after an exec()
    // the new one is told as well. patient: waits for the process to rest.
    void raise_signal(std::optional<std::string>& told, bool patient) const;

    // Throws Failure when the id has gone to another process meanwhile.
    void make_sure_it_is_the_same() const;

    // Says what keeps it from answering. connected: it has taken the connection. error: the errno of the last
    // attempt to send something, 0 if that did not fail.
    std::string why_silent(bool connected, int error) const;

private:
    Process look() const;

    int const pid_;
    int const descriptor_;
    Process process_;
};

} // namespace zelctl

#endif
