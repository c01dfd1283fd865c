// SPDX-License-Identifier: MIT
//
// libuv's loop for the comparison.
#include <deque>

#include <uv.h>

#include "loop.hpp"
#include "versus.hpp"

namespace bench {

namespace {

// A handle has to live until a turn of the loop after uv_close(), so all are kept until the loop goes. One
// timer is started and stopped again and again, which is less work than the other loops' new timer each time.
class LibuvLoop : public Loop {
public:
    LibuvLoop() {
        expect(uv_loop_init(&loop_) == 0 && uv_timer_init(&loop_, &spare_) == 0, "uv_loop_init");
        spare_.data = this;
    }
    ~LibuvLoop() override {
        uv_walk(
            &loop_, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }

    void watch(int fd) override {
        uv_poll_t& handle = polls_.emplace_back();
        handle.data = this;
        expect(uv_poll_init(&loop_, &handle, fd) == 0 && uv_poll_start(&handle, UV_READABLE, readable) == 0,
               "uv_poll_start");
    }
    void watch_signal(int signo) override {
        signal_.data = this;
        expect(uv_signal_init(&loop_, &signal_) == 0 && uv_signal_start(&signal_, arrived, signo) == 0,
               "uv_signal_start");
    }
    void hold_timer(unsigned long ms) override {
        uv_timer_t& handle = timers_.emplace_back();
        handle.data = this;
        expect(uv_timer_init(&loop_, &handle) == 0 && uv_timer_start(&handle, due, ms, 0) == 0,
               "uv_timer_start");
    }
    void make_and_cancel_timer(unsigned long ms) override {
        uv_update_time(&loop_); // a timer counts from the loop's own time, which may be long ago
        expect(uv_timer_start(&spare_, due, ms, 0) == 0 && uv_timer_stop(&spare_) == 0, "uv_timer_start");
    }
    void turn() override { uv_run(&loop_, UV_RUN_ONCE); }

private:
    static void readable(uv_poll_t* handle, int, int) {
        int fd = -1;
        uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &fd);
        take_byte(fd);
        ++static_cast<LibuvLoop*>(handle->data)->served;
    }
    static void arrived(uv_signal_t* handle, int) { ++static_cast<LibuvLoop*>(handle->data)->served; }
    static void due(uv_timer_t* handle) { ++static_cast<LibuvLoop*>(handle->data)->fired; }

    uv_loop_t loop_;
    uv_timer_t spare_;
    uv_signal_t signal_;
    std::deque<uv_poll_t> polls_;
    std::deque<uv_timer_t> timers_;
};

} // namespace

std::unique_ptr<Loop> make_libuv_loop() {
    return std::make_unique<LibuvLoop>();
}

std::string libuv_version() {
    return uv_version_string();
}

} // namespace bench
