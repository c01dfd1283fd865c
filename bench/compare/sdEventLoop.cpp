// SPDX-License-Identifier: MIT
//
// sd-event for the comparison. A turn of it dispatches one source. Work for every turn is a deferred source
// that stays on. Other threads wake it through a pipe.
#include <signal.h>
#include <sys/epoll.h>

#include <systemd/sd-event.h>

#include "loop.hpp"

namespace bench {

namespace {

class SdEventLoop : public Loop {
public:
    SdEventLoop() : loop_(nullptr) { expect(sd_event_new(&loop_) >= 0, "sd_event_new"); }
    ~SdEventLoop() override {
        unref_all(timers_);
        unref_all(sources_);
        sd_event_unref(loop_);
    }

    void watch(int fd) override {
        sd_event_source* source = nullptr;
        expect(sd_event_add_io(loop_, &source, fd, EPOLLIN, readable, this) >= 0, "sd_event_add_io");
        sources_.push_back(source);
    }
    // The signal has to be blocked in all threads: it comes through a signalfd.
    void watch_signal(int signo) override {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signo);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        sd_event_source* source = nullptr;
        expect(sd_event_add_signal(loop_, &source, signo, arrived, this) >= 0, "sd_event_add_signal");
        sources_.push_back(source);
    }
    void add_task() override {
        sd_event_source* source = nullptr;
        expect(sd_event_add_defer(loop_, &source, slice, this) >= 0 &&
                   sd_event_source_set_enabled(source, SD_EVENT_ON) >= 0,
               "sd_event_add_defer");
        sources_.push_back(source);
    }
    void hold_timer(Clock::time_point due) override { timers_.push_back(new_timer(due)); }
    void drop_timers() override { unref_all(timers_); }
    void make_and_cancel_timer(unsigned long ms) override {
        sd_event_source_unref(new_timer(Clock::now() + std::chrono::milliseconds(ms)));
    }
    void turn() override { sd_event_run(loop_, UINT64_MAX); }

private:
    // An accuracy of a microsecond: by default, a timer may be a quarter of a second late.
    sd_event_source* new_timer(Clock::time_point due) {
        auto const at = std::chrono::ceil<std::chrono::microseconds>(due.time_since_epoch()).count();
        sd_event_source* source = nullptr;
        expect(sd_event_add_time(loop_, &source, CLOCK_MONOTONIC, static_cast<std::uint64_t>(at), 1, expired,
                                 this) >= 0,
               "sd_event_add_time");
        return source;
    }
    static void unref_all(std::vector<sd_event_source*>& sources) {
        for (sd_event_source* const source : sources)
            sd_event_source_unref(source);
        sources.clear();
    }

    static SdEventLoop& of(void* loop) { return *static_cast<SdEventLoop*>(loop); }
    static int readable(sd_event_source*, int fd, std::uint32_t, void* loop) {
        take_byte(fd);
        ++of(loop).served;
        return 0;
    }
    static int arrived(sd_event_source*, signalfd_siginfo const*, void* loop) {
        ++of(loop).served;
        return 0;
    }
    static int slice(sd_event_source*, void* loop) {
        ++of(loop).served;
        return 0;
    }
    static int expired(sd_event_source*, std::uint64_t, void* loop) {
        of(loop).expire();
        return 0;
    }

    sd_event* loop_;
    std::vector<sd_event_source*> sources_;
    std::vector<sd_event_source*> timers_;
};

Entered const entered("sd-event", SD_EVENT_VERSION, make<SdEventLoop>);

} // namespace

} // namespace bench
