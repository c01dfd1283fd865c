// SPDX-License-Identifier: MIT
//
// A library that goes after zel when both are preloaded in this order, and in whose destructor a client of
// the command channel comes too late.
#include <signal.h>

namespace {

__attribute__((destructor)) void be_late() {
    raise(55);
}

} // namespace
