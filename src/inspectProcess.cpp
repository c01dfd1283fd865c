// SPDX-License-Identifier: MIT
//
// What "inspect process" and "inspect threads" tell: what holds of the process as a whole, and its threads
// with what the library knows of each. What only the kernel knows is read from /proc.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
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

// The file that is mapped at the address, by the lines of "maps". Empty when there is none. Asking the
// dynamic linker would wait for a library whose constructor is under way.
std::string file_at(void const* address, std::string const& maps) {
    std::uintptr_t const wanted = reinterpret_cast<std::uintptr_t>(address);
    for (char const* line = maps.c_str(); *line != '\0';) {
        char* next = nullptr;
        std::uintptr_t const begin = std::strtoul(line, &next, 16);
        std::uintptr_t const end = *next == '-' ? std::strtoul(next + 1, &next, 16) : begin;
        char const* const line_end = next + std::strcspn(next, "\n");
        if (begin <= wanted && wanted < end)
            return std::string(std::find<char const*>(next, line_end, '/'), line_end);
        line = *line_end == '\n' ? line_end + 1 : line_end;
    }
    return std::string();
}

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
    std::string const maps = read_proc(shared_in_proc("maps").c_str());
    object.open_list("words");
    for (auto const& word : cmd::words_and_registrars())
        object.open().field("word", word.first).field("library", file_at(word.second, maps)).close();
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

} // namespace

void tell_process(Answer& answer) {
    utsname machine = {};
    uname(&machine);
    Json& object = answer.begin();
    object.field("pid", process_id()).field("name", line_in_proc("comm"));
    object.field("program", link_in_proc(shared_in_proc("exe").c_str()))
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
    // Both in ascending order.
    std::vector<thread::Registry::Entry> const entries = thread::Registry::entries();
    auto known = entries.begin();
    for (int const tid : thread_ids()) {
        std::string const path = "task/" + std::to_string(tid);
        std::vector<std::string> const fields = stat_fields((path + "/stat").c_str());
        if (fields.empty())
            continue; // it has ended
        Json& object = answer.begin();
        object.field("tid", tid).field("name", line_in_proc((path + "/comm").c_str()));
        object.field("state", fields[0]);
        while (known != entries.end() && known->tid < tid)
            ++known;
        bool const is_known = known != entries.end() && known->tid == tid;
        if (is_known && known->group)
            object.field("group", known->group->id().value());
        if (is_known && known->fd_manager)
            object.field("fd_manager", known->fd_manager->id().value());
        answer.end();
    }
}

} // namespace orn::zel::detail
