// SPDX-License-Identifier: MIT
//
// A conversation: waiting, commands and their answers, the list of threads, following.
#include "Session.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>

#include <signal.h>
#include <unistd.h>

#include "Failure.hpp"
#include "Output.hpp"
#include "Target.hpp"

namespace zelctl {

namespace {

unsigned long const look_around_ms = 250;

std::string echo_of(std::string const& command) {
    return "received \"" + command + "\"";
}

// Uses the library's own function, so that the process and this tool never read a command differently.
std::vector<std::string> words_of(std::string const& command) {
    std::vector<std::string> words;
    for (std::string rest = command; !rest.empty();) {
        std::pair<std::string, std::string> split = orn::zel::cmd::GetFirstWord(rest);
        words.push_back(split.first);
        rest.swap(split.second);
    }
    return words;
}

bool is(std::vector<std::string> const& words, std::string const& second) {
    return words.size() >= 2 && words[0] == "zel" && words[1] == second;
}

std::set<std::string> kinds_in(std::vector<std::string> const& words) {
    std::set<std::string> kinds;
    for (std::string const kind : {"poll", "thread", "task", "alarm"}) {
        if (std::find(words.begin() + 2, words.end(), kind) != words.end())
            kinds.insert(kind);
    }
    return kinds;
}

// How many numbered lines answer a command that begins with a number and whose word nobody has.
unsigned long numbered_lines(std::string const& command) {
    bool const numbered = !command.empty() && command[0] >= '0' && command[0] <= '9';
    return numbered ? static_cast<unsigned long>(
                          std::min<long>(std::strtol(command.c_str(), nullptr, 10), INT_MAX))
                    : 0;
}

} // namespace

Session::Session(Target const& target, Output& output, double seconds)
    : target_(target), output_(output), seconds_(seconds), mark_("zelctl-" + std::to_string(getpid()) + '-'),
      notices_(target.pid(), [this](std::string const& kind, Notice notice) { take_notice(kind, notice); }) {
    if (target.descriptor() != -1) {
        end_receptor_.reset(new orn::zel::fd::AutoReceptor(target.descriptor(), [this](orn::zel::fd::Event*) {
            ended_ = true;
            end_receptor_.reset(); // the descriptor stays readable
        }));
    }
    limit_.reset(
        new orn::zel::Alarm(static_cast<unsigned long>(seconds * 1000), [this] { timed_out_ = true; }));
    tick_.reset(new orn::zel::Alarm(look_around_ms, look_around_ms, [this] { look_around(); }));
}

Session::~Session() {
    if (monitors_.empty() || !channel_)
        return;
    std::string command = "zel unmonitor";
    for (std::string const& kind : monitors_)
        command += ' ' + kind;
    channel_->Command(command); // served although nobody waits for the answer
    for (std::string const& kind : monitors_) {
        if (!keeps_monitors_)
            notify(target_.pid(), kind, free_again);
    }
}

// ---- Waiting --------------------------------------------------------------------------------------------

// One turn of the loop. A signal that comes just before poll() does not end it, but the tick soon does.
void Session::turn(long ms) {
    if (following_) {
        // A slow reader must not keep the loop from notices and from the end of the process. So lines that
        // find no room are kept, and tried again soon.
        orn::zel::RunOnce(output_.waiting() ? 20 : ms);
        output_.flush_some();
    } else {
        orn::zel::RunOnce(ms);
        output_.flush();
    }
    output_.check();
    if (!timed_out_)
        return;
    std::ostringstream text;
    text << target_.name() << " has not answered within " << seconds_ << " s: ";
    if (failed_listings_ > 0)
        text << "the list of threads goes to the poll monitor, which others have taken each time";
    else
        text << target_.why_silent(channel_ != nullptr, send_error_);
    throw Failure(zelctl::timed_out, text.str());
}

// Looks at what has no descriptor to wait for.
void Session::look_around() {
    ended_ = ended_ || (target_.descriptor() == -1 && target_.ended());
    for (std::string const& kind : monitors_) {
        if (following_)
            look_for_place(kind);
    }
}

// Takes what the process has written before it ended.
void Session::drain() {
    while (orn::zel::RunOnce(0) > 0) {
    }
    output_.flush();
}

void Session::pause(unsigned long ms) {
    bool over = false;
    orn::zel::Alarm const end(ms, [&] { over = true; });
    while (!over && !ended_)
        turn();
}

// ---- Commands and answers -------------------------------------------------------------------------------

void Session::connect() {
    channel_.reset(new orn::zel::cmd::Channel(orn::zel::ConnectWith(
        target_.pid(), [this](std::string const& line) { take_line(line); },
        [this] {
            send_error_ = errno;
            turn(10);
            if (ended_)
                throw Failure(refused, target_.name() + " has ended");
        })));
    channel_->CountOverflows();
    send_error_ = 0;
}

void Session::send(std::string const& command) {
    while (channel_->Command(command) < 0) {
        send_error_ = errno;
        if (send_error_ == EAGAIN) { // its queue is full
            turn(0);
        } else {
            // A process that ends closes its queue a moment before the kernel says that it has ended.
            bool const ended = send_error_ == ECONNREFUSED && target_.ended(100);
            throw Failure(refused, target_.name() +
                                       (ended ? " has ended"
                                              : std::string(" does not take the command: ") +
                                                    (send_error_ == ECONNREFUSED ? "it has unloaded zel"
                                                                                 : strerror(send_error_))));
        }
    }
    send_error_ = 0;
}

// Commands are served in order. So once the process has echoed another command, it has answered those before.
void Session::wait_for_answer() {
    std::string const mark = mark_ + std::to_string(++marks_);
    end_ = echo_of(mark);
    complete_ = false;
    send(mark);
    // A full pipe may have lost the mark's echo, so ask again.
    orn::zel::Alarm const again(look_around_ms, look_around_ms, [&] { channel_->Command(mark); });
    while (!complete_) {
        turn();
        if (!ended_)
            continue;
        drain();
        if (!complete_)
            throw Failure(refused, target_.name() + " has ended, perhaps in the middle of the answer");
    }
}

void Session::run(std::string const& command, bool keep_monitors) {
    std::vector<std::string> const words = words_of(command);
    if (is(words, "threads")) {
        list_threads();
        return;
    }
    if (is(words, "monitor"))
        take_monitors(kinds_in(words), keep_monitors);
    ask(command);
    if (is(words, "unmonitor")) {
        for (std::string const& kind : kinds_in(words))
            notify(target_.pid(), kind, switched_off);
    }
}

// Gets ready for notices before the monitors are switched on: from then on another client may take them.
void Session::take_monitors(std::set<std::string> const& kinds, bool keep) {
    monitors_ = kinds;
    keeps_monitors_ = keep;
    // The zelctl that has the place leaves it when it is told. A third one may be quicker to take the place,
    // and has to be told, too. One that is stopped does not leave, so the requests are limited.
    unsigned const for_later = 20;
    while (keep && !open_notices() && requests_left_ > for_later) {
        --requests_left_;
        for (std::string const& kind : kinds)
            ask_for_place(kind);
        // Take all places or none: a notice that comes from here on is not about these monitors yet.
        for (std::string const& kind : kinds)
            notices_.close(kind);
        pause(10);
    }
}

bool Session::open_notices() {
    bool all = true;
    for (std::string const& kind : monitors_)
        all = notices_.open(kind) && all;
    return all;
}

void Session::ask_for_place(std::string const& kind) {
    // A zelctl that does not take its notices must not hold this one up again and again.
    if (!notices_.has(kind) && !notify(target_.pid(), kind, taken))
        requests_left_ = 0;
}

// Whoever gets the place gets the monitor, too: others may have taken it since it was switched on here.
void Session::look_for_place(std::string const& kind) {
    if (notices_.has(kind))
        return;
    if (notices_.open(kind)) {
        monitor_again(kind);
    } else if (requests_left_ > 0) {
        --requests_left_;
        ask_for_place(kind);
    }
}

void Session::ask(std::string const& command) {
    command_ = command;
    echoes_.insert(echo_of(command));
    send(command);
    wait_for_answer();
    // The process does not send more numbered lines than the pipe has room for.
    unsigned long const numbered = numbered_lines(command);
    cut_ = lines_ < numbered && first_line_ == "1/" + std::to_string(numbered) + ' ' + command;
}

bool Session::lines_lost() const {
    return cut_ || (channel_ && channel_->Overflows() != overflows_);
}

void Session::take_line(std::string const& line) {
    if (line.compare(0, 4 + mark_.size(), "1/1 " + mark_) == 0)
        return;
    // When an answer has no newline at its end the mark's echo comes on the same line.
    std::string const echo = "received \"" + mark_;
    std::string::size_type const at = line.find(echo);
    if (at != std::string::npos) {
        if (at > 0)
            take_answer(line.substr(0, at));
        complete_ = complete_ || line.compare(at, std::string::npos, end_) == 0;
        return;
    }
    auto const expected = echoes_.find(line);
    if (expected != echoes_.end())
        echoes_.erase(expected);
    else
        take_answer(line);
}

void Session::take_answer(std::string const& line) {
    if (wants_listing_) {
        take_listing(line);
        return;
    }
    if (++lines_ == 1)
        first_line_ = line;
    std::size_t const most = 4 << 20;
    if (following_ && output_.waiting() > most)
        cut_ = true;
    else
        output_.line(line);
}

// ---- The list of threads --------------------------------------------------------------------------------

// A process writes the list to its poll monitor alone. So borrow the monitor for a moment, and ask again
// until a whole list has come: another client may take the monitor at any time, and a busy process may fill
// the pipe with the monitor's own lines.
void Session::list_threads() {
    unsigned const enough = 5;
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    wants_listing_ = true; // also between two attempts, because the monitor's last lines may be late
    while (!list_once() || (lines_lost() && failed_listings_ < enough)) {
        ++failed_listings_;
        // Pause for a random time, so that others who try the same do not do it in step. Pause longer each
        // time, because there may be many.
        pause(5 + random() % (20u << std::min(failed_listings_, enough)));
    }
    wants_listing_ = false;
    for (std::string const& line : listing_)
        output_.line(line);
    monitors_.erase("poll");
    notify(target_.pid(), "poll", free_again);
}

bool Session::list_once() {
    overflows_ = channel_->Overflows();
    listing_.clear();
    listing_over_ = false;
    monitors_.insert("poll");
    // Do not wait for answers in between: the shorter it takes, the less can be lost.
    for (std::string const command : {"zel monitor poll", "zel threads", "zel unmonitor poll"})
        send(command);
    wait_for_answer();
    return !listing_.empty();
}

// A list is written in one piece, so its lines come together. Another client's list may follow it.
void Session::take_listing(std::string const& line) {
    bool const first = listing_.empty() && line == "Threads:";
    bool const next = !listing_.empty() && !listing_over_ && line.compare(0, 8, "thread: ") == 0;
    if (first || next)
        listing_.push_back(line);
    else
        listing_over_ = !listing_.empty();
}

// ---- Following ------------------------------------------------------------------------------------------

void Session::follow(unsigned long ms) {
    limit_.reset();
    timed_out_ = false;
    following_ = true;
    bool over = false;
    std::unique_ptr<orn::zel::Alarm> limit;
    if (ms > 0)
        limit.reset(new orn::zel::Alarm(ms, [&] { over = true; }));
    while (!over && !ended_)
        turn();
    if (ended_)
        drain();
}

void Session::monitor_again(std::string const& kind) {
    std::string const command = "zel monitor " + kind;
    echoes_.insert(echo_of(command));
    channel_->Command(command);
}

void Session::take_notice(std::string const& kind, Notice notice) {
    if (notice == free_again) {
        monitor_again(kind);
        return;
    }
    monitors_.erase(kind);
    notices_.close(kind);
    std::fprintf(stderr,
                 "zelctl: another zelctl has %s the %s monitor of %s, none of its lines come here any more\n",
                 notice == taken ? "taken" : "switched off", kind.c_str(), target_.name().c_str());
}

} // namespace zelctl
