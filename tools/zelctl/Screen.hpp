// SPDX-License-Identifier: MIT
//
// The whole screen of a terminal, drawn anew each time, and given back as it was. Internal to the tool.
#ifndef ZELCTL_SCREEN_HPP
#define ZELCTL_SCREEN_HPP

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <signal.h>
#include <termios.h>

#include <orn/zel.hpp>

namespace zelctl {

class Output;

class Screen {
public:
    struct Line {
        std::string text; // without what steers the terminal
        enum { plain, bold, red } style = plain;
    };

    // The loop calls on_key for each key, and redraw when the size has changed or the terminal has come back.
    // While Ctrl-Z stops this program, the terminal is as it was.
    Screen(Output& output, std::function<void(char)> on_key, std::function<void()> redraw);
    ~Screen();
    Screen(Screen const&) = delete;
    Screen& operator=(Screen const&) = delete;

    std::size_t rows() const;
    // As many lines and columns as there is room for.
    void draw(std::vector<Line> const& lines);

private:
    void enter();
    void leave();
    void read_keys();
    void stop();

    Output& output_;
    std::function<void(char)> const on_key_;
    std::function<void()> const redraw_;
    termios before_ = {};
    bool const keys_; // somebody may type, and before_ is how the terminal was
    std::unique_ptr<orn::zel::fd::AutoReceptor> receptor_;
    struct sigaction const usual_stop_; // what Ctrl-Z does without a screen
    orn::zel::signal::AutoReceptor stopped_;
    orn::zel::signal::AutoReceptor resized_;
};

} // namespace zelctl

#endif
