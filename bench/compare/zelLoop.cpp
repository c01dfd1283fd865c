// SPDX-License-Identifier: MIT
//
// zel's loop for the comparison.
#include <orn/zel.hpp>

#include "loop.hpp"

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
    void allow_wakes() override { group_ = orn::zel::thread::ThisGroup(); }
    void wake() override { group_->WakeUp('x'); }
    void add_task() override {
        tasks_.push_back(std::make_unique<orn::zel::Task>([this](orn::zel::task::Controller*) { ++served; }));
        tasks_.back()->Run();
    }
    void hold_timer(Clock::time_point due) override {
        auto const ms = static_cast<unsigned long>(until<std::chrono::milliseconds>(due).count());
        timers_.push_back(std::make_unique<orn::zel::Alarm>(ms, [this] { expire(); }));
    }
    void drop_timers() override { timers_.clear(); }
    void make_and_cancel_timer(unsigned long ms) override {
        orn::zel::Alarm const timer(ms, [this] { expire(); });
    }
    void turn() override { orn::zel::RunOnce(-1); }

private:
    std::vector<std::unique_ptr<orn::zel::fd::AutoReceptor>> descriptors_;
    std::unique_ptr<orn::zel::signal::AutoReceptor> signal_;
    boost::shared_ptr<orn::zel::thread::Group> group_;
    std::vector<std::unique_ptr<orn::zel::Task>> tasks_;
    std::vector<std::unique_ptr<orn::zel::Alarm>> timers_;
};

Entered const entered("zel", "", make<ZelLoop>);

} // namespace

} // namespace bench
