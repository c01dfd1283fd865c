// SPDX-License-Identifier: MIT
//
// The listings of the word zel, read as objects. What they do not tell, the process's own /proc does.
#include "Views.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace zelctl {

namespace {

std::string first_line(std::string const& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// The letter behind the name, which may hold anything.
std::string state_of(std::string const& thread) {
    std::string const line = first_line(thread + "/stat");
    std::string::size_type const end = line.rfind(')');
    return end == std::string::npos ? "" : line.substr(end + 2, 1);
}

// "thread: 13339 group=5 fdMgr=1", where none stands for a number that is not there.
bool read_thread(std::string const& line, std::string const& proc, std::vector<Json>& objects) {
    int tid = 0;
    char group[16] = "";
    char manager[16] = "";
    if (std::sscanf(line.c_str(), "thread: %d group=%15s fdMgr=%15s", &tid, group, manager) != 3)
        return false;
    auto const id = [](std::string const& text) {
        return text == "none" ? Json() : Json(std::atol(text.c_str()));
    };
    std::string const thread = proc + "/task/" + std::to_string(tid);
    objects.push_back({{"tid", tid},
                       {"name", first_line(thread + "/comm")},
                       {"group", id(group)},
                       {"fd_manager", id(manager)},
                       {"state", state_of(thread)}});
    return true;
}

std::vector<Json> groups_of(std::vector<Json> const& threads) {
    std::map<std::string, Json> groups; // by id, in which none comes as null
    for (Json const& thread : threads) {
        Json& group = groups[json_line(thread["group"])];
        group["group"] = thread["group"];
        group["members"].push_back(thread["tid"]);
    }
    std::vector<Json> objects;
    for (auto const& item : groups)
        objects.push_back(item.second);
    std::stable_sort(objects.begin(), objects.end(),
                     [](Json const& one, Json const& other) { return one["group"] < other["group"]; });
    return objects;
}

// "[1] thread=18666 group=5 fds={ 0 3 7 }": an object for each descriptor.
bool read_fds(std::string const& line, std::string const& proc, std::vector<Json>& objects) {
    long manager = 0;
    long thread = 0;
    long group = 0;
    int end = 0;
    if (std::sscanf(line.c_str(), "[%ld] thread=%ld group=%ld fds={%n", &manager, &thread, &group, &end) !=
            3 ||
        end == 0)
        return false;
    std::istringstream numbers(line.substr(static_cast<std::size_t>(end)));
    for (int fd = 0; numbers >> fd;) {
        std::error_code error;
        std::string const path =
            std::filesystem::read_symlink(proc + "/fd/" + std::to_string(fd), error).string();
        objects.push_back(
            {{"fd", fd}, {"path", path}, {"thread", thread}, {"group", group}, {"manager", manager}});
    }
    return true;
}

} // namespace

std::vector<Json> objects_of_listing(std::string const& what, std::vector<std::string> const& lines,
                                     std::string const& proc) {
    std::vector<Json> objects;
    for (std::string const& line : lines) {
        bool const read = what == "fds"                           ? read_fds(line, proc, objects)
                          : what == "threads" || what == "groups" ? read_thread(line, proc, objects)
                                                                  : false;
        bool const headline = !line.empty() && line.back() == ':';
        if (!read && !headline)
            objects.push_back({{"line", line}});
    }
    return what == "groups" ? groups_of(objects) : objects;
}

} // namespace zelctl
