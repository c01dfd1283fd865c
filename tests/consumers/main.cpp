// SPDX-License-Identifier: MIT
//
// The smallest program that shows that zel was found, linked and loaded: one alarm through one loop.
#include <cstdlib>

#include <orn/zel.hpp>

int main() {
    bool rung = false;
    orn::zel::SetAlarm(1, [&rung] { rung = true; });
    for (int turn = 0; turn < 1000 && !rung; ++turn)
        orn::zel::RunOnce(1000);
    return rung ? EXIT_SUCCESS : EXIT_FAILURE;
}
