// SPDX-License-Identifier: MIT
//
// A clock that tests turn by hand. FakeTimer.cpp is linked in place of platform/os/src/Timer.cpp: every
// orn::os::Timer then fires from advance(), on the calling thread, and never by itself.
#ifndef TESTS_SUPPORT_FAKETIMER_HPP
#define TESTS_SUPPORT_FAKETIMER_HPP

#include <cstddef>

namespace fake_timer {

// Turns the clock on by ms and fires what falls due on the way, in the order of the deadlines (of equal ones:
// the one set first), recurring timers once a period. advance(0) fires what was set with a delay of 0.
void advance(unsigned long ms);

std::size_t live(); // timers that exist

} // namespace fake_timer

#endif
