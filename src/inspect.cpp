// SPDX-License-Identifier: MIT
//
// The built-in word "inspect": tells programs, in lines of JSON, what the library knows of its process. For
// people and older clients there are the listings of the word "zel".
#include "inspect.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include <poll.h>
#include <sched.h>

#include <orn/clock.hpp>
#include <orn/zel/cmd.hpp>

#include "cmd.hpp"

namespace orn::zel::detail {

namespace {

struct Thing {
    char const* name;
    void (*tell)(Answer&);
};

Thing const things[] = {{"process", tell_process},
                        {"groups", thread::tell_groups},
                        {"threads", tell_threads},
                        {"fds", fd::tell_fds},
                        {"alarms", alarm::tell_alarms},
                        {"tasks", task::tell_tasks},
                        {"signals", signal::tell_signals},
                        {"trace", tell_trace},
                        {"timing", tell_timing}};

void refuse(Answer& answer) {
    Json& object = answer.begin();
    object.field("error", "no such thing to inspect").open_list("known");
    for (Thing const& thing : things)
        object.item(thing.name);
    object.close_list();
    answer.end();
}

void inspect(std::string const& args, int fd) {
    std::pair<std::string, std::string> const words = cmd::GetFirstWord(args);
    // Longer than all that there is, and short enough to be said again in each line.
    std::string const what = words.first.substr(0, 64);
    Answer answer(what, words.second, fd);
    Thing const* const end = std::end(things);
    Thing const* const thing =
        std::find_if(things, end, [&](Thing const& candidate) { return what == candidate.name; });
    if (thing == end)
        refuse(answer);
    else
        thing->tell(answer);
    answer.finish();
}

} // namespace

Json& Answer::begin() {
    return object_.open().field("inspect", what_);
}

void Answer::end() {
    // Room is left in the last page of the pipe for the line that tells what was lost.
    std::size_t const longest_end = 512;
    object_.close().end_line();
    std::string const line = object_.take();
    if (lines_.size() + line.size() > PIPE_BUF - longest_end)
        write_lines();
    lines_ += line;
    ++objects_;
}

void Answer::write_lines() {
    if (lines_.empty())
        return;
    if (!write(lines_))
        lost_ += objects_ - written_;
    written_ = objects_;
    lines_.clear();
    give_way();
}

bool Answer::write(std::string const& text) {
    // A single line may be longer than what a pipe takes whole. One free page, which is what can be waited
    // for, is not enough for it.
    if (text.size() > PIPE_BUF && text.size() > cmd::room(fd_))
        return false;
    ssize_t written;
    do
        written = cmd::Write(fd_, text);
    while (written == -1 && errno == EAGAIN && wait_for_room());
    return written == static_cast<ssize_t>(text.size());
}

// A large answer fills the pipe before a client gets to read that has to wait for a processor, above all
// where there is only one. No loop waits for this thread, and no lock is held here. The clients that come
// next and the traces of others do wait. So a client that does not read gets a fifth of a second, and one
// that reads slowly a second for each answer. Any other thread may be a loop's, and a descriptor that is no
// client's may be anything.
//
// Half of the pipe is to be free: if each page were taken at once, busy processes would come between this
// thread and the client again and again.
bool Answer::wait_for_room() {
    std::uint64_t const longest_pause_ns = 200000000;
    std::uint64_t const longest_ns = internal::ns_per_second;
    if (waited_ns_ >= longest_ns || cmd::client_at(fd_) == 0)
        return false;
    std::uint64_t const begin = internal::now_ns();
    std::uint64_t waited_ns = 0;
    do {
        pollfd entry = {fd_, 0, 0};
        if (cmd::stopping() || poll(&entry, 1, 1) != 0) // an error: nobody reads it any more
            return false;
        waited_ns = internal::now_ns() - begin;
    } while (!cmd::has_room(fd_) && waited_ns < longest_pause_ns && waited_ns_ + waited_ns < longest_ns);
    pollfd entry = {fd_, POLLOUT, 0};
    bool const reads = poll(&entry, 1, 0) > 0;
    waited_ns_ = reads ? waited_ns_ + waited_ns : longest_ns;
    return reads;
}

void Answer::finish() {
    write_lines();
    object_.open().field("inspect", what_).field("end", true);
    object_.field("objects", objects_).field("lost", lost_).close().end_line();
    write(object_.take());
}

void give_way() {
    int const policy = sched_getscheduler(0);
    if (policy == SCHED_FIFO || policy == SCHED_RR)
        sched_yield();
}

void zel_inspect_load() {
    cmd::Register("inspect", inspect);
}

void zel_inspect_unload() {
    cmd::Unregister("inspect");
}

} // namespace orn::zel::detail
