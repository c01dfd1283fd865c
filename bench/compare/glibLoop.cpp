// SPDX-License-Identifier: MIT
//
// GLib's main context for the comparison. It waits with poll. Work for every turn is an idle source.
#include <glib-unix.h>
#include <glib.h>

#include "loop.hpp"

namespace bench {

namespace {

class GlibLoop : public Loop {
public:
    GlibLoop() : context_(g_main_context_new()) {}
    ~GlibLoop() override {
        destroy_all(timers_);
        destroy_all(sources_);
        g_main_context_unref(context_);
    }

    void watch(int fd) override {
        sources_.push_back(attach(g_unix_fd_source_new(fd, G_IO_IN), G_SOURCE_FUNC(readable)));
    }
    void watch_signal(int signo) override {
        sources_.push_back(attach(g_unix_signal_source_new(signo), called));
    }
    void allow_wakes() override {}
    void wake() override { g_main_context_wakeup(context_); }
    void add_task() override { sources_.push_back(attach(g_idle_source_new(), called)); }
    void hold_timer(Clock::time_point due) override {
        GSource* const source = g_timeout_source_new(0);
        auto const at = std::chrono::ceil<std::chrono::microseconds>(due.time_since_epoch()).count();
        g_source_set_ready_time(source, static_cast<gint64>(at));
        timers_.push_back(attach(source, expired));
    }
    void drop_timers() override { destroy_all(timers_); }
    void make_and_cancel_timer(unsigned long ms) override {
        destroy(attach(g_timeout_source_new(static_cast<guint>(ms)), expired));
    }
    void turn() override { g_main_context_iteration(context_, TRUE); }

private:
    GSource* attach(GSource* source, GSourceFunc function) {
        g_source_set_callback(source, function, this, nullptr);
        g_source_attach(source, context_);
        return source;
    }
    static void destroy(GSource* source) {
        g_source_destroy(source);
        g_source_unref(source);
    }
    static void destroy_all(std::vector<GSource*>& sources) {
        for (GSource* const source : sources)
            destroy(source);
        sources.clear();
    }

    static GlibLoop& of(void* loop) { return *static_cast<GlibLoop*>(loop); }
    static gboolean readable(gint fd, GIOCondition, gpointer loop) {
        take_byte(fd);
        ++of(loop).served;
        return G_SOURCE_CONTINUE;
    }
    static gboolean called(gpointer loop) {
        ++of(loop).served;
        return G_SOURCE_CONTINUE;
    }
    static gboolean expired(gpointer loop) {
        of(loop).expire();
        return G_SOURCE_REMOVE;
    }

    GMainContext* const context_;
    std::vector<GSource*> sources_;
    std::vector<GSource*> timers_;
};

Entered const entered("GLib",
                      std::to_string(glib_major_version) + '.' + std::to_string(glib_minor_version) + '.' +
                          std::to_string(glib_micro_version),
                      make<GlibLoop>);

} // namespace

} // namespace bench
