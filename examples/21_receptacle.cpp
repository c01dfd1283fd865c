// SPDX-License-Identifier: MIT
//
// A list of handlers of one's own, which tolerates changes while it is dispatched.
#include <cstdio>
#include <thread>

#include <boost/make_shared.hpp>

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
    // One that any thread may change needs a mutex which its thread can take again:
    orn::zel::HandlerList<int> shared(boost::make_shared<orn::zel::RecursiveThreadMutex>());
    // [/use]
    std::thread([&shared] { shared.insert([](int value) { std::printf("shared: %d\n", value); }); }).join();
    orn::zel::Dispatch(shared, 9);
    std::printf("handlers left: %u\n", list.count());
    return 0;
}
