// SPDX-License-Identifier: MIT
//
// Threads that do what would hold up the loop, and what the station has them measure. Internal to the
// station.
#ifndef STATION_PROBER_HPP
#define STATION_PROBER_HPP

#include <cerrno>
#include <exception>
#include <fstream>
#include <limits>
#include <optional>
#include <string>

#include <dirent.h>
#include <poll.h>
#include <unistd.h>

#include <orn/os/Pipe.hpp>
#include <orn/zel.hpp>

namespace station {

// How many processes there are: a walk through /proc.
inline unsigned long count_processes() {
    unsigned long count = 0;
    DIR* const proc = opendir("/proc");
    while (dirent const* const entry = proc ? readdir(proc) : nullptr)
        count += entry->d_name[0] >= '1' && entry->d_name[0] <= '9' ? 1 : 0;
    if (proc)
        closedir(proc);
    return count;
}

// How many TCP sockets there are: the kernel composes the table anew for each reader.
inline unsigned long count_sockets() {
    std::ifstream table("/proc/net/tcp");
    unsigned long count = 0;
    for (std::string line; std::getline(table, line);)
        ++count;
    return count > 0 ? count - 1 : 0; // a headline
}

// A thread that measures something slow every now and then. It is a member of its creator's group: what it
// registers is served by the group's one loop, so the results arrive on the thread that runs the loop.
class Prober final : private orn::zel::Runnable {
public:
    // When this returns, the thread is there and has registered itself.
    Prober(unsigned long (*probe)(), int period_ms)
        : probe_(probe), period_ms_(period_ms), results_(true), orders_(true), thread_(*this) {}

    // Results may stay unread unless stop() was called before and the loop has drained them.
    ~Prober() override {
        stop();
        if (!drained_)
            order('q');
        thread_.Join();
    }

    void start() { thread_.Start(); }

    // Ends the probing. The thread stays until the loop has read what it sent.
    void stop() {
        if (!thread_.isStopped())
            thread_.Stop();
    }
    bool drained() const { return drained_; }

    // Call it once drained. Returns how many probes the thread says that it has made.
    unsigned long join() {
        thread_.Join();
        return static_cast<unsigned long>(thread_.Status().value());
    }

    unsigned long latest() const { return latest_; }
    unsigned long received() const { return received_; }

private:
    static unsigned long const last = std::numeric_limits<unsigned long>::max();

    // The first phase runs in the new thread and registers the results' pipe for it.
    int Init() override {
        receptor_.emplace(results_.ReadFD(), [this](orn::zel::fd::Event*) { receive(); });
        return 0;
    }

    // The second phase, in the new thread as well.
    int Run() override {
        int sent = 0;
        pollfd orders = {orders_.ReadFD(), POLLIN, 0};
        do {
            report(probe_());
            ++sent;
        } while (poll(&orders, 1, period_ms_) <= 0);
        report(last);
        char two[2]; // the order that ended the probing, and the one to go
        for (std::size_t got = 0; got < sizeof two;) {
            ssize_t const n = read(orders_.ReadFD(), two, sizeof two - got);
            got += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
        receptor_.reset();
        return sent;
    }

    // Runs in the thread that calls stop(). Returns 0: the work ends itself and need not be cancelled.
    int Cancel() override {
        order('f');
        return 0;
    }

    void order(char c) {
        if (write(orders_.WriteFD(), &c, 1) != 1)
            std::terminate(); // a pipe of our own that takes two bytes in all
    }

    // Writes the result whole. It blocks while the loop is behind by what a pipe holds.
    void report(unsigned long result) {
        while (write(results_.WriteFD(), &result, sizeof result) == -1 && errno == EINTR) {
        }
    }

    // Runs on the thread that runs the loop.
    void receive() {
        unsigned long result = 0;
        if (read(results_.ReadFD(), &result, sizeof result) != sizeof result)
            return;
        if (result == last) {
            drained_ = true;
            order('q');
            return;
        }
        ++received_;
        latest_ = result;
    }

    unsigned long (*const probe_)();
    int const period_ms_;
    unsigned long received_ = 0, latest_ = 0;
    bool drained_ = false;
    orn::os::Pipe results_, orders_;
    std::optional<orn::zel::fd::AutoReceptor> receptor_;
    orn::zel::Thread thread_; // last: it begins at once
};

} // namespace station

#endif
