// SPDX-License-Identifier: MIT
//
// The verb top: what the loops do, and what their time goes into, again and again. On a terminal it takes the
// screen, elsewhere it prints tables.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <tuple>

#include "Live.hpp"
#include "Output.hpp"
#include "Screen.hpp"
#include "Target.hpp"
#include "Verbs.hpp"
#include "Views.hpp"

namespace zelctl {

namespace {

std::size_t const most_calls = 20;          // in a table
std::uint64_t const stuck_ns = 1000000000u; // in one callback

// What the process has counted up to a time.
struct Sample {
    using Key = std::tuple<std::uint64_t, std::string, std::uint64_t>; // group, kind, identifier

    std::uint64_t at_ns = 0;
    std::vector<Json> groups;
    std::map<Key, Json> calls;
    std::uint64_t lost = 0;
};

Sample take_sample(Session& session) {
    Sample sample;
    std::optional<View> const groups = inspect(session, "groups");
    std::optional<View> const timing = inspect(session, "timing");
    sample.at_ns = now_ns();
    if (groups)
        sample.groups = groups->objects;
    for (Json const& object : timing ? timing->objects : std::vector<Json>()) {
        if (object.contains("kind")) {
            sample.calls[{number_in(object, "group"), text_in(object, "kind"), number_in(object, "id")}] =
                object;
        } else {
            sample.lost = std::max(sample.lost, number_in(object, "lost"));
        }
    }
    return sample;
}

// How much a counter has grown. Those that begin anew, as after a pause of this tool, have grown by nothing.
double grown(Json const& now, Json const& before, char const* key) {
    std::uint64_t const one = number_in(before, key);
    std::uint64_t const other = number_in(now, key);
    return other > one ? static_cast<double>(other - one) : 0;
}

double rounded(double value, double digits = 1) {
    return std::round(value * digits) / digits;
}

class Rates {
public:
    Rates(Sample const& before, Sample const& now, Names const& names)
        : before_(before), now_(now), names_(names),
          seconds_(static_cast<double>(now.at_ns - before.at_ns) / 1e9) {}

    // A row for each, first those that are stuck, then those that have taken most of the time.
    std::vector<Json> groups() const;
    // Those that have taken most of the time since the sample before.
    std::vector<Json> calls() const;

private:
    Json per_second(double count) const {
        return seconds_ > 0 ? Json(static_cast<long>(rounded(count / seconds_))) : Json();
    }
    Json percent(double ns) const {
        double const tenths = 10;
        return seconds_ > 0 ? Json(std::min(100.0, rounded(ns / seconds_ / 1e7, tenths))) : Json();
    }
    Json const& before(Sample::Key const& key) const {
        static Json const none = Json::object();
        auto const found = before_.calls.find(key);
        return found == before_.calls.end() ? none : found->second;
    }
    std::string text_of_callback(Json const& in, bool inside) const;
    Json row_of(Json const& group) const;

    Sample const& before_;
    Sample const& now_;
    Names const& names_;
    double const seconds_;
};

std::string Rates::text_of_callback(Json const& in, bool inside) const {
    std::string text = names_.call(text_in(in, "kind"), number_in(in, "id"));
    std::uint64_t const since = number_in(in, "since_ns");
    if (inside && now_.at_ns > since + stuck_ns / 10) {
        char age[32];
        std::snprintf(age, sizeof age, " for %.1f s", static_cast<double>(now_.at_ns - since) / 1e9);
        text += age;
    }
    return text;
}

Json Rates::row_of(Json const& group) const {
    std::uint64_t const id = number_in(group, "group");
    auto const known = std::find_if(before_.groups.begin(), before_.groups.end(),
                                    [&](Json const& one) { return number_in(one, "group") == id; });
    Json const& earlier = known == before_.groups.end() ? group : *known;
    double slices = 0;
    double busy_ns = 0;
    for (auto const& item : now_.calls) {
        std::string const& kind = std::get<1>(item.first);
        if (std::get<0>(item.first) != id)
            continue;
        if (kind == "task")
            slices += grown(item.second, before(item.first), "count");
        else if (kind == "fd") // in which all others are called
            busy_ns += grown(item.second, before(item.first), "total_ns");
    }
    auto const in = group.find("in");
    bool const inside = in != group.end() && in->is_object() && text_in(group, "state") == "callback";
    std::uint64_t const since = inside ? number_in(*in, "since_ns") : now_.at_ns;
    bool const stuck = now_.at_ns > since + stuck_ns;
    if (since < before_.at_ns) // it is told of when it ends
        busy_ns = static_cast<double>(now_.at_ns - before_.at_ns);
    return {{"group", id},
            {"runner", number_in(group, "runner")},
            {"state", stuck ? "stuck" : text_in(group, "state")},
            {"turns/s", per_second(grown(group, earlier, "turns"))},
            {"dispatches/s", per_second(grown(group, earlier, "dispatches"))},
            {"slices/s", per_second(slices)},
            {"busy%", percent(busy_ns)},
            {"in", in == group.end() ? Json() : Json(text_of_callback(*in, inside))}};
}

bool is_stuck(Json const& row) {
    return row["state"] == "stuck";
}

std::vector<Json> Rates::groups() const {
    std::vector<Json> rows;
    rows.reserve(now_.groups.size());
    for (Json const& group : now_.groups)
        rows.push_back(row_of(group));
    std::stable_sort(rows.begin(), rows.end(), [](Json const& one, Json const& other) {
        return std::make_tuple(is_stuck(other), other["busy%"]) <
               std::make_tuple(is_stuck(one), one["busy%"]);
    });
    return rows;
}

std::vector<Json> Rates::calls() const {
    std::vector<std::pair<double, Json>> rows;
    for (auto const& item : now_.calls) {
        double const count = grown(item.second, before(item.first), "count");
        double const ns = grown(item.second, before(item.first), "total_ns");
        std::string const& kind = std::get<1>(item.first);
        std::uint64_t const id = std::get<2>(item.first);
        double const us = std::round(static_cast<double>(number_in(item.second, "longest_ns")) / 1000);
        if (count > 0) {
            rows.push_back({ns,
                            {{"kind", kind},
                             {"id", id},
                             {"group", std::get<0>(item.first)},
                             {"thread", number_in(item.second, "thread")},
                             {"calls/s", per_second(count)},
                             {"busy%", percent(ns)},
                             {"longest_ms", us / 1000},
                             {"what", names_.name(kind, id)}}});
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](auto const& one, auto const& other) { return one.first > other.first; });
    std::vector<Json> sorted;
    sorted.reserve(rows.size());
    for (auto const& row : rows)
        sorted.push_back(row.second);
    return sorted;
}

class Top {
public:
    explicit Top(Context& context) : context_(context), session_(context.session) {}

