// SPDX-License-Identifier: MIT
//
// Asking for objects, and showing them.
#include "Views.hpp"

#include <cstdio>

#include "Monitors.hpp"
#include "Output.hpp"
#include "Target.hpp"
#include "Verbs.hpp"

namespace zelctl {

std::optional<View> inspect(Session& session, std::string const& what) {
    View view;
    bool whole = false;
    view.answer = session.ask("inspect " + what, [&](std::string const& line) {
        Json object = Json::parse(line, nullptr, false);
        // Answers to what was told before may still come, and streams go on meanwhile.
        if (!object.is_object() || (object.contains("inspect") && object["inspect"] != what))
            return;
        if (object.contains("end")) {
            whole = true;
            view.lost = object["lost"].is_number_unsigned() ? object["lost"].get<unsigned long>() : 0;
        } else if (object.contains("error")) {
            view.error = cell(object["error"]) + ", it knows: " + cell(object.value("known", Json()));
        } else {
            object.erase("inspect");
            view.objects.push_back(std::move(object));
        }
    });
    // An application may have given the word a meaning of its own.
    if (view.answer.echoed || (!whole && view.objects.empty() && !view.answer.lost))
        return std::nullopt;
    view.answer.lost = view.answer.lost || view.lost > 0 || !whole;
    return view;
}

namespace {

// One object of many members is read downwards.
std::vector<Json> turned(Json const& object) {
    std::vector<Json> rows;
    for (auto const& item : object.items())
        rows.push_back({{"what", item.key()}, {"value", item.value()}});
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
    bool const downwards = what == "process" && !context.options.json && view.objects.size() == 1;
    print_table(context.output, context.options,
                what == "words" ? word_objects(view.objects)
                : downwards     ? turned(view.objects[0])
                                : view.objects);
    return status_of(view.answer);
}

// ---- Libraries without the word inspect -----------------------------------------------------------------

ExitStatus show_listing(Context& context, std::string const& what) {
    bool const listed =
        what == "threads" || what == "groups" || what == "fds" || what == "tasks" || what == "signals";
    std::string const name = context.session.target().name();
    if (!listed) {
        std::fprintf(stderr, "zelctl: %s cannot list its %s: its zel does not have the word inspect\n",
                     name.c_str(), what.c_str());
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
