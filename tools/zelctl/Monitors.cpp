// SPDX-License-Identifier: MIT
//
// Having a process's monitors, for as long as they are followed or for a moment.
#include "Monitors.hpp"

#include <algorithm>
#include <cstdio>
#include <random>

#include <unistd.h>

#include "Live.hpp"
#include "Session.hpp"
#include "Target.hpp"

namespace zelctl {

std::set<std::string> monitor_kinds(std::vector<std::string> const& words, std::size_t from) {
    std::set<std::string> kinds;
    for (std::string const kind : {"poll", "thread", "task", "alarm"}) {
        if (std::find(words.begin() + static_cast<std::ptrdiff_t>(std::min(from, words.size())), words.end(),
                      kind) != words.end())
            kinds.insert(kind);
    }
    return kinds;
}

// Notices are awaited before the monitors are switched on: from then on another client may take them.
Monitors::Monitors(Session& session, std::set<std::string> const& kinds, bool keep)
    : session_(session), kinds_(kinds), keep_(keep),
      notices_(session.target().pid(),
               [this](std::string const& kind, Notice notice) { take_notice(kind, notice); }) {
    if (!keep)
        return;
    // The zelctl that has the place leaves it when it is told. A third one may be quicker to take the place,
    // and has to be told, too. One that is stopped does not leave, so the requests are limited.
    unsigned const for_later = 20;
    while (!open_all() && requests_left_ > for_later) {
        --requests_left_;
        for (std::string const& kind : kinds)
            ask_for_place(kind);
        // Take all places or none: a notice that comes from here on is not about these monitors yet.
        for (std::string const& kind : kinds)
            notices_.close(kind);
        session_.pause(10);
    }
    unsigned long const look_ms = 250;
    tick_.reset(new orn::zel::Alarm(look_ms, look_ms, [this] {
        for (std::string const& kind : kinds_)
            look_for_place(kind);
    }));
}

Monitors::~Monitors() {
    if (kinds_.empty())
        return;
    std::string command = "zel unmonitor";
    for (std::string const& kind : kinds_)
        command += ' ' + kind;
    if (!off_)
        session_.tell(command); // served although nobody waits for the answer
    for (std::string const& kind : kinds_) {
        if (!keep_)
            notify(session_.target().pid(), kind, free_again);
    }
}

bool Monitors::open_all() {
    bool all = true;
    for (std::string const& kind : kinds_)
        all = notices_.open(kind) && all;
    return all;
}

void Monitors::ask_for_place(std::string const& kind) {
    // A zelctl that does not take its notices must not hold this one up again and again.
    if (!notices_.has(kind) && !notify(session_.target().pid(), kind, taken))
        requests_left_ = 0;
}

// Whoever gets the place gets the monitor, too: others may have taken it since it was switched on here.
void Monitors::look_for_place(std::string const& kind) {
    if (notices_.has(kind))
        return;
    if (notices_.open(kind)) {
        session_.tell("zel monitor " + kind);
    } else if (requests_left_ > 0) {
        --requests_left_;
        ask_for_place(kind);
    }
}

void Monitors::take_notice(std::string const& kind, Notice notice) {
    if (notice == free_again)
        session_.tell("zel monitor " + kind);
    else
        lose(kind, notice == taken ? "another zelctl has taken" : "another zelctl has switched off");
}

void Monitors::lose(std::string const& kind, std::string const& what_happened) {
    kinds_.erase(kind);
    notices_.close(kind);
    std::fprintf(stderr, "zelctl: %s the %s monitor of %s, none of its lines come here any more\n",
                 what_happened.c_str(), kind.c_str(), session_.target().name().c_str());
}

// ---- Clients that do not tell ---------------------------------------------------------------------------

namespace {

char const* const who_has_them = "inspect process";
std::string const answer = "{\"inspect\":\"process\"";

// The client that has this monitor; 0 if there is none.
std::uint64_t client_of(std::string const& kind, Json const& observers) {
    for (Json const& observer : observers) {
        if (text_in(observer, "monitor") == kind)
            return number_in(observer, "client");
    }
    return 0;
}

} // namespace

void Monitors::look() {
    if (asks_)
        session_.tell(who_has_them);
}

// One look is not enough: a zelctl may be about to give the monitor back. Many that list threads at the same
// time have the poll monitor for seconds.
bool Monitors::take(std::string const& line) {
    unsigned const few = 3;
    unsigned const many = 20;
    bool const unknown = line == std::string("1/1 ") + who_has_them; // to an older library
    asks_ = asks_ && !unknown;
    if (unknown || line.compare(0, answer.size(), answer) != 0)
        return unknown;
    Json const object = object_in(line);
    if (!object.contains("observers"))
        return true;
    for (std::string const& kind : std::set<std::string>(kinds_)) {
        std::uint64_t const client = client_of(kind, object["observers"]);
        unsigned& missed = missed_[kind];
        missed = client == static_cast<std::uint64_t>(getpid()) ? 0 : missed + 1;
        if (missed == (kind == "poll" ? many : few)) {
            lose(kind, client == 0 ? "another client has switched off"
                                   : process_name(static_cast<int>(client)) + " has taken");
        }
    }
    return true;
}

// ---- The list of threads --------------------------------------------------------------------------------

namespace {

// A list is written in one piece, so its lines come together. Another client's list may follow it, and lines
// of the monitor come before and after.
class Listing {
public:
    void take(std::string const& line) {
        bool const first = lines_.empty() && line == "Threads:";
        bool const next = !lines_.empty() && !over_ && line.compare(0, 8, "thread: ") == 0;
        if (first || next)
            lines_.push_back(line);
        else
            over_ = !lines_.empty();
    }
    std::vector<std::string> const& lines() const { return lines_; }

private:
    std::vector<std::string> lines_;
    bool over_ = false;
};

} // namespace

// Another client may take the monitor at any time, and a busy process may fill the pipe with the monitor's
// own lines. So ask again until a whole list has come.
std::vector<std::string> list_threads(Session& session, bool& lost) {
    unsigned const enough = 5;
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    Session::Limit const limit(session);
    Monitors borrowed(session, {"poll"}, false);
    for (unsigned failed = 0;; ++failed) {
        Listing listing;
        // No wait for answers in between: the shorter it takes, the less can be lost.
        Answer const heard = session.ask({"zel monitor poll", "zel threads", "zel unmonitor poll"},
                                         [&](std::string const& line) { listing.take(line); });
        lost = heard.lost;
        if (!listing.lines().empty() && (!lost || failed >= enough)) {
            borrowed.switched_off_again();
            return listing.lines();
        }
        session.explain_silence(
            "the list of threads goes to the poll monitor, which others have taken each time");
        // Pause for a random time, so that others who try the same do not do it in step. Pause longer each
        // time, because there may be many.
        session.pause(5 + random() % (20u << std::min(failed, enough)));
    }
}

} // namespace zelctl
