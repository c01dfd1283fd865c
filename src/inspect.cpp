// SPDX-License-Identifier: MIT
//
// The built-in word "inspect": tells programs, in lines of JSON, what the library knows of its process. For
// people and older clients there are the listings of the word "zel".
#include "inspect.hpp"

#include <algorithm>
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
    std::string const& what = words.first;
    Answer answer(what, words.second, fd);
    Thing const* const end = std::end(things);
    Thing const* const thing =
        std::find_if(things, end, [&](Thing const& candidate) { return what == candidate.name; });
    if (thing == end)
        refuse(answer);
    else
        thing->tell(answer);
    answer.write();
}

} // namespace

Json& Answer::begin() {
    return lines_.open().field("inspect", what_);
}

void Answer::end() {
    lines_.close().end_line();
    ++objects_;
}

void Answer::write() {
    std::string text = lines_.text();
    std::size_t const end_line = 64 + what_.size() * 6; // more than the last line needs, escapes included
    std::size_t const room = cmd::room(fd_);
    std::size_t lost = 0;
    if (text.size() + end_line > room) {
        std::size_t const most = room > end_line ? room - end_line : 0;
        std::size_t const cut = most > 0 ? text.rfind('\n', most - 1) : std::string::npos;
        std::size_t const kept = cut == std::string::npos ? 0 : cut + 1;
        lost = static_cast<std::size_t>(
            std::count(text.begin() + static_cast<std::ptrdiff_t>(kept), text.end(), '\n'));
        text.resize(kept);
    }
    Json last;
    last.open().field("inspect", what_).field("end", true).field("objects", objects_).field("lost", lost);
    last.close().end_line();
    cmd::Write(fd_, text + last.text());
}

void zel_inspect_load() {
    cmd::Register("inspect", inspect);
}

void zel_inspect_unload() {
    cmd::Unregister("inspect");
}

} // namespace orn::zel::detail
