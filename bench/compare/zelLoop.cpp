// SPDX-License-Identifier: MIT
//
// zel's loop for the comparison.
#include <vector>

#include <orn/zel.hpp>

#include "loop.hpp"
#include "versus.hpp"

namespace bench {

namespace {

class ZelLoop : public Loop {
public:
    void watch(int fd) override {
        descriptors_.push_back(
            std::make_unique<orn::zel::fd::AutoReceptor>(fd, [this](orn::zel::fd::Event* event) {
                take_byte(event->fd());
                ++served;
            }));
    }
    void watch_signal(int signo) override {
        signal_ = std::make_unique<orn::zel::signal::AutoReceptor>(signo, [this](int) { ++served; });
    }
    void hold_timer(unsigned long ms) override {
        timers_.push_back(std::make_unique<orn::zel::Alarm>(ms, [this] { ++fired; }));
    }
    void make_and_cancel_timer(unsigned long ms) override {
        orn::zel::Alarm const timer(ms, [this] { ++fired; });
    }
    void turn() override { orn::zel::RunOnce(-1); }

private:
    std::vector<std::unique_ptr<orn::zel::fd::AutoReceptor>> descriptors_;
    std::unique_ptr<orn::zel::signal::AutoReceptor> signal_;
    std::vector<std::unique_ptr<orn::zel::Alarm>> timers_;
};

} // namespace

std::unique_ptr<Loop> make_zel_loop() {
    return std::make_unique<ZelLoop>();
}

} // namespace bench
