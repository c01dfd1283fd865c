// SPDX-License-Identifier: MIT
//
// A list of handlers of one's own, which tolerates changes while it is dispatched.
#include <cstdio>

#include <orn/zel.hpp>

int main() {
    // [use]
    orn::zel::HandlerList<int> list;
    orn::zel::AutoReceptor<int> twice(list, [](int value) { std::printf("twice: %d\n", 2 * value); });
    unsigned long once = 0;
    once = list.insert([&](int value) {
        std::printf("once: %d\n", value);
        list.remove(once); // kept, and done when the dispatch ends
    });
    orn::zel::Dispatch(list, 7);
    orn::zel::Dispatch(list, 8);
    // [/use]
    std::printf("handlers left: %u\n", list.count());
    return 0;
}
