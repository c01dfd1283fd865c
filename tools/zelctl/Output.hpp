// SPDX-License-Identifier: MIT
//
// zelctl's standard output: lines that come from another process. Internal to the tool.
#ifndef ZELCTL_OUTPUT_HPP
#define ZELCTL_OUTPUT_HPP

#include <functional>
#include <string>

namespace zelctl {

class Output {
public:
    // give_up tells whether to stop waiting for a reader that does not read.
    explicit Output(std::function<bool()> give_up);

    // Keeps the line for flush(). On a terminal, control characters and what is no UTF-8 show as \xNN: a
    // process must not steer the terminal of whoever looks into it. Anywhere else the bytes stay as they are.
    void line(std::string const& text);

    // How many bytes are kept.
    std::size_t waiting() const { return kept_.size(); }

    // Writes as much of it as there is room for now.
    void flush_some() { write_kept(0); }

    // Writes all of it. Waits for a slow reader, but ends at once with give_up.
    void flush();

    // The errno of the write that failed, 0 when none did. EPIPE also when nothing was written yet, but the
    // reader has gone.
    int error();

private:
    void write_kept(int wait_ms);

    std::function<bool()> give_up_;
    bool const terminal_;
    std::string kept_;
    int error_;
};

// As a terminal may show it.
std::string printable(std::string const& text);

} // namespace zelctl

#endif
