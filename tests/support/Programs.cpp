// SPDX-License-Identifier: MIT
#include "Programs.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace programs {

int scale() {
    char const* const text = std::getenv("ZEL_TEST_SCALE");
    return text && std::atoi(text) > 0 ? std::atoi(text) : 1;
}

long milliseconds() {
    using namespace std::chrono;
    return static_cast<long>(
        duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch()).count());
}

bool wait_until(std::function<bool()> const& condition, int limitMs, std::function<void()> const& meanwhile) {
    long const end = milliseconds() + static_cast<long>(limitMs) * scale();
    while (!condition()) {
        if (milliseconds() > end)
            return false;
        if (meanwhile)
            meanwhile();
        else
            ::poll(nullptr, 0, 1);
    }
    return true;
}

// ---- Program

Program::Program(Words const& command, std::map<std::string, std::string> const& environment,
                 int standardInput, uid_t user) {
    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
        std::abort();
    std::vector<char*> words;
    for (std::string const& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        for (auto const& item : environment)
            ::setenv(item.first.c_str(), item.second.c_str(), 1);
        if (standardInput != -1)
            ::dup2(standardInput, 0);
        if (user != 0 && ::setuid(user) != 0)
            ::_exit(126);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    output_ = out[0];
    errors_ = err[0];
}

Program::~Program() {
    if (alive()) {
        ::kill(pid_, SIGKILL);
        end();
    }
    ::close(output_);
    ::close(errors_);
}

bool Program::fill(std::string& buffer, int& fd, int limitMs) {
    pollfd entry = {fd, POLLIN, 0};
    int ready;
    while ((ready = ::poll(&entry, 1, limitMs * scale())) < 0 && errno == EINTR) {
    }
    char bytes[65536];
    ssize_t const got = ready > 0 ? ::read(fd, bytes, sizeof bytes) : 0;
    if (got > 0)
        buffer.append(bytes, static_cast<std::size_t>(got));
    return got > 0;
}

std::string Program::line(int limitMs) {
    std::string::size_type at;
    while ((at = unread_.find('\n')) == std::string::npos)
        if (!fill(unread_, output_, limitMs))
            return "";
    std::string const found = unread_.substr(0, at);
    unread_.erase(0, at + 1);
    return found;
}

std::string Program::rest() {
    while (fill(unread_, output_, 20000)) {
    }
    std::string all;
    all.swap(unread_);
    return all;
}

std::string Program::errors() {
    std::string all;
    while (fill(all, errors_, 20000)) {
    }
    return all;
}

std::string Program::error_line(int limitMs) {
    std::string text;
    while (text.find('\n') == std::string::npos && fill(text, errors_, limitMs)) {
    }
    return text;
}

bool Program::alive() {
    int status = 0;
    if (status_.empty() && ::waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                    : "signal " + std::to_string(WTERMSIG(status));
    return status_.empty();
}

std::string Program::end(int limitMs) {
    return wait_until([this] { return !alive(); }, limitMs) ? status_ : "hung";
}

void Program::signal(int signo) {
    ::kill(pid_, signo);
}

void Program::stop() {
    signal(SIGSTOP);
    int status = 0;
    ::waitpid(pid_, &status, WUNTRACED);
}

bool Program::sleeping() {
    return wait_until([this] {
        std::string const stat = text_of("/proc/" + std::to_string(pid_) + "/stat");
        std::string::size_type const name_end = stat.rfind(") ");
        return name_end != std::string::npos && stat[name_end + 2] == 'S';
    });
}

// ---- /proc

std::string text_of(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

namespace {

Words names_in(std::string const& directory) {
    Words names;
    std::unique_ptr<DIR, int (*)(DIR*)> const dir(::opendir(directory.c_str()), ::closedir);
    while (dirent const* const entry = dir ? ::readdir(dir.get()) : nullptr)
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    return names;
}

} // namespace

std::size_t entries_of(std::string const& directory) {
    return names_in(directory).size();
}

Words threads_of(pid_t pid, std::string const& name) {
    std::string const directory = "/proc/" + std::to_string(pid) + "/task";
    Words found;
    for (std::string const& tid : names_in(directory))
        if (text_of(directory + '/' + tid + "/comm") == name + '\n')
            found.push_back(directory + '/' + tid);
    return found;
}

std::size_t threads_named(pid_t pid, std::string const& name) {
    return threads_of(pid, name).size();
}

long cpu_milliseconds(pid_t pid) {
    std::string const stat = text_of("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return (user + system) * 1000 / ::sysconf(_SC_CLK_TCK);
}

std::size_t listening_queues(pid_t pid) {
    std::ifstream sockets("/proc/net/unix");
    std::string const name = "cmd." + std::to_string(pid);
    std::size_t count = 0;
    for (std::string line; std::getline(sockets, line);) {
        bool const ours =
            line.size() > name.size() && line.compare(line.size() - name.size(), name.size(), name) == 0;
        // The flags say that it listens; connections of it carry its name as well.
        if (ours && line.find(" 00010000 ") != std::string::npos)
            ++count;
    }
    return count;
}

unsigned long long mask_of(std::string const& status, std::string const& key) {
    std::string::size_type const at = status.find(key + ":");
    return at == std::string::npos ? 0 : std::strtoull(status.c_str() + at + key.size() + 1, nullptr, 16);
}

} // namespace programs
