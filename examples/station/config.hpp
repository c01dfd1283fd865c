// SPDX-License-Identifier: MIT
//
// The configuration of the station, read from a file. Internal to the station.
#ifndef STATION_CONFIG_HPP
#define STATION_CONFIG_HPP

#include <fstream>
#include <stdexcept>
#include <string>

namespace station {

struct Config {
    unsigned long period_ms = 100;
    std::string name = "station";
    std::string hash = "/proc/self/exe";

    Config() = default;
    explicit Config(std::string const& path) {
        if (!path.empty())
            read(path);
    }

    // Throws and changes nothing when the file is not what it should be.
    void read(std::string const& path) {
        std::ifstream file(path);
        Config next;
        std::string key;
        while (file >> key) {
            bool const understood = key == "period" ? static_cast<bool>(file >> next.period_ms)
                                    : key == "name" ? static_cast<bool>(file >> next.name)
                                                    : key == "hash" && file >> next.hash;
            if (!understood)
                throw std::runtime_error(path + ": not understood");
        }
        if (!file.eof() || next.period_ms == 0)
            throw std::runtime_error(path + ": cannot be read, or a period of 0");
        *this = next;
    }
};

} // namespace station

#endif
