// SPDX-License-Identifier: MIT
//
// The monitors that one zelctl has switched on in a process: taking them from other zelctls, noticing when
// another one takes them, and switching them off however it ends. Internal to the tool.
#ifndef ZELCTL_MONITORS_HPP
#define ZELCTL_MONITORS_HPP

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Notices.hpp"

namespace zelctl {

class Session;

// poll, thread, task, alarm: those of them that are among the words from the given place on.
std::set<std::string> monitor_kinds(std::vector<std::string> const& words, std::size_t from);

class Monitors {
public:
    // Gets ready for them; the command that switches them on is the caller's. keep: they will be followed.
    Monitors(Session& session, std::set<std::string> const& kinds, bool keep);
    // Switches off those that are still switched on from here.
    ~Monitors();
    Monitors(Monitors const&) = delete;
    Monitors& operator=(Monitors const&) = delete;

    // The process has been told already to switch them off.
    void switched_off_again() { off_ = true; }
    // None is left: others have them all.
    bool gone() const { return kinds_.empty(); }

    // Clients that are no zelctl, and zelctls of other users, do not tell that they take a monitor. So asks
    // the process who has them; take() gets the lines that come, and returns whether one was an answer to
    // that.
    void look();
    bool take(std::string const& line);

private:
    bool open_all();
    void ask_for_place(std::string const& kind);
    void look_for_place(std::string const& kind);
    void take_notice(std::string const& kind, Notice notice);
    void lose(std::string const& kind, std::string const& what_happened);

    Session& session_;
    std::set<std::string> kinds_;
    bool const keep_;
    bool off_ = false;
    bool asks_ = true;                       // the process can tell who has them
    std::map<std::string, unsigned> missed_; // how often in a row others had it
    unsigned requests_left_ = 50;            // to leave a place, before this tool does without the notices
    Notices notices_;
    std::unique_ptr<orn::zel::Alarm> tick_;
};

// The list of threads goes to a process's poll monitor alone: borrows it until a whole list has come. All
// lines that belong to the list; lost: some may be missing.
std::vector<std::string> list_threads(Session& session, bool& lost);

} // namespace zelctl

#endif
