// SPDX-License-Identifier: MIT
//
// Asking for objects, and showing them.
#include "Views.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Live.hpp"
#include "Monitors.hpp"
#include "Output.hpp"
#include "Target.hpp"
#include "Verbs.hpp"

namespace zelctl {

namespace {

// Of a process that answers without end no more is kept.
std::size_t const most_bytes = 64 << 20;

std::optional<View> view_of(Session& session, std::string const& what) {
    View view;
    bool whole = false;
    std::size_t bytes = 0;
    std::vector<std::string> lines; // read as objects later: the pipe may fill meanwhile
    view.answer = session.ask("inspect " + what, [&](std::string const& line) {
        bytes += line.size();
        if (line[0] == '{' && bytes <= most_bytes)
            lines.push_back(line);
    });
    for (std::string const& line : lines) {
        session.check();
        Json object = object_in(line);
        // Answers to what was told before may still come, and streams go on meanwhile.
        if (!object.is_object() || (object.contains("inspect") && object["inspect"] != what))
            continue;
        view.built_in = view.built_in || object.contains("inspect");
        if (object.contains("end")) {
            whole = true;
            view.lost = object["lost"].is_number_unsigned() ? object["lost"].get<unsigned long>() : 0;
        } else if (object.contains("error")) {
            view.error = cell(object["error"]) + ", it knows: " + cell(object.value("known", Json()));
        } else {
            object.erase("inspect");
            view.objects.push_back(std::move(object));
        }
    }
    // An application may have given the word a meaning of its own.
    if (view.answer.echoed || (!whole && view.objects.empty() && !view.answer.lost))
        return std::nullopt;
    // The last object tells exactly. Without one a pipe that was full, or no end at all, makes it likely.
    if (view.built_in)
        view.answer.lost = !whole || view.lost > 0;
    else
        view.answer.lost = view.answer.lost || view.lost > 0;
    return view;
}

} // namespace

// The process waits for a client for a moment only, so beside busy processes an answer larger than the pipe
// may not come whole. A word of the application's own may have an effect, and is not asked twice.
std::optional<View> inspect(Session& session, std::string const& what) {
    Session::Limit const limit(session);
    unsigned const enough = 5;
    std::optional<View> view = view_of(session, what);
    for (unsigned asked = 1; view && view->built_in && view->answer.lost && asked < enough; ++asked) {
        try {
            std::optional<View> another = view_of(session, what);
            if (another && (!another->answer.lost || another->objects.size() > view->objects.size()))
                view = std::move(another);
        } catch (Failure const& failure) {
            if (failure.status != timed_out)
                throw;
            break; // what has come is better than nothing
        }
    }
    return view;
}

namespace {

// A point in time tells a reader less than how long ago it was.
Json seconds_until(std::uint64_t now_ns, Json const& then_ns) {
    if (!then_ns.is_number_unsigned())
        return {};
    std::uint64_t const then = then_ns.get<std::uint64_t>();
    double const ms = std::round(static_cast<double>(now_ns > then ? now_ns - then : 0) / 1e6);
    return ms / 1000;
}

// One object of many members is read downwards, a line for each part of a list.
std::vector<Json> turned(Json const& object) {
    std::vector<Json> rows;
    auto const add = [&rows](std::string const& what, Json const& value) {
        rows.push_back({{"what", what}, {"value", value}});
    };
    for (auto const& item : object.items()) {
        Json const& value = item.value();
        if (item.key() == "start_ns")
            add("age_s", seconds_until(number_in(object, "now_ns"), value));
        else if (value.is_array() && !value.empty())
            std::for_each(value.begin(), value.end(), [&](Json const& part) { add(item.key(), part); });
        else if (item.key() != "now_ns")
            add(item.key(), value);
    }
    return rows;
}

// The columns stay in their places, with times as a reader wants them.
Json group_row(Json const& group) {
    Json row;
    for (auto const& item : group.items()) {
        Json const& value = item.value();
        if (item.key() == "turn_began_ns")
            row["turn_began_s_ago"] = seconds_until(now_ns(), value);
        else if (item.key() == "in" && value.is_object())
            row["in"] = text_in(value, "kind") + ' ' + std::to_string(number_in(value, "id"));
        else
            row[item.key()] = value;
    }
    return row;
}

// For a table.
std::vector<Json> rows_of(std::string const& what, std::vector<Json> const& objects) {
    if (what == "process" && objects.size() == 1)
        return turned(objects[0]);
    std::vector<Json> rows = objects;
    if (what == "groups")
        std::transform(rows.begin(), rows.end(), rows.begin(), group_row);
    return rows;
}

std::vector<Json> word_objects(std::vector<Json> const& process) {
    std::vector<Json> words;
    for (Json const& object : process) {
        for (Json const& word : object.value("words", Json::array()))
            words.push_back(word.is_object() ? word : Json{{"word", word}});
    }
    return words;
}

ExitStatus show_view(Context& context, std::string const& what, View const& view) {
    if (!view.error.empty()) {
        std::fprintf(stderr, "zelctl: %s: inspect %s: %s\n", context.session.target().name().c_str(),
                     what.c_str(), view.error.c_str());
        return refused;
    }
    if (view.objects.empty() && !view.answer.lost && context.output.terminal() && !context.options.json)
        context.output.own_line("no " + what);
    print_table(context.output, context.options,
                what == "words"        ? word_objects(view.objects)
                : context.options.json ? view.objects
                                       : rows_of(what, view.objects));
    return status_of(view.answer);
}

// ---- Libraries without the word inspect -----------------------------------------------------------------

ExitStatus show_listing(Context& context, std::string const& what) {
    bool const listed =
        what == "threads" || what == "groups" || what == "fds" || what == "tasks" || what == "signals";
    std::string const name = context.session.target().name();
    if (!listed) {
        std::fprintf(stderr, "zelctl: %s cannot tell: its zel does not have inspect %s\n", name.c_str(),
                     what == "words" ? "process" : what.c_str());
        return refused;
    }
    Answer answer;
    std::vector<std::string> lines;
    if (what == "threads" || what == "groups")
        lines = list_threads(context.session, answer.lost);
    else
        answer = context.session.ask("zel " + what, [&](std::string const& line) { lines.push_back(line); });
    print_table(context.output, context.options,
                objects_of_listing(what, lines, "/proc/" + std::to_string(context.session.target().pid())));
    return status_of(answer);
}

} // namespace

ExitStatus show(Context& context, std::string const& what, Words const& arguments) {
    if (!arguments.empty())
        throw Failure(misused, what + " takes no words behind it, not '" + printable(arguments[0]) + "'");
    std::optional<View> const view = inspect(context.session, what == "words" ? "process" : what);
    return view ? show_view(context, what, *view) : show_listing(context, what);
}

Words command_words(Context& context) {
    Words words = {"zel"};
    std::optional<View> const view = inspect(context.session, "process");
    if (!view)
        return words;
    words.push_back("inspect");
    for (Json const& word : word_objects(view->objects))
        words.push_back(cell(word.value("word", Json())));
    return words;
}

} // namespace zelctl
