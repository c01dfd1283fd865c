// SPDX-License-Identifier: MIT
//
// One conversation of zelctl with a process: connecting, commands and their answers, following monitors, and
// switching them off however it ends. Internal to the tool; the command line is main.cpp's.
//
// Everything that it waits for is an event of one loop: answers, the end of the process, the time limit. Only
// signals are a flag, since they may also come while a slow reader holds up the output.
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

    // These throw Failure, or Interrupted once a signal has come; all but follow() when the seconds are over,
    // too.

    void connect();

    // Sends the command and prints what it answers. keep_monitors: those that it switches on will be
    // followed.
    void run(std::string const& command, bool keep_monitors);

    // Prints what comes for that long, monitor lines mostly; 0: until the process has ended.
    void follow(unsigned long ms);

    // Whether some of what should have been printed has not come.
    bool lines_lost() const;
    // Whether the process has only sent the command back, which means that its word is nobody's.
    bool echoed() const { return lines_ == 1 && first_line_ == "1/1 " + command_; }
    // Those that this one has switched on.
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

    // The end of an answer.
    std::string const mark_; // what the commands that mark it begin with
    unsigned long marks_;
    std::string end_; // the echo of the present one
    bool complete_;   // it has come

    // The answer.
    std::string command_;
    std::multiset<std::string> echoes_; // of commands, to come yet, which are no part of answers
    unsigned long lines_;
    std::string first_line_;
    unsigned long overflows_; // of the channel, before the answer
    bool cut_;                // by the process itself, or by this one

    // The list of threads.
    std::vector<std::string> listing_;
    bool listing_over_;
    unsigned failed_listings_;
    bool wants_listing_;

    bool ended_;     // the process has
    bool timed_out_; // the seconds are over
    bool keeps_monitors_;
    bool following_;
    int send_error_;         // errno of the last attempt
    unsigned requests_left_; // for the place of another, before this one does without
    std::set<std::string> monitors_;
    Notices notices_;
    std::unique_ptr<orn::zel::cmd::Channel> channel_;
    std::unique_ptr<orn::zel::fd::AutoReceptor> end_receptor_;
    std::unique_ptr<orn::zel::Alarm> limit_;
    std::unique_ptr<orn::zel::Alarm> tick_;
};

} // namespace zelctl

#endif
