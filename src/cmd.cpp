// SPDX-License-Identifier: MIT
//
// The words of commands: who has which one, and the echo that answers a word that nobody has. cmdServer.cpp
// brings commands here from other processes.
#include <orn/zel/cmd.hpp>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <orn/log.h>

#include "cmd.hpp"
#include "immortal.hpp"
#include "loaded.hpp"
#include "shared.hpp"

namespace orn::zel {
namespace cmd {

namespace {

struct Word {
    Handler handler;
    void const* registrar; // where in the code it was registered
};

using Words = std::map<std::string, Word>;

// The lock is a leaf and guards the map as well. It is never held while a handler runs or is destroyed.
detail::Loaded<Words>& words() {
    return detail::immortal<detail::Loaded<Words>, Words>();
}

void set_word(std::string const& word, Handler& handler, void const* registrar) {
    AutoLock const guard(words().lock);
    if (!words().state)
        return;
    Word& entry = (*words().state)[word];
    entry.handler.swap(handler); // the caller destroys the one before, with the lock released
    entry.registrar = registrar;
}

void echo(std::string const& command, int fd);

} // namespace

// ---- Words ----------------------------------------------------------------------------------------------

void load_words() {
    AutoLock const guard(words().lock);
    words().state = detail::make_shared<Words>();
}

boost::shared_ptr<void> unload_words() {
    return words().take_out();
}

void Register(std::string const& word, Handler handler) {
    set_word(word, handler, __builtin_return_address(0));
}

void Unregister(std::string const& word) {
    Words::node_type removed; // destroyed with the lock released
    AutoLock const guard(words().lock);
    if (words().state)
        removed = words().state->extract(word);
}

std::vector<std::pair<std::string, void const*>> words_and_registrars() {
    std::vector<std::pair<std::string, void const*>> all;
    AutoLock const guard(words().lock);
    if (words().state) {
        for (auto const& item : *words().state)
            all.emplace_back(item.first, item.second.registrar);
    }
    return all;
}

std::pair<std::string, std::string> GetFirstWord(std::string const& command) {
    std::string::size_type const blank = command.find(' ');
    if (blank == std::string::npos)
        return std::make_pair(command, std::string());
    std::string::size_type const rest = command.find_first_not_of(' ', blank);
    return std::make_pair(command.substr(0, blank),
                          rest == std::string::npos ? std::string() : command.substr(rest));
}

void ProcessCommand(std::string const& command, int resp_fd) {
    Log_SpecEntry(logSpecForceInfo, "src/cmd", __LINE__, "%s: cmd=\"%s\" resp_fd=%d", "ProcessCommand",
                  command.c_str(), resp_fd);
    std::pair<std::string, std::string> const split = GetFirstWord(command);
    Handler handler;
    {
        AutoLock const guard(words().lock);
        if (words().state) {
            auto const it = words().state->find(split.first);
            if (it != words().state->end())
                handler = it->second.handler;
        }
    }
    // No lock is held here: a handler may register words and load modules that do.
    if (handler)
        handler(split.second, resp_fd);
    else
        echo(command, resp_fd);
}

// ---- Room in a pipe -------------------------------------------------------------------------------------

// A pipe has its free room in whole pages, and begins a new one for a text that does not fit behind the one
// before. So up to half of the pages in use is lost, and the first and the last of them. Up to PIPE_BUF bytes
// are written whole or not at all.
std::size_t room(int fd) {
    int const size = fcntl(fd, F_GETPIPE_SZ);
    int used = 0;
    if (size <= 0 || ioctl(fd, FIONREAD, &used) != 0)
        return 65536; // fd is no pipe: assume what a pipe usually takes
    int const begun = 2 * static_cast<int>(sysconf(_SC_PAGESIZE));
    return static_cast<std::size_t>(std::max({size - 2 * used - begun, std::min(size - used, PIPE_BUF), 0}));
}

// By the same reckoning. The next line takes one page more.
bool has_room(int fd) {
    long const page = sysconf(_SC_PAGESIZE);
    long const pages = fcntl(fd, F_GETPIPE_SZ) / page;
    int used = 0;
    return ioctl(fd, FIONREAD, &used) == 0 && (used == 0 || 2 * used / page + 3 <= pages / 2);
}

// ---- The answer to a word that nobody has ---------------------------------------------------------------

namespace {

void echo(std::string const& command, int fd) {
    long lines = 1;
    if (!command.empty() && command[0] >= '0' && command[0] <= '9') {
        lines = std::min<long>(std::strtol(command.c_str(), nullptr, 10), INT_MAX);
        if (lines < 1)
            return;
    }
    // The pipe would lose what it has no room for, so a large number must cost neither memory nor time.
    std::size_t const most = room(fd);
    std::string const tail = '/' + std::to_string(lines) + ' ' + command + '\n';
    std::string text;
    for (long i = 1; i <= lines; ++i) {
        std::string const line = std::to_string(i) + tail;
        if (i > 1 && text.size() + line.size() > most)
            break;
        text += line;
    }
    Write(fd, text);
}

} // namespace

} // namespace cmd

void RegisterCommandModule(std::string const& word, cmd::Handler handler) {
    cmd::set_word(word, handler, __builtin_return_address(0));
}

void UnregisterCommandModule(std::string const& word) {
    cmd::Unregister(word);
}

} // namespace orn::zel
