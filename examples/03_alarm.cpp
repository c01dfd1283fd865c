// SPDX-License-Identifier: MIT
//
// Alarms that fire once or again and again, that are put off, and that are called off.
#include <cstdio>

#include <orn/zel.hpp>

int main() {
    // [use]
    orn::zel::SetAlarm(0, [] { std::puts("at once"); });
    int count = 0;
    orn::zel::Alarm ticks(10, 10, [&ticks, &count] {
        std::printf("tick %d\n", ++count);
        if (count == 3)
            ticks.Cancel();
    });
    while (orn::zel::OutstandingAlarmCount() > 0)
        orn::zel::RunOnce(-1);
    // [/use]

    // A watchdog is put off for as long as there are signs of life.
    bool bitten = false;
    orn::zel::Alarm watchdog(3600 * 1000, [&bitten] { bitten = true; });
    for (int sign = 1; sign <= 3; ++sign)
        watchdog.Reset(20);
    while (!bitten)
        orn::zel::RunOnce(-1);
    std::puts("no sign of life for 20 ms");

    try {
        orn::zel::SetAlarm(10, orn::zel::alarm::Handler());
    } catch (orn::zel::Exception const& error) {
        std::printf("refused: %s\n", error.what());
    }
    return 0;
}
