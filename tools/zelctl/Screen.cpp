// SPDX-License-Identifier: MIT
//
// Taking the screen, drawing, and giving it back.
#include "Screen.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <sys/ioctl.h>
#include <unistd.h>

#include "Output.hpp"
#include "Table.hpp"

namespace zelctl {

namespace {

// As many characters as there are columns. Bytes that go on a character take none.
std::string cut(std::string const& text, std::size_t columns) {
    std::size_t at = 0;
    for (std::size_t taken = 0; at < text.size(); ++at) {
        if ((text[at] & 0xc0) != 0x80 && taken++ == columns)
            break;
    }
    return text.substr(0, at);
}

winsize size_of_terminal() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        size = {24, 80, 0, 0};
    return size;
}

struct sigaction action_of(int signo) {
    struct sigaction action = {};
    sigaction(signo, nullptr, &action);
    return action;
}

// Past what is waiting to be written: a terminal that is slow, or gone, must not keep it from its mode.
void tell_terminal(std::string const& text) {
    static_cast<void>(!write(STDOUT_FILENO, text.data(), text.size()));
}

} // namespace

Screen::Screen(Output& output, std::function<void(char)> on_key, std::function<void()> redraw)
    : output_(output), on_key_(std::move(on_key)), redraw_(std::move(redraw)),
      keys_(tcgetattr(STDIN_FILENO, &before_) == 0), usual_stop_(action_of(SIGTSTP)),
      stopped_(SIGTSTP, [this](int) { stop(); }), resized_(SIGWINCH, [this](int) { redraw_(); }) {
    // The library goes on catching what was watched once, so Ctrl-Z would be lost when the screen has gone.
    // It installs its handler the first time only.
    static struct sigaction const watching = action_of(SIGTSTP);
    sigaction(SIGTSTP, &watching, nullptr);
    if (keys_) {
        receptor_.reset(
            new orn::zel::fd::AutoReceptor(STDIN_FILENO, [this](orn::zel::fd::Event*) { read_keys(); }));
    }
    enter();
}

Screen::~Screen() {
    sigaction(SIGTSTP, &usual_stop_, nullptr);
    leave();
}

// The other screen, without a cursor. Keys come at once and are not shown, but Ctrl-C and Ctrl-Z still work.
void Screen::enter() {
    termios mode = before_;
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    mode.c_cc[VMIN] = 0;
    mode.c_cc[VTIME] = 0;
    if (keys_)
        tcsetattr(STDIN_FILENO, TCSADRAIN, &mode);
    tell_terminal("\x1b[?1049h\x1b[?25l");
}

void Screen::leave() {
    output_.discard();
    tell_terminal("\x1b[?25h\x1b[?1049l");
    if (keys_)
        tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
}

void Screen::stop() {
    leave();
    struct sigaction own = {};
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGTSTP, &usual, &own);
    raise(SIGTSTP);
    sigaction(SIGTSTP, &own, nullptr);
    enter();
    redraw_();
}

void Screen::read_keys() {
    char keys[64];
    ssize_t const got = read(STDIN_FILENO, keys, sizeof keys);
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))
        receptor_.reset(); // hung up; the descriptor stays readable
    for (ssize_t i = 0; i < got; ++i)
        on_key_(keys[i]);
}

std::size_t Screen::rows() const {
    return size_of_terminal().ws_row;
}

void Screen::draw(std::vector<Line> const& lines) {
    winsize const size = size_of_terminal();
    std::size_t const columns = size.ws_col;
    std::string text = "\x1b[H";
    for (std::size_t i = 0; i < std::min<std::size_t>(size.ws_row, lines.size()); ++i) {
        std::string const line = cut(lines[i].text, columns);
        text += i > 0 ? "\r\n" : "";
        text += lines[i].style == Line::bold  ? heading(output_, line)
                : lines[i].style == Line::red ? alarming(output_, line)
                                              : line;
        text += line.size() < columns ? "\x1b[K" : "";
    }
    output_.discard(); // a picture that a slow terminal has not taken is out of date
    output_.own_text(text + "\x1b[J");
}

} // namespace zelctl
