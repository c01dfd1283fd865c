// SPDX-License-Identifier: MIT
//
// Asio's io_context for the comparison. A turn of it calls one handler. It reads the bytes itself, first
// without waiting for them. Work for every turn is a function that posts itself again.
#include <deque>

#include <asio.hpp>

#include "loop.hpp"

namespace bench {

namespace {

// The hint of 1 tells Asio that one thread runs the loop.
class AsioLoop : public Loop {
public:
    AsioLoop() : context_(1), work_(asio::make_work_guard(context_)), signals_(context_) {}
    ~AsioLoop() override {
        for (Descriptor& descriptor : descriptors_)
            descriptor.stream.release(); // it would close it
    }

    void watch(int fd) override { read(descriptors_.emplace_back(context_, fd)); }
    void watch_signal(int signo) override {
        signals_.add(signo);
        await_signal();
    }
    void allow_wakes() override {}
    void wake() override {
        asio::post(context_, [] {});
    }
    void add_task() override {
        asio::post(context_, [this] {
            ++served;
            add_task();
        });
    }
    void hold_timer(Clock::time_point due) override { wait(timers_.emplace_back(context_, due)); }
    void drop_timers() override {
        timers_.clear();
        settle();
    }
    void make_and_cancel_timer(unsigned long ms) override {
        asio::steady_timer timer(context_, std::chrono::milliseconds(ms));
        wait(timer);
    }
    // The handler of a cancelled wait is called later.
    void settle() override { context_.poll(); }
    void turn() override { context_.run_one(); }

private:
    struct Descriptor {
        Descriptor(asio::io_context& context, int fd) : stream(context, fd), byte(0) {}
        asio::posix::stream_descriptor stream;
        char byte;
    };

    void read(Descriptor& descriptor) {
        descriptor.stream.async_read_some(
            asio::buffer(&descriptor.byte, 1),
            [this, &descriptor](asio::error_code const& error, std::size_t got) {
                if (error)
                    return; // this dies
                expect(got == 1, "a byte was not there");
                ++served;
                read(descriptor);
            });
    }
    void await_signal() {
        signals_.async_wait([this](asio::error_code const& error, int) {
            if (error)
                return;
            ++served;
            await_signal();
        });
    }
    void wait(asio::steady_timer& timer) {
        timer.async_wait([this](asio::error_code const& error) {
            if (!error)
                expire();
        });
    }

    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    asio::signal_set signals_;
    std::deque<Descriptor> descriptors_;
    std::deque<asio::steady_timer> timers_;
};

Entered const entered("Asio",
                      std::to_string(ASIO_VERSION / 100000) + '.' +
                          std::to_string(ASIO_VERSION / 100 % 1000) + '.' +
                          std::to_string(ASIO_VERSION % 100),
                      make<AsioLoop>);

} // namespace

} // namespace bench
