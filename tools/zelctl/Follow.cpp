// SPDX-License-Identifier: MIT
//
// Printing what a process reports as it happens: the verb monitor, and --follow.
#include <cstdio>
#include <ctime>

#include "Monitors.hpp"
#include "Output.hpp"
#include "Table.hpp"
#include "Target.hpp"
#include "Verbs.hpp"
#include "Views.hpp"

namespace zelctl {

namespace {

std::size_t const most_waiting = 4 << 20; // bytes that a slow reader may leave

std::string stamp(bool whole) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    whole ? gmtime_r(&now.tv_sec, &parts) : localtime_r(&now.tv_sec, &parts);
    char seconds[32];
    std::strftime(seconds, sizeof seconds, whole ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%s.%06ld%s", seconds, now.tv_nsec / 1000, whole ? "Z" : "");
    return text;
}

// "tid=18666 ALARM: id=43": the thread, and what the rest begins with.
Json object_of(std::string const& line) {
    Json object = {{"time", stamp(true)}};
    std::string::size_type const blank = line.find(' ');
    if (line.compare(0, 4, "tid=") == 0 && blank != std::string::npos) {
        std::string const text = line.substr(blank + 1);
        std::string const word = text.substr(0, text.find_first_of(" :"));
        object["monitor"] = word == "ALARM" ? "alarm" : word == "dispatching" ? "poll" : word;
        object["tid"] = number_after(line, "tid=").value_or(0);
        object["text"] = text;
    } else {
        object["text"] = line;
    }
    return object;
}

// Prints lines as they come until it is enough.
class Follower {
public:
    Follower(Context& context, double seconds, unsigned long limit, bool stamped, Monitors* monitors)
        : session_(context.session), output_(context.output), monitors_(monitors), limit_(limit),
          stamped_(stamped), json_(context.options.json), overflows_(context.session.overflows()) {
        unsigned long const ms = static_cast<unsigned long>(seconds * 1000);
        if (ms > 0)
            end_.reset(new orn::zel::Alarm(ms, [this] { over_ = true; }));
        unsigned long const look_ms = 500;
        if (monitors)
            look_.reset(new orn::zel::Alarm(look_ms, look_ms, [monitors] { monitors->look(); }));
        session_.follow([this](std::string const& line) { take(line); });
    }
    ~Follower() { session_.follow(nullptr); }
    Follower(Follower const&) = delete;
    Follower& operator=(Follower const&) = delete;

    void take(std::string const& line) {
        if (over_ || (monitors_ && monitors_->take(line)))
            return;
        if (output_.waiting() > most_waiting)
            cut_ = true;
        else if (stamped_)
            output_.line(json_ ? json_line(object_of(line)) : stamp(false) + ' ' + line);
        else
            output_.line(json_ ? json_line({{"line", line}}) : line);
        over_ = limit_ > 0 && ++taken_ == limit_;
    }

    bool over() const { return over_; }

    void run(std::function<bool()> const& enough) {
        while (!over_ && !enough() && !session_.ended())
            session_.follow_turn();
        if (session_.ended())
            session_.drain();
    }

    Answer answer() const {
        Answer answer;
        answer.lost = cut_ || session_.lost_since(overflows_);
        return answer;
    }

private:
    Session& session_;
    Output& output_;
    Monitors* const monitors_;
    unsigned long const limit_;
    bool const stamped_;
    bool const json_;
    unsigned long const overflows_;
    unsigned long taken_ = 0;
    bool over_ = false;
    bool cut_ = false;
    std::unique_ptr<orn::zel::Alarm> end_;
    std::unique_ptr<orn::zel::Alarm> look_;
};

} // namespace

ExitStatus follow(Context& context, double seconds, Monitors* monitors) {
    Follower follower(context, seconds, 0, false, monitors);
    try {
        follower.run([] { return false; });
    } catch (Interrupted const&) {
        status_of(follower.answer());
        throw;
    }
    return status_of(follower.answer());
}

ExitStatus monitor(Context& context, std::string const&, Words const& kinds) {
    std::set<std::string> const known = monitor_kinds(kinds, 0);
    if (kinds.empty() || known.size() != std::set<std::string>(kinds.begin(), kinds.end()).size())
        throw Failure(misused, "monitor takes any of: poll thread task alarm");
    Session& session = context.session;
    Monitors monitors(session, known, true);
    Follower follower(context, context.options.duration, context.options.limit, true, &monitors);
    try {
        session.ask("zel monitor " + joined(kinds), [&](std::string const& line) { follower.take(line); });
        follower.run([&] { return monitors.gone(); });
    } catch (Interrupted const&) {
        status_of(follower.answer());
        throw;
    }
    ExitStatus const status = status_of(follower.answer());
    if (!follower.over() && session.ended())
        throw Failure(connection_lost, session.target().name() + " has ended");
    return follower.over() ? status : refused; // else another client has all of them
}

} // namespace zelctl
