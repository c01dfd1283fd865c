// SPDX-License-Identifier: MIT
//
// Reading the command line, and the text of --help.
#include "CommandLine.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "Failure.hpp"
#include "Output.hpp"
#include "Verbs.hpp"

namespace zelctl {

namespace {

char const* const examples =
    "Looks into a running process that has loaded zel, and steers it.\n\n"
    "  zelctl ps                                which processes there are\n"
    "  zelctl 1234 threads                      by its id,\n"
    "  zelctl station fds --json                by its name or a part of it\n"
    "  zelctl station monitor task --for 10s    what happens there, as it happens\n"
    "  zelctl station top                       what its loops spend their time on\n"
    "  zelctl station trace -o out.json --for 5s   a record for ui.perfetto.dev\n"
    "  zelctl station -c threads -c fds         several commands; also from standard input\n"
    "  zelctl station                           a prompt\n"
    "  zelctl station hello visitor             any other word goes to the process\n";

char const* const footer =
    "Put -- before a command with words that begin with a dash.\n"
    "Monitors that it has switched on are off again when it ends.\n\n"
    "Exit status: 0 done; 1 the process answered a failure, lines were lost or the output cannot be\n"
    "written; 2 the command line is wrong; 3 no such process, or several; 4 it cannot be attached to;\n"
    "5 not permitted; 6 no answer in time; 7 the connection was lost in the middle of an answer;\n"
    "8 nobody there has this word. It ends by the signal that interrupts it: 130 for Ctrl-C.";

// A number with s, ms, m or h behind it; seconds if there is none.
double seconds_in(char const* option, std::string const& text, double least) {
    char* end = nullptr;
    double seconds = std::strtod(text.c_str(), &end);
    std::string const unit = end;
    bool const known = unit.empty() || unit == "s" || unit == "ms" || unit == "m" || unit == "h";
    seconds *= unit == "ms" ? 0.001 : unit == "m" ? 60 : unit == "h" ? 3600 : 1;
    if (end == text.c_str() || !known || !(seconds >= least && seconds <= 1e6)) {
        std::string const from =
            least > 0 ? "from " + std::to_string(std::lround(least * 1000)) + "ms to" : "up to";
        throw Failure(misused, std::string(option) + " takes a time such as 10s, 200ms, 5m or 1h, " + from +
                                   " 1000000s");
    }
    return seconds;
}

unsigned long count_in(char const* option, std::string const& text) {
    bool const digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    unsigned long const count = digits && text.size() < 10 ? std::strtoul(text.c_str(), nullptr, 10) : 0;
    if (count == 0)
        throw Failure(misused, std::string(option) + " takes a number from 1 to 999999999");
    return count;
}

// The options that a command takes wherever it stands, and where they go.
class Parser {
public:
    Parser(Options const& before, bool whole_line) : options_(before), app_(examples, "zelctl") {
        if (whole_line) {
            app_.set_version_flag("--version", "zelctl " ZELCTL_VERSION);
            app_.add_option("target", options_.target, "A process id, a name, or a part of one; or ps")
                ->required();
            app_.add_option("-c", options_.commands, "A command; may be given again")
                ->allow_extra_args(false);
            app_.add_flag("--raw", options_.raw, "Send zelctl's own words to the process, too");
            app_.add_option("--timeout", timeout_, "How long to wait for an answer (5s)");
            app_.add_option("--follow", follow_,
                            "After the answer, print what comes for so long; 0: until the process ends");
        } else {
            app_.set_help_flag();
        }
        app_.add_option("words", words_, "The command, for example: threads");
        app_.add_option("--for", for_, "monitor, top, trace: for so long");
        app_.add_option("--limit", limit_, "monitor, top, trace: for so many lines, tables, spans");
        app_.add_option("--interval", interval_, "top: how often (1s)");
        app_.add_option("-o,--output", options_.file, "trace: the file");
        app_.add_flag("--table", options_.table, "Align tables, although this is no terminal");
        app_.add_flag("--json", options_.json, "Print objects of JSON, one a line");
        app_.footer("Words:\n" + list_of_verbs() + '\n' + footer);
    }

    // arguments: in reverse order, as CLI11 takes them.
    Options parse(std::vector<std::string> arguments) {
        try {
            app_.parse(std::move(arguments));
        } catch (CLI::CallForHelp const&) {
            options_.print = app_.help();
            return options_;
        } catch (CLI::CallForVersion const&) {
            options_.print = "zelctl " ZELCTL_VERSION;
            return options_;
        } catch (CLI::ParseError const& error) {
            throw Failure(misused, printable(error.what()) + " (zelctl --help tells more)");
        }
        options_.words = words_;
        if (!timeout_.empty())
            options_.timeout = seconds_in("--timeout", timeout_, 0.001);
        if (!follow_.empty())
            options_.follow = seconds_in("--follow", follow_, 0);
        if (!for_.empty())
            options_.duration = seconds_in("--for", for_, 0.001);
        if (!limit_.empty())
            options_.limit = count_in("--limit", limit_);
        if (!interval_.empty())
            options_.interval = seconds_in("--interval", interval_, 0.05);
        return options_;
    }

private:
    Options options_;
    CLI::App app_;
    std::vector<std::string> words_;
    std::string timeout_;
    std::string follow_;
    std::string for_;
    std::string limit_;
    std::string interval_;
};

} // namespace

Options options_of(int argc, char** argv) {
    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    std::reverse(arguments.begin(), arguments.end());
    Options options = Parser(Options(), true).parse(arguments);
    if (!options.words.empty() && !options.commands.empty())
        throw Failure(misused, "a command stands either behind the process or behind -c");
    return options;
}

Options options_of(Options const& before, std::vector<std::string> const& words) {
    return Parser(before, false).parse(std::vector<std::string>(words.rbegin(), words.rend()));
}

std::string joined(std::vector<std::string> const& words, std::string const& between) {
    std::string text;
    for (std::string const& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

} // namespace zelctl
