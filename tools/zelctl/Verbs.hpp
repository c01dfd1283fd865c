// SPDX-License-Identifier: MIT
//
// What zelctl does with a command: the words that it knows itself, and all others, which go to the process as
// they are. Internal to the tool. A verb of its own is one line in the table of Verbs.cpp.
#ifndef ZELCTL_VERBS_HPP
#define ZELCTL_VERBS_HPP

#include <string>
#include <vector>

#include "CommandLine.hpp"
#include "Failure.hpp"
#include "Session.hpp"

namespace zelctl {

class Monitors;
class Output;

struct Context {
    Session& session;
    Output& output;
    Options options;
};

using Words = std::vector<std::string>;

struct Verb {
    char const* word;
    char const* arguments;
    char const* purpose;
    ExitStatus (*run)(Context& context, std::string const& word, Words const& arguments);
};

std::vector<Verb> const& verbs();

// Carries one command out. Throws Failure and Interrupted. In words, its options have been taken already; a
// text may hold some.
ExitStatus run(Context& context, Words const& words);
ExitStatus run(Context& context, std::string const& command);

// The words that may stand behind zel.
Words const& words_of_zel();

// A line for each verb, for --help and for the prompt.
std::string list_of_verbs();

// The command words of the process, built in or not; those that are known to all when it cannot tell.
Words command_words(Context& context);

// What verbs run, each in the file that its idea has.
ExitStatus show(Context& context, std::string const& what, Words const& arguments);    // Views.cpp
ExitStatus monitor(Context& context, std::string const& word, Words const& kinds);     // Follow.cpp
ExitStatus top(Context& context, std::string const& word, Words const& arguments);     // Top.cpp
ExitStatus trace(Context& context, std::string const& word, Words const& arguments);   // Trace.cpp
ExitStatus steer(Context& context, std::string const& change, Words const& libraries); // Steer.cpp

// Prints what comes for that long; 0: until the process has ended. monitors: those whose lines may come.
// Follow.cpp
ExitStatus follow(Context& context, double seconds, Monitors* monitors = nullptr);

// Says so on standard error when lines were lost, and returns the status for it.
ExitStatus status_of(Answer const& answer);

} // namespace zelctl

#endif
