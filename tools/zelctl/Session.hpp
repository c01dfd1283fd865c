// SPDX-License-Identifier: MIT
//
// One conversation of zelctl with a process: connecting, commands and their answers, following monitors, and
// switching them off however it ends. Internal to the tool. The command line is main.cpp's.
//
// Everything that a session waits for is an event of one loop: answers, the end of the process, the time
// limit. Only signals are a flag, because they may come while a slow reader holds up the output.
#ifndef ZELCTL_SESSION_HPP
#define ZELCTL_SESSION_HPP

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <orn/zel.hpp>

#include "Notices.hpp"

namespace zelctl {

class Output;
class Target;

class Session {
public:
    Session(Target const& target, Output& output, double seconds);
    // Switches off the monitors that this one has switched on.
    ~Session();
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    // All of these throw Failure, and Interrupted once a signal has come. All but follow() throw Failure also
    // when the seconds are over.

    void connect();

    // Sends the command and prints the answer. keep_monitors: the monitors that it switches on will be
    // followed.
    void run(std::string const& command, bool keep_monitors);

    // Prints what comes, mostly lines of monitors, for that long; 0: until the process has ended.
    void follow(unsigned long ms);

    // Whether some of what should have been printed may not have come.
    bool lines_lost() const;
    // Whether the process has only sent the command back, which means that nobody there has its word.
    bool echoed() const { return lines_ == 1 && first_line_ == "1/1 " + command_; }
    // The monitors that are switched on from here.
    std::set<std::string> const& monitors() const { return monitors_; }

private:
    void turn(long ms = -1);
    void look_around();
    void take_monitors(std::set<std::string> const& kinds, bool keep);
    bool open_notices();
    void ask_for_place(std::string const& kind);
    void look_for_place(std::string const& kind);
    void monitor_again(std::string const& kind);
    void drain();
    void pause(unsigned long ms);
    void send(std::string const& command);
    void wait_for_answer();
    void ask(std::string const& command);
    void list_threads();
    bool list_once();
    void take_line(std::string const& line);
    void take_answer(std::string const& line);
    void take_listing(std::string const& line);
    void take_notice(std::string const& kind, Notice notice);

    Target const& target_;
    Output& output_;
    double const seconds_;

    // A second command, the mark, is sent after each command. Where the mark's echo comes the answer has
    // ended.
    std::string const mark_; // what every mark begins with
    unsigned long marks_ = 0;
    std::string end_;       // the echo of the latest mark
    bool complete_ = false; // that echo has come

    // The answer.
    std::string command_;
    std::multiset<std::string> echoes_; // of commands, still to come; they are no part of answers
    unsigned long lines_ = 0;
    std::string first_line_;
    unsigned long overflows_ = 0; // of the channel, before the answer
    bool cut_ = false;            // the process, or this tool, has left lines out

    // The list of threads.
    std::vector<std::string> listing_;
    bool listing_over_ = false;
    unsigned failed_listings_ = 0;
    bool wants_listing_ = false;

    bool ended_ = false;     // the process has ended
    bool timed_out_ = false; // the seconds are over
    bool keeps_monitors_ = false;
    bool following_ = false;
    int send_error_ = 0;          // errno of the last attempt
    unsigned requests_left_ = 50; // to leave a place, before this tool does without the notices
    std::set<std::string> monitors_;
    Notices notices_;
    std::unique_ptr<orn::zel::cmd::Channel> channel_;
    std::unique_ptr<orn::zel::fd::AutoReceptor> end_receptor_;
    std::unique_ptr<orn::zel::Alarm> limit_;
    std::unique_ptr<orn::zel::Alarm> tick_;
};

} // namespace zelctl

#endif
