// SPDX-License-Identifier: MIT
//
// Starting programs and looking into them; see Programs.hpp. Uses the system only.
#include "Programs.hpp"

namespace support {

Words joined(Words first, Words const& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

namespace {

// Waits for more of what the descriptor has, and appends it; false at the end or at the deadline.
bool fill(std::string& text, int fd, int limit_ms) {
    char bytes[65536];
    ssize_t const got = is_ready(fd, POLLIN, limit_ms) ? read(fd, bytes, sizeof bytes) : 0;
    if (got > 0)
        text.append(bytes, static_cast<std::size_t>(got));
    return got > 0;
}

std::string rest_of(std::string text, int fd) {
    while (fill(text, fd, 20000)) {
    }
    return text;
}

} // namespace

Program::Program(Words const& command, std::map<std::string, std::string> const& environment,
                 int standard_input, uid_t user) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        std::abort();
    std::vector<char*> words;
    for (std::string const& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        for (auto const& item : environment)
            setenv(item.first.c_str(), item.second.c_str(), 1);
        if (standard_input != -1)
            dup2(standard_input, 0);
        if (user != 0 && setuid(user) != 0)
            _exit(126);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(words[0], words.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    output_ = out[0];
    errors_ = err[0];
}

Program::~Program() {
    if (end_.empty()) {
        signal(SIGKILL);
        end();
    }
    close(output_);
    close(errors_);
}

std::string Program::line(int limit_ms) {
    std::string::size_type at;
    while ((at = unread_.find('\n')) == std::string::npos) {
        if (!fill(unread_, output_, limit_ms))
            return "";
    }
    std::string const found = unread_.substr(0, at);
    unread_.erase(0, at + 1);
    return found;
}

std::string Program::rest() {
    return rest_of(std::exchange(unread_, ""), output_);
}

std::string Program::errors() {
    return rest_of("", errors_);
}

std::string Program::error_line(int limit_ms) {
    std::string text;
    while (text.find('\n') == std::string::npos && fill(text, errors_, limit_ms)) {
    }
    return text;
}

std::string Program::end(int limit_ms) {
    return end_.empty() ? end_ = end_of(pid_, limit_ms) : end_;
}

bool Program::alive() const {
    siginfo_t ended = {};
    return end_.empty() && waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           !ended.si_pid;
}

void Program::signal(int signo) const {
    kill(pid_, signo);
}

void Program::stop() const {
    signal(SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

bool Program::sleeping() const {
    return wait_until([this] { return proc(pid_, "stat").find(") S ") != std::string::npos; });
}

// ---- /proc ----------------------------------------------------------------------------------------------

std::string proc(pid_t pid, std::string const& entry) {
    return text_of("/proc/" + std::to_string(pid) + '/' + entry);
}

std::size_t threads_named(pid_t pid, std::string const& name) {
    std::size_t count = 0;
    for (auto const& thread : threads(pid))
        count += thread.second == name;
    return count;
}

bool in_mask(std::string const& status, std::string const& key, int signo) {
    std::string::size_type const at = status.find(key + ":");
    return at != std::string::npos &&
           (std::strtoull(status.c_str() + at + key.size() + 1, nullptr, 16) >> (signo - 1) & 1) != 0;
}

} // namespace support
