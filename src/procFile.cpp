// SPDX-License-Identifier: MIT
//
// Reading files, links and the list of threads in /proc.
#include "procFile.hpp"

#include <climits>
#include <cstdlib>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

namespace {

std::string in_proc(char const* path) {
    return std::string("/proc/self/") + path;
}

} // namespace

std::string read_proc(char const* path) {
    std::string text;
    int const fd = open(in_proc(path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return text;
    char block[4096];
    ssize_t got;
    while ((got = read(fd, block, sizeof block)) > 0)
        text.append(block, static_cast<std::size_t>(got));
    close(fd);
    return text;
}

std::string shared_in_proc(std::string const& path) {
    if (!link_in_proc("cwd").empty())
        return path;
    return "task/" + std::to_string(syscall(SYS_gettid)) + '/' + path;
}

std::string line_in_proc(char const* path) {
    std::string text = read_proc(path);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

std::string link_in_proc(char const* path) {
    char target[PATH_MAX];
    ssize_t const length = readlink(in_proc(path).c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

std::set<int> thread_ids() {
    std::set<int> ids;
    struct Closed {
        void operator()(DIR* opened) const { closedir(opened); }
    };
    std::unique_ptr<DIR, Closed> const tasks(opendir(in_proc("task").c_str()));
    while (dirent const* const entry = tasks ? readdir(tasks.get()) : nullptr) {
        int const tid = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (tid > 0)
            ids.insert(tid);
    }
    return ids;
}

std::vector<std::string> stat_fields(char const* path) {
    std::vector<std::string> fields;
    std::string const text = read_proc(path);
    std::string::size_type const name_end = text.rfind(')');
    if (name_end != std::string::npos && name_end + 2 < text.size())
        split(text.substr(name_end + 2), " ", fields);
    return fields;
}

} // namespace orn::zel::detail
