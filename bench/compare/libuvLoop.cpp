// SPDX-License-Identifier: MIT
//
// libuv's loop for the comparison. Work for every turn is an idle handle.
#include <deque>

#include <uv.h>

#include "loop.hpp"

namespace bench {

namespace {

// A handle has to live until a turn of the loop after uv_close(). Therefore one timer is started and stopped
// again and again, which is less work than the other loops' new timer each time.
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
    void allow_wakes() override {
        expect(uv_async_init(&loop_, &wake_, [](uv_async_t*) {}) == 0, "uv_async_init");
    }
    void wake() override { uv_async_send(&wake_); }
    void add_task() override {
        uv_idle_t& handle = tasks_.emplace_back();
        handle.data = this;
        expect(uv_idle_init(&loop_, &handle) == 0 && uv_idle_start(&handle, slice) == 0, "uv_idle_start");
    }
    void hold_timer(Clock::time_point due) override {
        using Ms = std::chrono::milliseconds;
        uv_timer_t& handle = timers_.emplace_back();
        handle.data = this;
        // A timer counts from the loop's own time, which is the clock's in whole milliseconds.
        uv_update_time(&loop_);
        auto const at = static_cast<std::uint64_t>(std::chrono::ceil<Ms>(due.time_since_epoch()).count());
        std::uint64_t const now = uv_now(&loop_);
        expect(uv_timer_init(&loop_, &handle) == 0 &&
                   uv_timer_start(&handle, expired, at > now ? at - now : 0, 0) == 0,
               "uv_timer_start");
    }
    void drop_timers() override {
        for (uv_timer_t& timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_NOWAIT);
        timers_.clear();
    }
    void make_and_cancel_timer(unsigned long ms) override {
        uv_update_time(&loop_);
        expect(uv_timer_start(&spare_, expired, ms, 0) == 0 && uv_timer_stop(&spare_) == 0, "uv_timer_start");
    }
    void turn() override { uv_run(&loop_, UV_RUN_ONCE); }

private:
    static LibuvLoop& of(void* data) { return *static_cast<LibuvLoop*>(data); }
    static void readable(uv_poll_t* handle, int, int) {
        int fd = -1;
        uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &fd);
        take_byte(fd);
        ++of(handle->data).served;
    }
    static void arrived(uv_signal_t* handle, int) { ++of(handle->data).served; }
    static void slice(uv_idle_t* handle) { ++of(handle->data).served; }
    static void expired(uv_timer_t* handle) { of(handle->data).expire(); }

    uv_loop_t loop_;
    uv_timer_t spare_;
    uv_signal_t signal_;
    uv_async_t wake_;
    std::deque<uv_poll_t> polls_; // handles may not move
    std::deque<uv_idle_t> tasks_;
    std::deque<uv_timer_t> timers_;
};

Entered const entered("libuv", uv_version_string(), make<LibuvLoop>);

} // namespace

} // namespace bench
