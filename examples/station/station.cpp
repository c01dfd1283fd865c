// SPDX-License-Identifier: MIT
//
// A small device daemon on real input, served by one loop. A recurring alarm samples the machine, clients ask
// questions over TCP, standard input takes the same questions, signals steer it, a task computes a large
// file's checksum, threads of the group measure what is slow, and other processes may ask "station".
//
//     station [CONFIG]      CONFIG holds lines "period MS", "name TEXT" and "hash FILE"
//
// SIGHUP reads the configuration again, except the file to hash. SIGUSR1 prints figures. SIGINT, SIGTERM and
// "quit" on standard input end it. The exit status is 0 when everything that came in was dealt with, 1 when
// something was lost, and 2 when it could not run.
#include <cstdlib>
#include <exception>
#include <iostream>

#include <fcntl.h>

#include "config.hpp"
#include "hashing.hpp"
#include "line_service.hpp"
#include "prober.hpp"
#include "sources.hpp"

namespace station {

// Opens the standard descriptors that the program was started without, since a socket would take their
// numbers.
void fill_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    close(fd);
}

class Station {
public:
    explicit Station(std::string const& config_path)
        : config_path_(config_path), config_(config_path),
          service_([this](std::string const& line) { return answer(line); }),
          input_(STDIN_FILENO, [this](std::string const& line) { typed(line); }), hash_(config_.hash),
          processes_(count_processes, 100), sockets_(count_sockets, 70) {
        sampler_.start(config_.period_ms);
        processes_.start();
        sockets_.start();
        // The handler runs on the command thread, beside the loop, and perhaps still when the word is taken
        // away. So it holds what it uses.
        boost::shared_ptr<HashProgress const> const progress = hash_.progress();
        orn::zel::RegisterCommandModule("station", [progress](std::string const&, int fd) {
            orn::zel::cmd::Write(fd, progress->text() + '\n');
        });
    }
    ~Station() { orn::zel::UnregisterCommandModule("station"); }
    Station(Station const&) = delete;
    Station& operator=(Station const&) = delete;

    int run() {
        say() << "pid " << getpid() << ", port " << service_.port() << ", a sample every "
              << config_.period_ms << " ms" << std::endl;
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

    // Takes nothing new, and goes on until everything that was taken is done.
    void wind_up() {
        bool late = false;
        orn::zel::Alarm const deadline(1000, [&late] { late = true; });
        service_.close();
        processes_.stop();
        sockets_.stop();
        while ((service_.pending() || !processes_.drained() || !sockets_.drained() ||
                hash_.progress()->passes == 0) &&
               !late)
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
            sampler_.start(config_.period_ms);
            say() << "configuration read: a sample every " << config_.period_ms << " ms" << std::endl;
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
             << " processes, " << sockets_.latest() << " sockets), " << hash_.progress()->slices
             << " slices in " << hash_.progress()->passes << " passes, " << signals_ << " signals, " << turns_
             << " turns";
        return text.str();
    }

    // How many results the thread says that it has sent and the loop has not received. A thread that could
    // not be drained in time is not waited for, and counts as one.
    static unsigned long lost_by(Prober& prober) {
        return prober.drained() ? prober.join() - prober.received() : 1;
    }

    // Returns whether nothing was lost.
    bool summary() {
        Traffic const& traffic = service_.traffic();
        unsigned long const lost = (traffic.lines - traffic.answers - traffic.dropped) + lost_by(processes_) +
                                   lost_by(sockets_) + sampler_.failures() + hash_.differing();
        say() << "served " << figures() << std::endl;
        say() << traffic.lines << " lines in, " << traffic.answers << " answers out, " << traffic.dropped
              << " dropped with their client; " << traffic.cut_off << " hung up in mid-line, "
              << traffic.held_back << " waits for one that did not read" << std::endl;
        say() << hash_.result() << std::endl;
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
    FileHash hash_;
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