    ExitStatus run();

private:
    void sample() {
        before_ = std::move(now_);
        now_ = take_sample(session_);
        names_.forget_older(); // most tasks do not live as long as this is looked at
        names_.learn(session_);
    }
    void print();
    void draw(Screen& screen) const;
    std::string headline() const;
    std::string lost_in_last() const;

    Context& context_;
    Session& session_;
    Names names_;
    Sample before_;
    Sample now_;
};

void Top::print() {
    Rates const rates(before_, now_, names_);
    print_table(context_.output, context_.options, rates.groups());
    std::vector<Json> calls = rates.calls();
    calls.resize(std::min(calls.size(), most_calls));
    print_table(context_.output, context_.options, calls);
    if (!context_.options.json)
        context_.output.own_line("");
    if (!lost_in_last().empty())
        std::fprintf(stderr, "zelctl: %s\n", lost_in_last().c_str());
}

// "" if the times of the last sample are whole.
std::string Top::lost_in_last() const {
    std::uint64_t const before = before_.at_ns == 0 ? now_.lost : before_.lost;
    return now_.lost > before ? std::to_string(now_.lost - before) + " spans lost: slices and times too low"
                              : "";
}

std::string Top::headline() const {
    std::time_t const now = std::time(nullptr);
    tm parts = {};
    localtime_r(&now, &parts);
    std::array<char, 16> clock = {};
    std::strftime(clock.data(), clock.size(), "%H:%M:%S", &parts);
    std::string text = printable(session_.target().process().name) + ' ' +
                       std::to_string(session_.target().pid()) + "  " + clock.data() + "  q leaves";
    return text + (lost_in_last().empty() ? "" : "  ") + lost_in_last();
}

void Top::draw(Screen& screen) const {
    Rates const rates(before_.at_ns == 0 ? now_ : before_, now_, names_);
    std::vector<Json> const groups = rates.groups();
    std::vector<std::string> const shown = table_lines(groups, true);
    std::vector<Screen::Line> lines = {{headline(), Screen::Line::plain}, {}};
    // Half of the screen is for the callbacks.
    std::size_t const most = std::max<std::size_t>(screen.rows() / 2, 5) - 3;
    for (std::size_t i = 0; i < std::min(shown.size(), most + 1); ++i) {
        lines.push_back({shown[i], i == 0                    ? Screen::Line::bold
                                   : is_stuck(groups[i - 1]) ? Screen::Line::red
                                                             : Screen::Line::plain});
    }
    if (groups.size() > most)
        lines.push_back({std::to_string(groups.size() - most) + " more, less busy", Screen::Line::plain});
    lines.push_back({});
    for (std::string const& line : table_lines(rates.calls(), true))
        lines.push_back({line, lines.back().text.empty() ? Screen::Line::bold : Screen::Line::plain});
    screen.draw(lines);
}

ExitStatus Top::run() {
    Options const& options = context_.options;
    Wish const wish(session_, "timing", nullptr);
    sample();
    bool over = false;
    bool due = false;
    unsigned long shown = 0;
    auto const ms = [](double seconds) { return static_cast<unsigned long>(seconds * 1000); };
    std::unique_ptr<orn::zel::Alarm> const end(
        options.duration > 0 ? new orn::zel::Alarm(ms(options.duration), [&] { over = true; }) : nullptr);
    orn::zel::Alarm const tick(ms(options.interval), ms(options.interval), [&] { due = true; });
    std::unique_ptr<Screen> screen;
    if (context_.output.screen() && !options.json && !options.table) {
        screen.reset(new Screen(
            context_.output, [&](char key) { over = over || key == 'q' || key == 'Q'; },
            [&] {
                if (screen)
                    draw(*screen);
            }));
        draw(*screen);
    }
    while (!over) {
        session_.follow_turn();
        if (session_.ended())
            throw Failure(connection_lost, session_.target().name() + " has ended");
        if (!due || over)
            continue;
        due = false;
        sample();
        if (screen)
            draw(*screen);
        else
            print();
        over = over || ++shown == options.limit;
    }
    return ok;
}

} // namespace

ExitStatus top(Context& context, std::string const&, Words const& arguments) {
    if (!arguments.empty())
        throw Failure(misused, "top takes no words behind it, not '" + printable(arguments[0]) + "'");
    return Top(context).run();
}

} // namespace zelctl
