// SPDX-License-Identifier: MIT
//
// Reading files, links and the list of threads in /proc.
#include "procFile.hpp"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

namespace {

std::string const root = "/proc/self/";

} // namespace

std::string read_proc(std::string const& path) {
    std::string text;
    int const fd = open((root + path).c_str(), O_RDONLY | O_CLOEXEC);
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
    if (!link_in_proc("exe").empty())
        return path;
    return "task/" + std::to_string(syscall(SYS_gettid)) + '/' + path;
}

std::string link_in_proc(std::string const& path) {
    char target[PATH_MAX];
    ssize_t const length = readlink((root + path).c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

std::vector<int> thread_ids() {
    std::vector<int> ids;
    boost::shared_ptr<DIR> const tasks(opendir((root + "task").c_str()), [](DIR* opened) {
        if (opened)
            closedir(opened);
    });
    while (dirent const* const entry = tasks ? readdir(tasks.get()) : nullptr) {
        int const tid = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (tid > 0)
            ids.push_back(tid);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::vector<std::string> stat_fields(std::string const& path) {
    std::vector<std::string> fields;
    std::string const text = read_proc(path);
    std::string::size_type const name_end = text.rfind(')');
    if (name_end != std::string::npos && name_end + 2 < text.size())
        split(text.substr(name_end + 2), " ", fields);
    return fields;
}

} // namespace orn::zel::detail
