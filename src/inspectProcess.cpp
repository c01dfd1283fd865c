// SPDX-License-Identifier: MIT
//
// What "inspect process" and "inspect threads" tell: what holds of the process as a whole, and its threads
// with what the library knows of each. What only the kernel knows is read from /proc.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <vector>

#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <orn/clock.hpp>

#include "cmd.hpp"
#include "fork.hpp"
#include "inspect.hpp"
#include "load.hpp"
#include "observer.hpp"
#include "procFile.hpp"
#include "threadRegistry.hpp"
#include "trace.hpp"
#include "zelcmds.hpp"

namespace orn::zel::detail {

namespace {

// The files that are mapped, by the address behind their last byte. Asking the dynamic linker would wait for
// a library whose constructor is under way.
class Mappings {
public:
    Mappings() {
        std::vector<std::string> lines;
        split(read_proc(shared_in_proc("maps")), "\n", lines);
        for (std::string const& line : lines) {
            std::string::size_type const path = line.find('/');
            if (path != std::string::npos)
                add(line, line.substr(path));
        }
    }

    // Empty when nothing is mapped there.
    std::string file_at(void const* address) const {
        std::uintptr_t const wanted = reinterpret_cast<std::uintptr_t>(address);
        auto const it = files_.upper_bound(wanted);
        return it != files_.end() && it->second.begin <= wanted ? it->second.path : std::string();
    }

private:
    struct File {
        std::uintptr_t begin;
        std::string path;
    };

    void add(std::string const& line, std::string const& path) {
        char* next = nullptr;
        std::uintptr_t const begin = std::strtoul(line.c_str(), &next, 16);
        if (*next == '-')
            files_[std::strtoul(next + 1, nullptr, 16)] = File{begin, path};
    }

    std::map<std::uintptr_t, File> files_;
};

// When the process was started, in nanoseconds after the machine was.
unsigned long long start_ns() {
    std::size_t const start_time = 19; // of the fields from the third one on
    std::vector<std::string> const fields = stat_fields("stat");
    if (fields.size() <= start_time)
        return 0;
    unsigned long long const ticks = std::strtoull(fields[start_time].c_str(), nullptr, 10);
    return ticks * (1000000000ULL / static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)));
}

bool little_endian() {
    std::uint16_t const one = 1;
    return *reinterpret_cast<unsigned char const*>(&one) == 1;
}

void list_modules(Json& object, char const* origin, std::vector<std::string> const& names) {
    for (std::string const& name : names)
        object.open().field("name", name).field("by", origin).close();
}

void list_words(Json& object) {
    Mappings const mappings;
    object.open_list("words");
    for (auto const& word : cmd::words_and_registrars())
        object.open().field("word", word.first).field("library", mappings.file_at(word.second)).close();
    object.close_list();
}

void list_observers(Json& object) {
    struct {
        char const* word;
        Observer const& observer;
    } const observers[] = {{"poll", poll_observer},
                           {"thread", thread_observer},
                           {"task", task_observer},
                           {"alarm", alarm_observer}};
    object.open_list("observers");
    for (auto const& each : observers) {
        int const fd = each.observer.fd();
        if (fd == -1)
            continue;
        object.open().field("monitor", each.word).field("fd", fd);
        int const client = cmd::client_at(fd);
        if (client != 0)
            object.field("client", client);
        object.close();
    }
    if (Trace const* const trace = Trace::current())
        trace->list(object);
    object.close_list();
}

std::string without_newline(std::string text) {
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

} // namespace

void tell_process(Answer& answer) {
    utsname machine = {};
    uname(&machine);
    Json& object = answer.begin();
    object.field("pid", process_id()).field("name", without_newline(read_proc("comm")));
    object.field("program", link_in_proc(shared_in_proc("exe")))
        .field("start_ns", start_ns())
        .field("now_ns", internal::now_ns());
    object.field("version", ZEL_VERSION).field("machine", machine.machine);
    object.field("byte_order", little_endian() ? "little" : "big").field("width", sizeof(void*) * 8);
    object.open_list("modules");
    list_modules(object, "ZEL_PRELOAD", preloaded_modules());
    list_modules(object, "zel load", zelcmds::loaded_modules());
    object.close_list();
    list_words(object);
    list_observers(object);
    answer.end();
}

void tell_threads(Answer& answer) {
    std::map<int, thread::Registry::Entry> known;
    for (thread::Registry::Entry const& entry : thread::Registry::entries())
        known[entry.tid] = entry;
    for (int const tid : thread_ids()) {
        std::string const path = "task/" + std::to_string(tid);
        std::vector<std::string> const fields = stat_fields(path + "/stat");
        if (fields.empty())
            continue; // it has ended
        Json& object = answer.begin();
        object.field("tid", tid).field("name", without_newline(read_proc(path + "/comm")));
        object.field("state", fields[0]);
        auto const it = known.find(tid);
        if (it != known.end() && it->second.group)
            object.field("group", it->second.group->id().value());
        if (it != known.end() && it->second.fd_manager)
            object.field("fd_manager", it->second.fd_manager->id().value());
        answer.end();
    }
}

} // namespace orn::zel::detail
