// SPDX-License-Identifier: MIT
//
// Commands typed at a prompt, with history and completion of words. Internal to the tool.
#ifndef ZELCTL_PROMPT_HPP
#define ZELCTL_PROMPT_HPP

#include <functional>
#include <string>

#include "Verbs.hpp"

namespace zelctl {

// Runs what is typed until its end, which only detaches. carry_out: runs one command and reports what fails.
// forget_signal: a signal that has interrupted a command is not to end the prompt. Throws Failure when the
// process ends meanwhile, and Interrupted.
ExitStatus prompt(Context& context, std::function<ExitStatus(std::string const&)> const& carry_out,
                  std::function<void()> const& forget_signal);

} // namespace zelctl

#endif
