// SPDX-License-Identifier: MIT
//
// What the station listens to besides its clients: the machine it runs on, standard input, and threads that
// do what would hold up the loop.
#ifndef STATION_SOURCES_HPP
#define STATION_SOURCES_HPP

#include <atomic>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

#include <poll.h>

#include <orn/os/Pipe.hpp>
#include <orn/os/Thread.hpp>
#include <orn/zel.hpp>

#include "lines.hpp"

namespace station {

// Looks at the load and the memory of the machine, again and again.
class Sampler {
public:
    void start(unsigned long periodMs) {
        alarm_.emplace(periodMs, periodMs, [this] { sample(); });
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

    // The first line: ticks spent in each mode, the fourth and the fifth of them idle.
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
             meminfo.ignore(std::numeric_limits<std::streamsize>::max(), '\n'))
            if (word == "MemAvailable:")
                return static_cast<bool>(meminfo >> available_kb_);
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
    // One read for each event: the descriptor may block, and a terminal's neighbours would block with it.
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
        // poll() calls a file at its end readable for ever, so whoever does not stop watching it spins. The
        // handler that runs, this one, stays until it returns.
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

// A thread that measures something slow every now and then. It is a member of its creator's group: what it
// registers is served by the group's one loop, so the results arrive on the thread that runs the loop.
class Prober {
public:
    Prober(unsigned long (*probe)(), int periodMs)
        : probe_(probe), periodMs_(periodMs), results_(true), orders_(true), thread_([this] { run(); }) {}

    // Without finish() before, results may stay unread.
    ~Prober() {
        order('q');
        order('q');
    }

    // Two steps, with turns of the loop between them until drained(): no more probes; and all have arrived.
    void finish() { order('f'); }
    bool drained() const { return drained_; }

    unsigned long latest() const { return latest_; }
    unsigned long sent() const { return sent_; }
    unsigned long received() const { return received_; }

private:
    static unsigned long const last = std::numeric_limits<unsigned long>::max();

    void order(char c) {
        if (write(orders_.WriteFD(), &c, 1) != 1)
            std::terminate(); // a pipe of our own that takes four bytes in all
    }

    // On the thread itself, where the receptor is made and destroyed.
    void run() {
        orn::zel::fd::AutoReceptor const results(results_.ReadFD(),
                                                 [this](orn::zel::fd::Event*) { receive(); });
        pollfd orders = {orders_.ReadFD(), POLLIN, 0};
        do {
            unsigned long const result = probe_();
            ++sent_;
            report(result);
        } while (poll(&orders, 1, periodMs_) <= 0);
        report(last);
        char two[2]; // the order that ended the probing, and the one to go
        for (std::size_t got = 0; got < sizeof two;) {
            ssize_t const n = read(orders_.ReadFD(), two, sizeof two - got);
            got += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
    }

    // One write, and so whole; it blocks while the loop is behind by a pipe's worth.
    void report(unsigned long result) {
        while (write(results_.WriteFD(), &result, sizeof result) == -1 && errno == EINTR) {
        }
    }

    // On the thread that runs the loop.
    void receive() {
        unsigned long result = 0;
        if (read(results_.ReadFD(), &result, sizeof result) != sizeof result)
            return;
        if (result == last) {
            drained_ = true;
            return;
        }
        ++received_;
        latest_ = result;
    }

    unsigned long (*const probe_)();
    int const periodMs_;
    std::atomic<unsigned long> sent_{0};
    unsigned long received_ = 0, latest_ = 0;
    bool drained_ = false;
    orn::os::Pipe results_, orders_;
    orn::os::Thread const thread_; // last: joined first
};

} // namespace station

#endif
