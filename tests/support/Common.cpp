// SPDX-License-Identifier: MIT
//
// What all tests share; see Common.hpp. Uses the system and GoogleTest only.
#include "Common.hpp"

#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <dirent.h>
#include <malloc.h>

namespace support {

// ---- Waiting --------------------------------------------------------------------------------------------

int number_from(char const* variable, int otherwise) {
    char const* const text = std::getenv(variable);
    return text && std::atoi(text) > 0 ? std::atoi(text) : otherwise;
}

int scale() {
    return number_from("ZEL_TEST_SCALE", 1);
}

long milliseconds() {
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

bool wait_until(std::function<bool()> const& condition, int limit_ms,
                std::function<void()> const& meanwhile) {
    long const end = milliseconds() + static_cast<long>(limit_ms) * scale();
    while (!condition()) {
        if (milliseconds() > end)
            return false;
        if (meanwhile)
            meanwhile();
        else
            poll(nullptr, 0, 1);
    }
    return true;
}

bool is_ready(int fd, short events, int limit_ms) {
    pollfd entry = {fd, events, 0};
    return wait_until([&] { return poll(&entry, 1, 0) == 1; }, limit_ms);
}

void Count::up() {
    std::lock_guard<std::mutex> const guard(mutex_);
    ++value_;
    changed_.notify_all();
}

std::size_t Count::value() {
    std::lock_guard<std::mutex> const guard(mutex_);
    return value_;
}

bool Count::reaches(std::size_t value) {
    // ThreadSanitizer does not know waiting on the steady clock.
    auto const end = std::chrono::system_clock::now() + std::chrono::seconds(20) * scale();
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_until(lock, end, [&] { return value_ >= value; });
}

// ---- Files and descriptors ------------------------------------------------------------------------------

std::string text_of(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void put(int fd, std::string const& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
}

std::string take(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(got));
    return all;
}

TempFile::TempFile() : path_("/tmp/zel_test_XXXXXX") {
    close(mkstemp(&path_[0]));
}

TempFile::~TempFile() {
    unlink(path_.c_str());
}

// ---- Processes ------------------------------------------------------------------------------------------

namespace {

std::string task_file(pid_t pid, int tid, char const* name) {
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + '/' + name;
}

std::set<int> numbers_in(std::string const& directory) {
    std::set<int> found;
    std::unique_ptr<DIR, int (*)(DIR*)> const dir(opendir(directory.c_str()), closedir);
    while (dirent const* const entry = dir ? readdir(dir.get()) : nullptr) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) &&
            !(directory == "/proc/self/fd" && std::atoi(entry->d_name) == dirfd(dir.get())))
            found.insert(std::atoi(entry->d_name));
    }
    return found;
}

std::size_t other_threads() {
    std::size_t count = 0;
    for (auto const& thread : threads()) {
        if (thread.first != getpid() &&
            (!is_sanitized || thread.second == "zel-command" || thread.second == "orn-timer"))
            ++count;
    }
    return count;
}

} // namespace

std::set<int> descriptors(pid_t pid) {
    return numbers_in(pid == getpid() ? "/proc/self/fd" : "/proc/" + std::to_string(pid) + "/fd");
}

bool is_timer_clock(int fd) {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none) ==
           "anon_inode:[timerfd]";
}

std::map<int, std::string> threads(pid_t pid) {
    std::map<int, std::string> all;
    for (int const tid : numbers_in("/proc/" + std::to_string(pid) + "/task")) {
        std::string const name = text_of(task_file(pid, tid, "comm"));
        if (!name.empty()) // else it has ended meanwhile
            all[tid] = name.substr(0, name.size() - 1);
    }
    return all;
}

bool is_asleep(int tid) {
    return text_of(task_file(getpid(), tid, "stat")).find(") S ") != std::string::npos;
}

Footprint::Footprint()
    : descriptors(support::descriptors().size()), threads(0), mappings(0), ours(0),
      bytes(static_cast<double>(mallinfo2().uordblks)) {
    wait_until([this] { return (threads = other_threads()) == 0; }, 1000);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line); ++mappings) {
        if (line.find("libzel") != std::string::npos || line.find("_module") != std::string::npos)
            ++ours;
    }
}

std::string end_of(pid_t child, int limit_ms) {
    int status = 0;
    if (!wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }, limit_ms)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return "hung";
    }
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

std::string in_child(std::function<int()> const& body, int limit_ms) {
    pid_t const child = fork();
    if (child == 0)
        _exit(body());
    return end_of(child, limit_ms);
}

} // namespace support
