// SPDX-License-Identifier: MIT
//
// Reading the lines of a trace, and writing the events.
#include "TraceFile.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Failure.hpp"
#include "Output.hpp"

namespace zelctl {

char const* name_of(Span::Kind kind) {
    static char const* const names[] = {"turn", "sleep", "fd", "alarm", "signal", "task"};
    return names[kind];
}

// ---- Recording ------------------------------------------------------------------------------------------

namespace {

Span::Kind kind_of(Json const& name) {
    int kind = 0;
    while (kind < Span::kinds && name != name_of(static_cast<Span::Kind>(kind)))
        ++kind;
    return static_cast<Span::Kind>(kind);
}

// [begin, duration, kind, id, thread], and perhaps how long what is served had waited. What is none, or what
// a later library may add, has the kind Span::kinds.
Span span_of(Json const& event, std::uint64_t group) {
    Span span = {};
    span.kind = Span::kinds;
    bool const known = event.is_array() && event.size() >= 5 && event[0].is_number_unsigned() &&
                       event[1].is_number_unsigned() && event[3].is_number_unsigned() &&
                       event[4].is_number_unsigned();
    if (!known)
        return span;
    span.begin_ns = event[0].get<std::uint64_t>();
    span.end_ns = span.begin_ns + event[1].get<std::uint64_t>();
    if (event.size() > 5 && event[5].is_number_unsigned())
        span.late_ns = std::min(event[5].get<std::uint64_t>(), span.begin_ns);
    span.id = event[3].get<std::uint32_t>();
    span.tid = event[4].get<int>();
    span.group = static_cast<std::uint32_t>(group);
    span.kind = kind_of(event[2]);
    return span;
}

} // namespace

void Recording::take(std::string const& line) {
    Json const object = object_in(line);
    if (text_in(object, "inspect") != "trace" || object.contains("end"))
        return;
    std::size_t const before = spans.size();
    auto const events = object.find("events");
    for (Json const& event : events == object.end() ? Json::array() : *events) {
        Span const span = span_of(event, number_in(object, "group"));
        if (span.begin_ns < from_ns)
            continue;
        full = full || spans.size() >= most;
        if (span.kind != Span::kinds && !full)
            spans.push_back(span);
    }
    std::uint64_t const missing = number_in(object, "lost");
    if (missing == 0)
        return;
    bool const goes_on = spans.size() > before;
    Span const last = spans.empty() ? Span() : spans.back();
    losses.push_back({goes_on         ? spans[before].begin_ns
                      : last.tid != 0 ? last.end_ns
                                      : now_ns(),
                      goes_on ? spans[before].tid : last.tid, missing});
}

// A callback that was just running, as one of a busy loop always is, is not worth telling.
std::uint64_t const least_unfinished_ns = 10000000;

void Recording::add_unfinished(std::vector<Json> const& groups, std::uint64_t now) {
    for (Json const& group : groups) {
        auto const in = group.find("in");
        int const runner = static_cast<int>(number_in(group, "runner"));
        Span::Kind const kind =
            in == group.end() || !in->is_object() ? Span::kinds : kind_of(in->value("kind", Json()));
        if (kind == Span::kinds || runner == 0 || text_in(group, "state") != "callback")
            continue;
        // The time is exact to a tick of the kernel. All that the thread has ended, it ended before.
        std::uint64_t begin = number_in(*in, "since_ns");
        for (Span const& span : spans) {
            if (span.tid == runner)
                begin = std::max(begin, span.end_ns);
        }
        if (begin + least_unfinished_ns < now) {
            spans.push_back({begin, now, 0, static_cast<std::uint32_t>(number_in(*in, "id")), runner,
                             static_cast<std::uint32_t>(number_in(group, "group")), kind, true});
        }
    }
}

std::uint64_t Recording::lost() const {
    std::uint64_t sum = 0;
    for (Loss const& loss : losses)
        sum += loss.count;
    return sum;
}

std::size_t Recording::count(Span::Kind kind) const {
    return static_cast<std::size_t>(
        std::count_if(spans.begin(), spans.end(), [&](Span const& span) { return span.kind == kind; }));
}

// ---- The file -------------------------------------------------------------------------------------------

WholeFile::WholeFile(std::string const& path) : path_(path) {
    struct stat status = {};
    bool const there = stat(path.c_str(), &status) == 0;
    if (there && !S_ISREG(status.st_mode)) {
        stream_ = std::fopen(path.c_str(), "we");
        if (!stream_)
            fail();
        return;
    }
    // A link stays one: what it leads to is replaced.
    if (char* const real = there ? realpath(path.c_str(), nullptr) : nullptr) {
        path_ = real;
        std::free(real);
    }
    temporary_ = path_ + ".XXXXXX";
    int const fd = mkostemp(&temporary_[0], O_CLOEXEC);
    if (fd == -1) {
        temporary_.clear();
        fail();
    }
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(fd, there ? status.st_mode & 0777 : 0666 & ~mask);
    stream_ = fdopen(fd, "w");
    if (!stream_)
        fail();
}

WholeFile::~WholeFile() {
    if (stream_)
        std::fclose(stream_);
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

void WholeFile::fail() const {
    throw Failure(refused, printable(path_) + ": " + strerror(errno));
}

void WholeFile::finish() {
    bool const failed = std::ferror(stream_) != 0;
    std::FILE* const stream = stream_;
    stream_ = nullptr;
    if (std::fclose(stream) != 0 || failed)
        fail();
    if (!temporary_.empty() && std::rename(temporary_.c_str(), path_.c_str()) != 0)
        fail();
    temporary_.clear();
}

// ---- Events ---------------------------------------------------------------------------------------------

namespace {

// What follows from several spans, in the order of time as they are.
struct Mark {
    enum Kind { arrived, waited, lost };

    std::uint64_t at_ns;
    std::uint64_t end_ns;
    Kind kind;
    std::size_t index; // of the span or of the loss
};

class Writer {
public:
    Writer(std::FILE* file, Recording& recording, Names const& names, int pid)
        : file_(file), recording_(recording), spans_(recording.spans), names_(names), pid_(pid) {}

    void write(std::string const& process);

private:
    // Processes and threads of the viewer that no process of the machine can be: ids end at 2 to the 22nd.
    long tasks() const { return pid_ + 4194304l; }
    long arrivals() const { return pid_ + 2 * 4194304l; }

    void sort();
    void find_marks();
    void head(std::string const& process);
    void name(long pid, long tid, char const* what, std::string const& text);
    void begin(char phase, std::string const& name, char const* category, long pid, long tid,
               std::uint64_t at);
    void time(char const* key, std::uint64_t ns);
    void end() { std::fputc('}', file_); }
    void write_span(std::size_t index);
    void write_mark(Mark const& mark);
    std::string title(Span const& span) const;

    std::FILE* const file_;
    Recording& recording_;
    std::vector<Span>& spans_;
    Names const& names_;
    long const pid_;
    std::uint64_t start_ns_ = 0;
    std::vector<Mark> marks_;
    bool first_ = true;
};

// The outer one first. Of two that look alike, the outer one has ended last, and so has come last.
void Writer::sort() {
    std::reverse(spans_.begin(), spans_.end());
    std::stable_sort(spans_.begin(), spans_.end(), [](Span const& one, Span const& other) {
        return one.begin_ns != other.begin_ns ? one.begin_ns < other.begin_ns : one.end_ns > other.end_ns;
    });
    start_ns_ = spans_.empty() ? 0 : spans_[0].begin_ns;
    for (Span const& span : spans_)
        start_ns_ = std::min(start_ns_, span.begin_ns - span.late_ns);
}

void Writer::find_marks() {
    std::map<int, std::vector<std::size_t>> stacks; // by thread
    std::map<std::uint32_t, std::uint64_t> ends;    // of the latest slice, by task
    for (std::size_t i = 0; i < spans_.size(); ++i) {
        Span const& span = spans_[i];
        std::vector<std::size_t>& stack = stacks[span.tid];
        while (!stack.empty() && spans_[stack.back()].end_ns <= span.begin_ns)
            stack.pop_back();
        if (span.kind == Span::alarm || span.kind == Span::signal) {
            // Where the process does not tell, it came before the dispatch in which the loop has read of it.
            bool const inside = span.late_ns == 0 && !stack.empty() && spans_[stack.back()].kind == Span::fd;
            std::uint64_t const came = inside ? spans_[stack.back()].begin_ns : span.begin_ns - span.late_ns;
            marks_.push_back({came, came, Mark::arrived, i});
        } else if (span.kind == Span::task) {
            auto const known = ends.find(span.id);
            if (known != ends.end() && known->second < span.begin_ns)
                marks_.push_back({known->second, span.begin_ns, Mark::waited, i});
            ends[span.id] = std::max(span.end_ns, known == ends.end() ? 0 : known->second);
        }
        stack.push_back(i);
    }
    for (std::size_t i = 0; i < recording_.losses.size(); ++i) {
        std::uint64_t const at = std::max(recording_.losses[i].at_ns, start_ns_);
        marks_.push_back({at, at, Mark::lost, i});
    }
    std::stable_sort(marks_.begin(), marks_.end(),
                     [](Mark const& one, Mark const& other) { return one.at_ns < other.at_ns; });
}

void Writer::name(long pid, long tid, char const* what, std::string const& text) {
    std::fprintf(file_, "%s\n{\"ph\":\"M\",\"name\":\"%s\",\"pid\":%ld,\"tid\":%ld,\"args\":{\"name\":%s}}",
                 first_ ? "" : ",", what, pid, tid, json_line(text).c_str());
    first_ = false;
}

void Writer::head(std::string const& process) {
    std::fprintf(
        file_,
        "{\"displayTimeUnit\":\"ns\",\n\"otherData\":{\"clock\":\"CLOCK_MONOTONIC\",\"start_ns\":%llu,"
        "\"pid\":%ld,\"lost\":%llu},\n\"traceEvents\":[",
        static_cast<unsigned long long>(start_ns_), pid_, static_cast<unsigned long long>(recording_.lost()));
    name(pid_, 0, "process_name", process);
    name(tasks(), 0, "process_name", "tasks of " + process);
    name(arrivals(), 0, "process_name", "alarms and signals of " + process);
    name(arrivals(), Span::alarm, "thread_name", "alarms");
    name(arrivals(), Span::signal, "thread_name", "signals");
    std::set<int> threads;
    std::set<std::uint32_t> tasks_named;
    for (Span const& span : spans_) {
        if (threads.insert(span.tid).second) {
            name(pid_, span.tid, "thread_name",
                 names_.name("thread", static_cast<std::uint64_t>(span.tid)) + " (group " +
                     std::to_string(span.group) + ')');
        }
        if (span.kind == Span::task && tasks_named.insert(span.id).second)
            name(tasks(), span.id, "thread_name", title(span));
    }
}

std::string Writer::title(Span const& span) const {
    if (span.kind == Span::turn || span.kind == Span::sleep)
        return name_of(span.kind);
    return names_.call(name_of(span.kind), span.id);
}

// Microseconds with three digits behind the point are nanoseconds. They begin with the recording, so that
// viewers that read them into a double lose nothing.
void Writer::time(char const* key, std::uint64_t ns) {
    std::fprintf(file_, ",\"%s\":%llu.%03u", key, static_cast<unsigned long long>(ns / 1000),
                 static_cast<unsigned>(ns % 1000));
}

void Writer::begin(char phase, std::string const& name, char const* category, long pid, long tid,
                   std::uint64_t at) {
    std::fprintf(file_, ",\n{\"ph\":\"%c\",\"name\":%s,\"cat\":\"%s\",\"pid\":%ld,\"tid\":%ld", phase,
                 json_line(name).c_str(), category, pid, tid);
    time("ts", at - start_ns_);
}

void Writer::write_span(std::size_t index) {
    Span const& span = spans_[index];
    std::string const text = title(span);
    begin('X', text, name_of(span.kind), pid_, span.tid, span.begin_ns);
    time("dur", span.end_ns - span.begin_ns);
    std::fprintf(file_, ",\"args\":{\"id\":%u,\"group\":%u%s}", span.id, span.group,
                 span.unfinished ? ",\"unfinished\":true" : "");
    end();
    if (span.kind == Span::alarm || span.kind == Span::signal) {
        begin('f', text, "arrival", pid_, span.tid, span.begin_ns);
        std::fprintf(file_, ",\"bp\":\"e\",\"id\":%zu", index + 1);
        end();
    } else if (span.kind == Span::task) {
        begin('X', "runs", "state", tasks(), span.id, span.begin_ns);
        time("dur", span.end_ns - span.begin_ns);
        end();
    }
}

void Writer::write_mark(Mark const& mark) {
    if (mark.kind == Mark::lost) {
        Recording::Loss const& loss = recording_.losses[mark.index];
        begin('i', std::to_string(loss.count) + " lost", "lost", pid_, loss.tid, mark.at_ns);
        std::fputs(",\"s\":\"t\"", file_);
        end();
        return;
    }
    Span const& span = spans_[mark.index];
    if (mark.kind == Mark::waited) {
        begin('X', "waits", "state", tasks(), span.id, mark.at_ns);
        time("dur", mark.end_ns - mark.at_ns);
        end();
        return;
    }
    std::string const text = title(span);
    begin('i', text, "arrival", arrivals(), span.kind, mark.at_ns);
    std::fputs(",\"s\":\"t\"", file_);
    end();
    begin('s', text, "arrival", arrivals(), span.kind, mark.at_ns);
    std::fprintf(file_, ",\"id\":%zu", mark.index + 1);
    end();
}

void Writer::write(std::string const& process) {
    sort();
    find_marks();
    head(process);
    auto mark = marks_.begin();
    for (std::size_t i = 0; i < spans_.size(); ++i) {
        for (; mark != marks_.end() && mark->at_ns <= spans_[i].begin_ns; ++mark)
            write_mark(*mark);
        write_span(i);
    }
    for (; mark != marks_.end(); ++mark)
        write_mark(*mark);
    std::fputs("\n]}\n", file_);
}

} // namespace

void write_trace(std::FILE* file, Recording& recording, Names const& names, int pid,
                 std::string const& process) {
    Writer(file, recording, names, pid).write(process);
}

} // namespace zelctl
