// SPDX-License-Identifier: MIT
//
// zelctl's standard output, for lines that come from another process. Internal to the tool.
#ifndef ZELCTL_OUTPUT_HPP
#define ZELCTL_OUTPUT_HPP

#include <functional>
#include <string>

namespace zelctl {

class Output {
public:
    // caught: the number of the signal that asks for the end, 0 as long as none has come.
    explicit Output(std::function<int()> caught);

    // Keeps the line for flush(). On a terminal, control characters and bytes that are no UTF-8 show as \xNN:
    // a process must not steer the terminal of whoever looks into it. Elsewhere the bytes stay as they are.
    void line(std::string const& text);

    // Keeps a line, or a text, of this tool's own, which may steer the terminal.
    void own_line(std::string const& text) { own_text(text + '\n'); }
    void own_text(std::string const& text) { kept_ += text; }

    // Forgets what is kept.
    void discard() { kept_.clear(); }

    // Whether a person reads it.
    bool terminal() const { return terminal_; }
    // Whether it is one that takes styles and moves its cursor.
    bool screen() const { return terminal_ && !dumb_; }

    // How many bytes are kept.
    std::size_t waiting() const { return kept_.size(); }

    // Writes as much of what is kept as there is room for now.
    void flush_some() { write_kept(0); }

    // Writes all of what is kept. Waits for a slow reader, but returns at once when a signal asks for the
    // end.
    void flush();

    // Throws Interrupted when a signal has asked for the end, or when the reader has gone, Failure when
    // writing has failed otherwise.
    void check();

private:
    void write_kept(int wait_ms);

    std::function<int()> caught_;
    bool const terminal_;
    bool const dumb_;
    std::string kept_;
    int error_;
};

// The text as a terminal may show it: see Output::line().
std::string printable(std::string const& text);

} // namespace zelctl

#endif
