// SPDX-License-Identifier: MIT
//
// What the station listens to besides its clients: the machine that it runs on, and standard input. Internal
// to the station.
#ifndef STATION_SOURCES_HPP
#define STATION_SOURCES_HPP

#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

#include <orn/zel.hpp>

#include "lines.hpp"

namespace station {

// Samples the load and the memory of the machine, again and again.
class Sampler {
public:
    void start(unsigned long period_ms) {
        alarm_.emplace(period_ms, period_ms, [this] { sample(); });
    }

    unsigned long samples() const { return samples_; }
    unsigned long failures() const { return failures_; }
    std::string text() const {
        std::ostringstream text;
        text << "processor " << busy_ << "% busy, " << available_kb_ / 1024 << " MiB of memory available";
        return text.str();
    }

private:
    void sample() {
        ++samples_;
        if (!read_stat() || !read_meminfo())
            ++failures_;
    }

    // The first line holds the ticks spent in each mode. The fourth and the fifth are idle.
    bool read_stat() {
        std::ifstream stat("/proc/stat");
        std::string word;
        if (!(stat >> word) || word != "cpu")
            return false;
        unsigned long total = 0, idle = 0, ticks = 0;
        for (int mode = 0; mode < 8 && stat >> ticks; ++mode) {
            total += ticks;
            idle += mode == 3 || mode == 4 ? ticks : 0;
        }
        if (total > total_) // the counters have a tick's resolution
            busy_ = 100 - 100 * (idle - idle_) / (total - total_);
        total_ = total;
        idle_ = idle;
        return total > 0;
    }

    bool read_meminfo() {
        std::ifstream meminfo("/proc/meminfo");
        for (std::string word; meminfo >> word;
             meminfo.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
            if (word == "MemAvailable:")
                return static_cast<bool>(meminfo >> available_kb_);
        }
        return false;
    }

    unsigned long samples_ = 0, failures_ = 0;
    unsigned long total_ = 0, idle_ = 0, busy_ = 0, available_kb_ = 0;
    std::optional<orn::zel::Alarm> alarm_;
};

// The lines of a descriptor that the program was started with: a pipe, a file or a terminal.
class Input {
public:
    Input(int fd, boost::function<void(std::string const&)> on_line)
        : on_line_(on_line),
          receptor_(std::in_place, fd, [this](orn::zel::fd::Event* event) { read_from(event->fd()); }) {}

    unsigned long lines() const { return lines_; }

private:
    // Reads once for each event, since the descriptor may block. It stays as it is: O_NONBLOCK would hold for
    // every process at the same terminal.
    void read_from(int fd) {
        char buffer[4096];
        ssize_t const got = read(fd, buffer, sizeof buffer);
        if (try_again(got))
            return;
        if (got > 0)
            buffer_.append(buffer, static_cast<std::size_t>(got));
        for (std::string line; buffer_.take(line);)
            deliver(line);
        if (got > 0)
            return;
        // poll() calls a file at its end readable for ever, so the loop would spin. This handler itself lives
        // on until it returns.
        receptor_.reset();
        if (!buffer_.rest().empty())
            deliver(buffer_.rest());
    }

    void deliver(std::string const& line) {
        ++lines_;
        on_line_(line);
    }

    boost::function<void(std::string const&)> const on_line_;
    LineBuffer buffer_;
    unsigned long lines_ = 0;
    std::optional<orn::zel::fd::AutoReceptor> receptor_;
};

} // namespace station

#endif
