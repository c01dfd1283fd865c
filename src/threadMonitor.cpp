// SPDX-License-Identifier: MIT
//
// What can be observed of threads and their loops: the two monitors, the extended log and the listing.
#include "threadMonitor.hpp"

#include <atomic>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <orn/log.h>
#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "fixedLine.hpp"
#include "inspect.hpp"
#include "loopRecord.hpp"
#include "observer.hpp"
#include "plainText.hpp"
#include "threadRegistry.hpp"

namespace orn::zel::thread {

namespace {

std::atomic<bool> extended_logging(false);

[[gnu::cold]] void list_pollset(detail::PlainText& text, pollfd const* fds, unsigned long nfds,
                                short pollfd::*bits) {
    for (unsigned long i = 0; i < nfds; ++i)
        text << fds[i].fd << '/' << fds[i].*bits << ' ';
    text << '}';
}

} // namespace

// ---- Reports of the loop --------------------------------------------------------------------------------

[[gnu::cold]] void log_pollset(char const* label, pollfd const* fds, unsigned long nfds) {
    if (!extended_logging)
        return;
    detail::PlainText text;
    text << "(group=" << GroupId() << ") fd/events/revents={ ";
    for (unsigned long i = 0; i < nfds; ++i)
        text << fds[i].fd << '/' << fds[i].events << '/' << fds[i].revents << ' ';
    text << '}';
    Log_SpecEntry(logSpecForceInfo, "src/threadGroup", detail::line_of_poll_set, "%s %s\n", label,
                  text.str().c_str());
}

bool reports_polls() {
    return extended_logging || !detail::poll_observer.is(-1);
}

[[gnu::cold]] void report_poll_in(pollfd const* fds, unsigned long nfds, int timeoutMs) {
    log_pollset("zel_poll IN", fds, nfds);
    detail::poll_observer.report([&](detail::PlainText& line) {
        line << "poll in  group=" << GroupId() << " timeout=" << timeoutMs << " fd/event={ ";
        list_pollset(line, fds, nfds, &pollfd::events);
    });
}

[[gnu::cold]] void report_poll_out(pollfd const* fds, unsigned long nfds, int status) {
    int const error = errno;
    detail::poll_observer.report([&](detail::PlainText& line) {
        line << "poll out group=" << GroupId() << " status=" << status << " fd/revent={ ";
        list_pollset(line, fds, nfds, &pollfd::revents);
    });
    log_pollset("zel_poll OUT", fds, nfds);
    errno = error;
}

[[gnu::cold]] void report_left(int fd, int tid) {
    detail::poll_observer.report([&](detail::PlainText& line) {
        line << "fd=" << fd << " from tid=" << tid << ": fdMgr no longer in group";
    });
}

void display_dispatch(pollfd& pfd) {
    detail::poll_observer.report(
        [&](detail::PlainText& line) { line << "dispatching fd=" << pfd.fd << " revents=" << pfd.revents; });
}

int zel_poll(pollfd* fds, unsigned long nfds, int timeoutMs) {
    report_poll_in(fds, nfds, timeoutMs);
    int const status = poll(fds, nfds, timeoutMs);
    report_poll_out(fds, nfds, status);
    return status;
}

// ---- Reports of threads, and the listing ----------------------------------------------------------------

[[gnu::cold]] void display_thread_op(std::string const& op) {
    detail::thread_observer.report([&](detail::PlainText& line) { line << "thread " << op; });
}

namespace {

// Where nobody has the runner's role, a callback is that of a call from outside of the loop.
[[gnu::cold]] void tell_loop(detail::Json& object, detail::LoopRecord::Look const& look, bool runs) {
    bool const called = look.doing != detail::Doing::nothing;
    object.field("turns", look.turns).field("dispatches", look.dispatches);
    object.field("rebuilds", look.rebuilds).field("descriptors", look.descriptors);
    if (look.turn_began_ns != 0)
        object.field("turn_began_ns", look.turn_began_ns);
    else
        object.null("turn_began_ns");
    object.field("state", look.sleeping ? "sleeping" : called ? "callback" : runs ? "turning" : "idle");
    if (called) {
        object.open("in").field("kind", name_of(look.doing)).field("id", look.id);
        object.field("since_ns", look.since_ns).close();
    }
}

} // namespace

[[gnu::cold]] void ListThreads(std::string const&, int) {
    detail::PlainText text;
    text << "Threads:\n";
    for (Registry::Entry const& entry : Registry::entries()) {
        text << "thread: " << entry.tid << " group=";
        if (entry.group)
            text << entry.group->id();
        else
            text << "none";
        text << " fdMgr=";
        if (entry.fd_manager)
            text << entry.fd_manager->id();
        else
            text << "none";
        text << '\n';
    }
    detail::poll_observer.write(text.str());
}

[[gnu::cold]] void tell_groups(detail::Answer& answer) {
    std::vector<Registry::Entry> const entries = Registry::living();
    std::map<id_t, Group const*> groups; // which the entries keep alive
    for (Registry::Entry const& entry : entries) {
        if (entry.group)
            groups[entry.group->id().value()] = entry.group.get();
    }
    for (auto const& item : groups) {
        Group const& group = *item.second;
        int const runner = group.runner_.load(std::memory_order_relaxed);
        detail::Json& object = answer.begin();
        object.field("group", item.first).field("creator", group.creator_).open_list("members");
        for (Registry::Entry const& entry : entries) {
            if (entry.group.get() == &group)
                object.item(entry.tid);
        }
        object.close_list().field("runner", runner);
        object.field("depth", runner == 0 ? 0 : group.runner_depth_.load(std::memory_order_relaxed));
        tell_loop(object, group.record()->look(), runner != 0);
        answer.end();
    }
}

// ---- The switches ---------------------------------------------------------------------------------------

[[gnu::cold]] void MonitorThread(std::string const&, int fd) {
    detail::thread_observer.watch(fd);
}

[[gnu::cold]] void UnmonitorThread(std::string const&, int) {
    detail::thread_observer.unwatch();
}

[[gnu::cold]] void MonitorPoll(std::string const&, int fd) {
    detail::poll_observer.watch(fd);
}

[[gnu::cold]] void UnmonitorPoll(std::string const&, int) {
    detail::poll_observer.unwatch();
}

[[gnu::cold]] void enableExtendedLogging() {
    extended_logging = true;
}

} // namespace orn::zel::thread
