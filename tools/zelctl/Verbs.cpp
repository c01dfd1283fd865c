// SPDX-License-Identifier: MIT
//
// The table of verbs, and commands that go to the process as they are.
#include "Verbs.hpp"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "Live.hpp"
#include "Monitors.hpp"
#include "Output.hpp"
#include "Target.hpp"
#include "Views.hpp"

namespace zelctl {

Words const& words_of_zel() {
    static Words const words = {"tasks",   "threads", "monitor", "unmonitor",
                                "signals", "fds",     "load",    "unload"};
    return words;
}

std::vector<Verb> const& verbs() {
    static std::vector<Verb> const table = {
        {"process", "", "what it is, and what it has loaded", show},
        {"groups", "", "its groups: members, turns, what each is doing", show},
        {"threads", "", "its threads, and the group of each", show},
        {"fds", "", "the descriptors that it watches", show},
        {"alarms", "", "its alarms, and when they are due", show},
        {"tasks", "", "its tasks", show},
        {"signals", "", "the signals that it watches", show},
        {"words", "", "the command words that it has", show},
        {"monitor", "KIND...", "prints what happens: poll, thread, task, alarm", monitor},
        {"top", "", "what its loops spend their time on, as it happens", top},
        {"trace", "-o FILE", "records what they do, for a viewer of Chrome traces", trace},
        {"load", "LIBRARY...", "loads shared libraries into it", steer},
        {"unload", "LIBRARY...", "unloads them", steer},
    };
    return table;
}

std::string list_of_verbs() {
    std::string text;
    for (Verb const& verb : verbs()) {
        std::string const usage = joined({verb.word, verb.arguments});
        text += "  " + usage + std::string(22 - std::min<std::size_t>(usage.size(), 21), ' ') + verb.purpose +
                '\n';
    }
    text += "  WORD...               goes to the process as it is; zel, for example, has: " +
            joined(words_of_zel(), ", ") + '\n';
    return text;
}

ExitStatus status_of(Answer const& answer) {
    if (!answer.lost)
        return ok;
    std::fputs("zelctl: lines were lost: more came at once than the pipe between the processes takes: raise "
               "fs.pipe-max-size\n",
               stderr);
    return refused;
}

// ---- Words that nobody has ------------------------------------------------------------------------------

namespace {

// How many letters have to be put in, taken out, replaced, or exchanged with the next one, to make one word
// the other.
std::size_t distance(std::string const& one, std::string const& other) {
    std::vector<std::vector<std::size_t>> rows(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    std::iota(rows[0].begin(), rows[0].end(), 0u);
    for (std::size_t i = 1; i <= one.size(); ++i) {
        rows[i][0] = i;
        for (std::size_t j = 1; j <= other.size(); ++j) {
            std::size_t const replaced = rows[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            rows[i][j] = std::min({replaced, rows[i][j - 1] + 1, rows[i - 1][j] + 1});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows.back().back();
}

// The word that was meant, perhaps; "" when none is near.
std::string nearest(std::string const& word, Words const& candidates) {
    std::string found;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (std::string const& candidate : candidates) {
        std::size_t const longest = 64; // a word may come from the process
        if (std::max(word.size(), candidate.size()) > longest)
            continue;
        bool const begun = word.size() > 1 && candidate.compare(0, word.size(), word) == 0;
        std::size_t const far =
            begun ? std::min<std::size_t>(distance(word, candidate), 1) : distance(word, candidate);
        if (far < least && far < candidate.size()) {
            least = far;
            found = candidate;
        }
    }
    return found;
}

ExitStatus unknown(Context& context, std::string const& where, std::string const& word,
                   Words const& candidates) {
    std::string const meant = nearest(word, candidates);
    std::string const pid = std::to_string(context.session.target().pid());
    std::string const hint = !meant.empty()   ? "; did you mean: " + meant
                             : !where.empty() ? ": it has " + joined(candidates, ", ")
                                              : ": zelctl " + pid + " words lists them";
    std::fprintf(stderr, "zelctl: %s has no word \"%s\"%s\n",
                 (context.session.target().name() + where).c_str(), printable(word).c_str(),
                 printable(hint).c_str());
    return unknown_word;
}

Words all_words(Context& context) {
    Words words = command_words(context);
    for (Verb const& verb : verbs())
        words.push_back(verb.word);
    return words;
}

} // namespace

// ---- Commands -------------------------------------------------------------------------------------------

namespace {

bool is_zel(Words const& words, char const* second) {
    return words.size() >= 2 && words[0] == "zel" && words[1] == second;
}

void print(Context& context, std::string const& line) {
    context.output.line(context.options.json ? json_line({{"line", line}}) : line);
}

ExitStatus print_threads(Context& context) {
    Answer answer;
    for (std::string const& line : list_threads(context.session, answer.lost))
        print(context, line);
    return status_of(answer);
}

ExitStatus ask(Context& context, std::string const& command) {
    Words const words = words_of(command);
    Answer answer = context.session.ask(command, [&](std::string const& line) { print(context, line); });
    if (answer.echoed) {
        context.output.flush();
        return unknown(context, "", words[0], all_words(context));
    }
    std::string const second = words.size() > 1 ? words[1] : "";
    if (words[0] == "inspect") {
        Json const end = object_in(answer.last);
        if (end.contains("end")) // which tells exactly
            answer.lost = number_in(end, "lost") > 0;
        Json const object = object_in(answer.first);
        if (object.contains("error") && object.contains("known")) {
            if (second.empty())
                return refused;
            bool const topic = (second == "trace" || second == "timing") && words.size() > 2;
            Words known;
            for (Json const& what : object["known"])
                known.push_back(cell(what));
            context.output.flush();
            return topic ? unknown(context, "'s inspect " + second, words[2], known)
                         : unknown(context, "'s inspect", second, known);
        }
    }
    if (words[0] == "zel" && answer.first == "[zel] " + second + ": no such command") {
        context.output.flush();
        return unknown(context, "'s zel", second, words_of_zel());
    }
    return status_of(answer);
}

ExitStatus switch_on(Context& context, std::string const& command) {
    std::set<std::string> const kinds = monitor_kinds(words_of(command), 2);
    bool const following = context.options.follow >= 0;
    Monitors monitors(context.session, kinds, following);
    ExitStatus const status = ask(context, command);
    if (!following && !kinds.empty()) {
        std::fputs(
            "zelctl: switched off again, since nobody would read the lines: use --follow, or monitor\n",
            stderr);
    }
    ExitStatus const followed = following ? follow(context, context.options.follow, &monitors) : ok;
    return status == ok ? followed : status;
}

ExitStatus send(Context& context, std::string const& command) {
    Words const words = words_of(command);
    if (words.empty())
        throw Failure(misused, "the command has no word: zelctl --help lists some");
    if (is_zel(words, "threads"))
        return print_threads(context);
    if (is_zel(words, "monitor"))
        return switch_on(context, command);
    ExitStatus const status = ask(context, command);
    if (is_zel(words, "unmonitor")) {
        for (std::string const& kind : monitor_kinds(words, 2))
            notify(context.session.target().pid(), kind, switched_off);
    }
    ExitStatus const followed = context.options.follow >= 0 ? follow(context, context.options.follow) : ok;
    return status == ok ? followed : status;
}

} // namespace

namespace {

Verb const* verb_of(Context const& context, Words const& words) {
    auto const found = std::find_if(verbs().begin(), verbs().end(),
                                    [&](Verb const& one) { return !words.empty() && words[0] == one.word; });
    return context.options.raw || found == verbs().end() ? nullptr : &*found;
}

ExitStatus printed(Context& context, ExitStatus status) {
    context.output.flush();
    context.output.check();
    return status;
}

} // namespace

ExitStatus run(Context& context, Words const& words) {
    Verb const* const verb = verb_of(context, words);
    return printed(context, verb ? verb->run(context, verb->word, Words(words.begin() + 1, words.end()))
                                 : send(context, joined(words)));
}

ExitStatus run(Context& context, std::string const& command) {
    Words const words = words_of(command);
    if (!verb_of(context, words))
        return printed(context, send(context, command));
    Context own{context.session, context.output, options_of(context.options, words)};
    return run(own, own.options.words);
}

} // namespace zelctl
