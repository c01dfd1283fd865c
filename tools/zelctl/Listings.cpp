// SPDX-License-Identifier: MIT
//
// The listings of the word zel, read as objects. What they do not tell, the process's own /proc does.
#include "Views.hpp"

#include <algorithm>
#include <cstdlib>
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

// none stands for a number that is not there.
Json id_after(std::string const& line, std::string const& key) {
    std::optional<long> const id = number_after(line, key);
    return id ? Json(*id) : Json();
}

// "thread: 13339 group=5 fdMgr=1"
bool read_thread(std::string const& line, std::string const& proc, std::vector<Json>& objects) {
    std::optional<long> const tid = number_after(line, "thread: ");
    if (!tid)
        return false;
    std::string const thread = proc + "/task/" + std::to_string(*tid);
    objects.push_back({{"tid", *tid},
                       {"name", first_line(thread + "/comm")},
                       {"group", id_after(line, " group=")},
                       {"fd_manager", id_after(line, " fdMgr=")},
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
    objects.reserve(groups.size());
    for (auto const& item : groups)
        objects.push_back(item.second);
    std::stable_sort(objects.begin(), objects.end(),
                     [](Json const& one, Json const& other) { return one["group"] < other["group"]; });
    return objects;
}

// "[1] thread=18666 group=5 fds={ 0 3 7 }": an object for each descriptor.
bool read_fds(std::string const& line, std::string const& proc, std::vector<Json>& objects) {
    std::string const opening = " fds={";
    std::string::size_type const list = line.find(opening);
    if (list == std::string::npos)
        return false;
    std::istringstream numbers(line.substr(list + opening.size()));
    for (int fd = 0; numbers >> fd;) {
        std::error_code error;
        std::string const path =
            std::filesystem::read_symlink(proc + "/fd/" + std::to_string(fd), error).string();
        objects.push_back({{"fd", fd},
                           {"path", path},
                           {"thread", id_after(line, " thread=")},
                           {"group", id_after(line, " group=")},
                           {"manager", id_after(line, "[")}});
    }
    return true;
}

} // namespace

std::optional<long> number_after(std::string const& line, std::string const& key) {
    std::string::size_type const at = line.find(key);
    char const* const begin = line.c_str() + (at == std::string::npos ? line.size() : at + key.size());
    char* end = nullptr;
    long const number = std::strtol(begin, &end, 10);
    return end == begin ? std::optional<long>() : number;
}

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
