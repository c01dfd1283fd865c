// SPDX-License-Identifier: MIT
//
// The built-in word "inspect": tells programs, in lines of JSON, what the library knows of its process. For
// people and older clients there are the listings of the word "zel".
#include "inspect.hpp"

#include <algorithm>
#include <climits>
#include <utility>

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
    // A single line may be longer than what a pipe takes whole.
    bool const fits = lines_.size() <= PIPE_BUF || lines_.size() <= cmd::room(fd_);
    if (!fits || cmd::Write(fd_, lines_) != static_cast<ssize_t>(lines_.size()))
        lost_ += objects_ - written_;
    written_ = objects_;
    lines_.clear();
}

void Answer::finish() {
    write_lines();
    object_.open().field("inspect", what_).field("end", true);
    object_.field("objects", objects_).field("lost", lost_).close().end_line();
    cmd::Write(fd_, object_.take());
}

void zel_inspect_load() {
    cmd::Register("inspect", inspect);
}

void zel_inspect_unload() {
    cmd::Unregister("inspect");
}

} // namespace orn::zel::detail
