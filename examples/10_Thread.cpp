// SPDX-License-Identifier: MIT
//
// A thread as an object: making it runs Init() in the new thread, Start() has it work, and it leaves a
// status.
#include <cstdio>
#include <exception>

#include <orn/zel.hpp>

namespace {

class Counting : public orn::zel::Runnable {
public:
    int Init() override {
        total_ = 0;
        return 0;
    }
    int Run() override {
        for (int i = 1; i <= 10; ++i)
            total_ += i;
        return total_;
    }

private:
    int total_ = -1;
};

} // namespace

int main() {
    try {
        // [use]
        Counting work;
        orn::zel::Thread worker(work); // Init() has run when this returns
        worker.Start();
        worker.Join();
        std::printf("counted to %d\n", worker.Status().value());
        // [/use]

        orn::zel::Thread idle([] { return 1; });
        std::puts(idle.Status().undefined() ? "no status yet" : "a status before the start");
        idle.Stop(); // never started, so it ends without having run
        idle.Join();
        std::printf("never ran: %d\n", idle.Status().value());
    } catch (std::exception const& error) {
        std::printf("%s\n", error.what());
        return 1;
    }
    return 0;
}
