// SPDX-License-Identifier: MIT
#include "Support.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <dirent.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <orn/zel.hpp>

namespace support {

std::string text_of(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

namespace {

std::set<int> numbers_in(char const* directory) {
    std::set<int> found;
    DIR* const dir = ::opendir(directory);
    while (dirent const* const entry = ::readdir(dir))
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])))
            found.insert(std::atoi(entry->d_name));
    found.erase(std::string(directory) == "/proc/self/fd" ? ::dirfd(dir) : -1);
    ::closedir(dir);
    return found;
}

std::map<int, struct sigaction> dispositions() {
    std::map<int, struct sigaction> all;
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction action = {};
        if (::sigaction(signo, nullptr, &action) == 0)
            all[signo] = action;
    }
    return all;
}

} // namespace

int scale() {
    char const* const text = std::getenv("ZEL_TEST_SCALE");
    return text && std::atoi(text) > 0 ? std::atoi(text) : 1;
}

bool wait_until(std::function<bool()> const& condition, int limitMs) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs) * scale();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::poll(nullptr, 0, 1);
    }
    return true;
}

bool run_until(std::function<bool()> const& condition, int limitMs) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs) * scale();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        orn::zel::RunOnce(20);
    }
    return true;
}

std::set<int> descriptors() {
    return numbers_in("/proc/self/fd");
}

std::set<int> threads() {
    std::set<int> all = numbers_in("/proc/self/task");
    for (auto it = all.begin(); it != all.end();) {
        std::string const name = text_of("/proc/self/task/" + std::to_string(*it) + "/comm");
        // An empty name: it has ended meanwhile.
        it = name.empty() || name == "orn-timer\n" ? all.erase(it) : std::next(it);
    }
    return all;
}

namespace {

bool sleeping(int tid) {
    std::string const stat = text_of("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string::size_type const name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat[name_end + 2] == 'S';
}

} // namespace

bool waits(int tid) {
    // Twice, so that a short sleep on a lock on the way does not count.
    return wait_until([tid] {
        bool const before = sleeping(tid);
        ::poll(nullptr, 0, 2);
        return before && sleeping(tid);
    });
}

void put(int fd, std::string const& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(fd, text.data(), text.size()));
}

std::string take(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(got));
    return all;
}

std::string without_tid(std::string const& lines, int tid) {
    std::istringstream in(lines);
    std::string const prefix = "tid=" + std::to_string(tid) + " ";
    std::string all;
    for (std::string line; std::getline(in, line);) {
        EXPECT_EQ(prefix, line.substr(0, prefix.size()));
        all += line.substr(std::min(prefix.size(), line.size()));
        if (!in.eof())
            all += '\n';
    }
    return all;
}

// ---- Thread

Thread::Thread(std::function<void()> body) : body_(std::move(body)) {
    if (o_pthread_create(&handle_, nullptr, start, this) != 0)
        std::abort();
    while (tid_ == 0)
        ::poll(nullptr, 0, 1);
}

void* Thread::start(void* self) {
    Thread& thread = *static_cast<Thread*>(self);
    struct Ended {
        std::atomic<bool>& flag;
        ~Ended() { flag = true; }
    } const ended{thread.ended_};
    thread.tid_ = o_pthread_self();
    thread.body_();
    return nullptr;
}

bool Thread::join() {
    if (!joined_) {
        void* result = nullptr;
        o_pthread_join(handle_, &result);
        joined_ = true;
        cancelled_ = result == PTHREAD_CANCELED;
    }
    return cancelled_;
}

// ---- Processes

int wait_for(pid_t child, int limitMs) {
    int status = -1;
    if (!wait_until([&] { return ::waitpid(child, &status, WNOHANG) == child; }, limitMs)) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    return status;
}

int in_child(std::function<int()> const& body, int limitMs) {
    pid_t const child = ::fork();
    if (child == 0)
        ::_exit(body());
    return wait_for(child, limitMs);
}

std::string describe(int status) {
    if (WIFEXITED(status))
        return "exit " + std::to_string(WEXITSTATUS(status));
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : "status";
}

// ---- Loop

Loop::Loop() {
    std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first one
    descriptors_ = descriptors();
    threads_ = threads();
    dispositions_ = dispositions();
    orn::zel::thread::zel_thread_load();
    orn::zel::signal::zel_signal_load();
    orn::zel::alarm::zel_alarm_load();
}

void Loop::settle() {
    for (int turn = 0; turn < 5 && orn::zel::RunOnce(0) > 0; ++turn) {
    }
}

void Loop::settle_all() {
    while (orn::zel::RunOnce(0) > 0) {
    }
}

Loop::~Loop() {
    orn::zel::thread::UnmonitorThread("", -1); // else the lines go to whatever has the number next
    orn::zel::thread::UnmonitorPoll("", -1);
    orn::zel::alarm::zel_alarm_unload();
    orn::zel::signal::zel_signal_unload();
    orn::zel::thread::zel_thread_unload();
    orn::zel::signal::release_managers();
    EXPECT_EQ(descriptors_, descriptors());
    // A thread that has been joined may be listed for a moment longer: after the test, and before it, too.
    EXPECT_TRUE(wait_until([this] {
        std::set<int> const left = threads();
        return std::includes(threads_.begin(), threads_.end(), left.begin(), left.end());
    })) << threads().size()
        << " threads";
    for (auto const& item : dispositions()) {
        EXPECT_EQ(dispositions_[item.first].sa_handler, item.second.sa_handler) << "signal " << item.first;
        unsigned const by_the_system = 0x04000000; // SA_RESTORER
        EXPECT_EQ(static_cast<unsigned>(dispositions_[item.first].sa_flags) & ~by_the_system,
                  static_cast<unsigned>(item.second.sa_flags) & ~by_the_system)
            << "signal " << item.first;
    }
}

} // namespace support
