// SPDX-License-Identifier: MIT
//
// zelctl ps: the processes that have zel. Internal to the tool.
#ifndef ZELCTL_FIND_HPP
#define ZELCTL_FIND_HPP

#include "CommandLine.hpp"
#include "Failure.hpp"

namespace zelctl {

class Output;

// Those whose names hold one of the words, or all of them when there is no word.
ExitStatus list_processes(Output& output, Options const& options);

} // namespace zelctl

#endif
