// SPDX-License-Identifier: MIT
//
// A record of what loops did, and the file of Chrome trace events that viewers open. Internal to the tool.
#ifndef ZELCTL_TRACE_FILE_HPP
#define ZELCTL_TRACE_FILE_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Live.hpp"

namespace zelctl {

struct Span {
    enum Kind : std::uint8_t { turn, sleep, fd, alarm, signal, task, kinds };

    std::uint64_t begin_ns;
    std::uint64_t end_ns;
    std::uint64_t late_ns; // what is served had arrived so long before the beginning; 0: not known
    std::uint32_t id;
    int tid;
    std::uint32_t group;
    Kind kind;
    bool unfinished;
};

char const* name_of(Span::Kind kind);

struct Recording {
    // Spans that there was no room for before the thread went on.
    struct Loss {
        std::uint64_t at_ns;
        int tid;
        std::uint64_t count;
    };

    // Whatever the process writes. Lines of a trace are kept, others are not. Of a process that was traced
    // already, spans come that began before, even long before.
    void take(std::string const& line);
    // What a loop is in, which the process records when it ends. From the objects of "groups".
    void add_unfinished(std::vector<Json> const& groups, std::uint64_t now);
    std::uint64_t lost() const;
    std::size_t count(Span::Kind kind) const;

    std::uint64_t const from_ns = now_ns();
    std::vector<Span> spans; // a thread's in the order of their ends, which differs from that of the file
    std::vector<Loss> losses;
    std::size_t most = 1000000;
    bool full = false;
};

// A file that appears under its name when it is whole: it is written beside and renamed. What is no regular
// file, such as /dev/null or a pipe, is written in place. Members throw Failure when that fails.
class WholeFile {
public:
    explicit WholeFile(std::string const& path);
    ~WholeFile();
    WholeFile(WholeFile const&) = delete;
    WholeFile& operator=(WholeFile const&) = delete;

    std::FILE* stream() const { return stream_; }
    void finish();

private:
    [[noreturn]] void fail() const;

    std::string path_;
    std::string temporary_; // "" when it is written in place
    std::FILE* stream_ = nullptr;
};

// Turns, dispatches and callbacks nest on the track of their thread. Each task has a track with its states.
// Alarms and signals are instants on tracks of their own, at the time when they were due and came, with an
// arrow to the handler. Events are in the order of their times.
void write_trace(std::FILE* file, Recording& recording, Names const& names, int pid,
                 std::string const& process);

} // namespace zelctl

#endif
