// SPDX-License-Identifier: MIT
//
// A small device daemon on real input, all of it served by one loop: a recurring alarm samples the machine,
// clients ask questions over TCP, standard input takes the same questions, signals steer it, and threads of
// the group measure what is slow.
//
//     station [CONFIG]      CONFIG holds lines "period MS" and "name TEXT"; SIGHUP reads it again
//
// SIGUSR1 prints figures; SIGINT, SIGTERM, and "quit" on standard input, end it. The exit status is 0 when
// everything that came in was dealt with, 1 when something was lost, 2 when it could not run.
#include <cstdlib>
#include <exception>
#include <iostream>

#include <dirent.h>
#include <fcntl.h>

#include "line_service.hpp"
#include "sources.hpp"

namespace station {

// How many processes there are: a walk through /proc.
unsigned long count_processes() {
    unsigned long count = 0;
    DIR* const proc = opendir("/proc");
    while (dirent const* const entry = proc ? readdir(proc) : nullptr)
        count += entry->d_name[0] >= '1' && entry->d_name[0] <= '9' ? 1 : 0;
    if (proc)
        closedir(proc);
    return count;
}

// How many TCP sockets there are: the kernel composes the table anew for each reader.
unsigned long count_sockets() {
    std::ifstream table("/proc/net/tcp");
    unsigned long count = 0;
    for (std::string line; std::getline(table, line);)
        ++count;
    return count > 0 ? count - 1 : 0; // a headline
}

// A socket would take the number of a standard descriptor that the program was started without.
void fill_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    close(fd);
}

struct Config {
    unsigned long periodMs = 100;
    std::string name = "station";

    // Throws and changes nothing when the file is not what it should be.
    void read(std::string const& path) {
        std::ifstream file(path);
        Config next;
        std::string key;
        while (file >> key) {
            if (key == "period" ? !(file >> next.periodMs) : key != "name" || !(file >> next.name))
                throw std::runtime_error(path + ": not understood");
        }
        if (!file.eof() || next.periodMs == 0)
            throw std::runtime_error(path + ": cannot be read, or a period of 0");
        *this = next;
    }
};

class Station {
public:
    explicit Station(std::string const& config_path)
        : config_path_(config_path), service_([this](std::string const& line) { return answer(line); }),
          input_(STDIN_FILENO, [this](std::string const& line) { typed(line); }),
          processes_(count_processes, 100), sockets_(count_sockets, 70) {
        if (!config_path_.empty())
            config_.read(config_path_);
        sampler_.start(config_.periodMs);
    }

    int run() {
        say() << "pid " << getpid() << ", port " << service_.port() << ", a sample every " << config_.periodMs
              << " ms" << std::endl;
        while (!ending_)
            turn();
        wind_up();
        return summary() ? EXIT_SUCCESS : EXIT_FAILURE;
    }

private:
    std::ostream& say() const { return std::cout << config_.name << ": "; }

    void turn() {
        ++turns_;
        if (orn::zel::RunOnce(-1) == -1 && errno != EINTR)
            fail("poll");
    }

    // Takes nothing new, and goes on until what has been taken is done.
    void wind_up() {
        bool late = false;
        orn::zel::Alarm const deadline(1000, [&late] { late = true; });
        service_.close();
        processes_.finish();
        sockets_.finish();
        while ((service_.pending() || !processes_.drained() || !sockets_.drained()) && !late)
            turn();
    }

    std::string answer(std::string const& line) const {
        if (line.compare(0, 5, "echo ") == 0)
            return line.substr(5);
        if (line == "sample")
            return sampler_.text();
        if (line == "figures")
            return figures();
        return "not understood: " + line;
    }

    void typed(std::string const& line) {
        if (line == "quit")
            ending_ = true;
        else
            say() << answer(line) << std::endl;
    }

    void hang_up() {
        try {
            config_.read(config_path_);
            sampler_.start(config_.periodMs);
            say() << "configuration read: a sample every " << config_.periodMs << " ms" << std::endl;
        } catch (std::exception const& error) {
            say() << error.what() << "; going on as before" << std::endl;
        }
    }

    void on_signal(int signo) {
        ++signals_;
        if (signo == SIGHUP)
            hang_up();
        else if (signo == SIGUSR1)
            say() << sampler_.text() << "; " << figures() << std::endl;
        else
            ending_ = true;
    }

    std::string figures() const {
        Traffic const& traffic = service_.traffic();
        std::ostringstream text;
        text << traffic.lines << " lines from " << traffic.clients << " clients, " << input_.lines()
             << " from standard input, " << sampler_.samples() << " samples, "
             << processes_.received() + sockets_.received() << " probes (" << processes_.latest()
             << " processes, " << sockets_.latest() << " sockets), " << signals_ << " signals, " << turns_
             << " turns";
        return text.str();
    }

    // Whether nothing was lost.
    bool summary() const {
        Traffic const& traffic = service_.traffic();
        unsigned long const lost = (traffic.lines - traffic.answers - traffic.dropped) +
                                   (processes_.sent() - processes_.received()) +
                                   (sockets_.sent() - sockets_.received()) + sampler_.failures();
        say() << "served " << figures() << std::endl;
        say() << traffic.lines << " lines in, " << traffic.answers << " answers out, " << traffic.dropped
              << " dropped with their client; " << traffic.cut_off << " hung up in mid-line, "
              << traffic.held_back << " waits for one that did not read" << std::endl;
        say() << (lost == 0 ? "nothing lost" : "LOST: " + std::to_string(lost)) << std::endl;
        return lost == 0;
    }

    std::string const config_path_;
    Config config_;
    bool ending_ = false;
    unsigned long turns_ = 0, signals_ = 0;
    Sampler sampler_;
    LineService service_;
    Input input_;
    Prober processes_, sockets_;
    boost::function<void(int)> const handler_ = [this](int signo) { on_signal(signo); };
    orn::zel::signal::AutoReceptor const hangup_{SIGHUP, handler_}, usr1_{SIGUSR1, handler_},
        interrupt_{SIGINT, handler_}, terminate_{SIGTERM, handler_};
};

} // namespace station

int main(int argc, char** argv) {
    if (argc > 2) {
        std::cerr << "usage: station [CONFIG]\n";
        return 2;
    }
    station::fill_standard_descriptors();
    try {
        return station::Station(argc == 2 ? argv[1] : "").run();
    } catch (std::exception const& error) {
        std::cerr << "station: " << error.what() << '\n';
        return 2;
    }
}
