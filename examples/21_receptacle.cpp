// SPDX-License-Identifier: MIT
//
// A program's own list of handlers, which may change while it is dispatched.
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
        list.remove(once); // noted, and done when the dispatch ends
    });
    orn::zel::Dispatch(list, 7);
    orn::zel::Dispatch(list, 8);
    // A list that any thread may change needs a mutex that its holder can take again.
    orn::zel::HandlerList<int> shared(boost::make_shared<orn::zel::RecursiveThreadMutex>());
    // [/use]
    std::thread([&shared] { shared.insert([](int value) { std::printf("shared: %d\n", value); }); }).join();
    orn::zel::Dispatch(shared, 9);
    std::printf("handlers left: %u\n", list.count());
    return 0;
}
