// SPDX-License-Identifier: MIT
//
// Tasks do long work in slices, between which the loop serves everything else.
#include <cstdio>

#include <orn/zel.hpp>

int main() {
    // [use]
    int left = 3;
    bool complete = false;
    orn::zel::RunTask(
        [&left](orn::zel::task::Controller* task) {
            std::printf("%d left\n", left--);
            if (left == 0)
                task->Complete();
        },
        [&complete] { complete = true; });
    while (!complete)
        orn::zel::RunOnce(-1);
    // [/use]

    // This one sleeps until it is told to go on.
    orn::zel::task::Controller* sleeper = nullptr;
    int slices = 0;
    orn::zel::Task task([&](orn::zel::task::Controller* self) {
        sleeper = self;
        std::printf("slice %d\n", ++slices);
        if (slices == 2)
            self->Complete();
        else
            self->Sleep();
    });
    task.Run();
    orn::zel::SetAlarm(10, [&sleeper] {
        std::puts("wake up");
        sleeper->Continue();
    });
    while (slices < 2)
        orn::zel::RunOnce(-1);

    try {
        orn::zel::RunTask(orn::zel::task::Body());
    } catch (orn::zel::Exception const& error) {
        std::printf("refused: %s\n", error.what());
    }
    return 0;
}
