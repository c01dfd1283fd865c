// SPDX-License-Identifier: MIT
//
// The verb trace: records for a time, writes the file, sums up.
#include <algorithm>
#include <cstdio>
#include <exception>

#include <unistd.h>

#include "Output.hpp"
#include "Target.hpp"
#include "TraceFile.hpp"
#include "Verbs.hpp"
#include "Views.hpp"

namespace zelctl {

namespace {

std::vector<Json> groups(Session& session) {
    std::optional<View> const view = inspect(session, "groups");
    return view ? view->objects : std::vector<Json>();
}

// Records until it is enough or the process has ended. Names come before and after, since a trace holds none.
void record(Context& context, Recording& recording, Names& names) {
    Session& session = context.session;
    names.learn(session);
    bool over = false;
    Wish wish(session, "trace", [&](std::string const& line) { recording.take(line); });
    unsigned long const ms = static_cast<unsigned long>(context.options.duration * 1000);
    std::unique_ptr<orn::zel::Alarm> const end(ms > 0 ? new orn::zel::Alarm(ms, [&] { over = true; })
                                                      : nullptr);
    if (isatty(STDERR_FILENO) != 0 && ms == 0)
        std::fprintf(stderr, "zelctl: recording %s until Ctrl-C\n", session.target().name().c_str());
    try {
        while (!over && !recording.full && !session.ended())
            session.follow_turn();
    } catch (Interrupted const&) {
        session.drain(); // what the pipe holds is part of the record
        throw;
    }
    if (session.ended()) {
        session.drain();
        return;
    }
    wish.end();
    recording.add_unfinished(groups(session), now_ns());
    names.learn(session);
}

Json summary(Recording const& recording, std::string const& file) {
    std::uint64_t begin = ~std::uint64_t(0);
    std::uint64_t end = 0;
    for (Span const& span : recording.spans) {
        begin = std::min(begin, span.begin_ns);
        end = std::max(end, span.end_ns);
    }
    std::uint64_t const ms = end > begin ? (end - begin) / 1000000 : 0;
    Json object = {
        {"file", file}, {"seconds", static_cast<double>(ms) / 1000}, {"spans", recording.spans.size()}};
    object["lost"] = recording.lost();
    object["turns"] = recording.count(Span::turn);
    object["dispatches"] = recording.count(Span::fd);
    object["slices"] = recording.count(Span::task);
    object["alarms"] = recording.count(Span::alarm);
    object["signals"] = recording.count(Span::signal);
    return object;
}

} // namespace

// What has been recorded is written however the recording ends.
ExitStatus trace(Context& context, std::string const&, Words const& arguments) {
    Options const& options = context.options;
    Target const& target = context.session.target();
    if (!arguments.empty() || options.file.empty())
        throw Failure(misused, "trace takes a file: trace -o out.json --for 5s");
    WholeFile file(options.file); // before anything is recorded in vain
    Recording recording;
    Names names;
    if (options.limit > 0)
        recording.most = options.limit;
    std::exception_ptr interrupted;
    try {
        record(context, recording, names);
    } catch (Interrupted const&) {
        interrupted = std::current_exception();
    } catch (Failure const&) {
        if (recording.spans.empty())
            throw;
        interrupted = std::current_exception();
    }
    Json const object = summary(recording, options.file);
    write_trace(file.stream(), recording, names, target.pid(), target.process().name);
    file.finish();
    if (interrupted) { // the standard output may have gone
        std::fprintf(stderr, "zelctl: %s holds what came until then: %s spans, %s lost\n",
                     printable(options.file).c_str(), cell(object["spans"]).c_str(),
                     cell(object["lost"]).c_str());
        std::rethrow_exception(interrupted);
    }
    print_table(context.output, options, {object});
    if (context.session.ended()) {
        throw Failure(connection_lost, target.name() + " has ended; " + printable(options.file) +
                                           " holds what came until then");
    }
    return ok;
}

} // namespace zelctl
