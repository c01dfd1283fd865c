// SPDX-License-Identifier: MIT
//
// What the word "inspect" answers with, and who tells what. Internal. Each subsystem tells of its own things
// in its own source, the word itself is in inspect.cpp.
//
// Whoever tells of something may be looking into a process whose loops are all stuck in handlers. So it takes
// no lock that a handler may hold, and waits for no loop.
#ifndef ZEL_SRC_INSPECT_HPP
#define ZEL_SRC_INSPECT_HPP

#include <cstddef>
#include <cstdint>
#include <string>

#include "json.hpp"

namespace orn::zel::detail {

// Lines of one JSON object each. They go out some at a time, in pieces that a pipe takes whole or not at all,
// so that neither a large answer nor a full pipe cuts a line or costs memory. A client of the command channel
// whose pipe is full gets some time to read. Hold no lock while you add to an answer.
class Answer {
public:
    // To a question: what is asked for, what comes behind it, and where the answer goes.
    Answer(std::string const& what, std::string const& arguments, int fd)
        : what_(what), arguments_(arguments), fd_(fd) {}

    std::string const& arguments() const { return arguments_; }
    int fd() const { return fd_; }

    // The next object, which begins with the word that was asked for. Close it with end().
    Json& begin();
    void end();

    // After the last object: says how many there were, and how many the descriptor had no room for.
    void finish();

private:
    void write_lines();
    bool write(std::string const& text);
    bool wait_for_room();

    std::string what_;
    std::string arguments_;
    int fd_;
    Json object_;
    std::string lines_; // that have not been written yet
    std::size_t objects_ = 0;
    std::size_t written_ = 0; // objects whose lines are out
    std::size_t lost_ = 0;
    std::uint64_t waited_ns_ = 0; // for room, so far
};

// For the command thread, between two lines. It has the priority of the loop that has opened the channel. At
// a real-time one nothing else lets that loop run on the same processor until a long answer is over.
void give_way();

void zel_inspect_load();
void zel_inspect_unload();

void tell_process(Answer& answer);
void tell_threads(Answer& answer);
void tell_timing(Answer& answer);
void tell_trace(Answer& answer);

// A task's, since somebody wishes for times; 0 when nobody does, or when it has had none since. On the
// command thread, 0 on any other.
std::uint64_t longest_slice_ns(std::uint32_t task);

} // namespace orn::zel::detail

namespace orn::zel::fd {

void tell_fds(detail::Answer& answer);

} // namespace orn::zel::fd

namespace orn::zel::alarm {

void tell_alarms(detail::Answer& answer);

} // namespace orn::zel::alarm

namespace orn::zel::signal {

void tell_signals(detail::Answer& answer);

} // namespace orn::zel::signal

namespace orn::zel::task {

void tell_tasks(detail::Answer& answer);

} // namespace orn::zel::task

namespace orn::zel::thread {

void tell_groups(detail::Answer& answer);

} // namespace orn::zel::thread

#endif
