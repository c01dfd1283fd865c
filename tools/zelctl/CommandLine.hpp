// SPDX-License-Identifier: MIT
//
// zelctl's command line. Internal to the tool.
#ifndef ZELCTL_COMMAND_LINE_HPP
#define ZELCTL_COMMAND_LINE_HPP

#include <string>
#include <vector>

namespace zelctl {

struct Options {
    std::string target;                // a pid or a name; "ps" lists processes
    std::vector<std::string> words;    // the command; none: commands come from elsewhere
    std::vector<std::string> commands; // of -c
    double timeout = 5;                // seconds
    double follow = -1;                // seconds, 0 for ever; below 0: not at all
    double duration = 0;               // of --for, in seconds; 0: no end
    double interval = 1;               // of --interval, in seconds
    unsigned long limit = 0;           // of --limit; 0: no end
    std::string file;                  // of -o
    bool json = false;
    bool table = false; // aligned, whoever reads it
    bool raw = false;   // zelctl's own words go to the process as well
    std::string print;  // when help or the version was asked for, there is nothing else to do
};

// Throws Failure.
Options options_of(int argc, char** argv);

// The options and the words of one command, where others were given before.
Options options_of(Options const& before, std::vector<std::string> const& words);

std::string joined(std::vector<std::string> const& words, std::string const& between = " ");

} // namespace zelctl

#endif
