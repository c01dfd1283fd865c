// SPDX-License-Identifier: MIT
//
// Long work that must not hold up the loop. Internal to the station. A task computes the checksum of a large
// file as cksum(1) does, one piece in each slice.
#ifndef STATION_HASHING_HPP
#define STATION_HASHING_HPP

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/make_shared.hpp>

#include <orn/zel.hpp>

#include "lines.hpp"

namespace station {

// The CRC of POSIX's cksum, which takes the most significant bit first and appends the length to the data.
class Checksum {
public:
    void add(unsigned char const* data, std::size_t length) {
        for (std::size_t i = 0; i < length; ++i)
            add(data[i]);
        length_ += length;
    }

    std::uint32_t value() const {
        Checksum whole(*this);
        for (std::uint64_t rest = length_; rest != 0; rest >>= 8)
            whole.add(static_cast<unsigned char>(rest & 0xff));
        return ~whole.crc_;
    }

    std::uint64_t length() const { return length_; }

private:
    void add(unsigned char byte) { crc_ = crc_ << 8 ^ table()[crc_ >> 24 ^ byte]; }

    static std::array<std::uint32_t, 256> const& table() {
        static std::array<std::uint32_t, 256> const entries = [] {
            std::array<std::uint32_t, 256> made = {};
            for (std::uint32_t i = 0; i < made.size(); ++i) {
                std::uint32_t crc = i << 24;
                for (int bit = 0; bit < 8; ++bit)
                    crc = crc << 1 ^ (crc & 0x80000000u ? 0x04c11db7u : 0);
                made[i] = crc;
            }
            return made;
        }();
        return entries;
    }

    std::uint32_t crc_ = 0;
    std::uint64_t length_ = 0;
};

// How far the hashing is. Any thread may ask, for as long as it holds the pointer.
struct HashProgress {
    std::string const path;
    std::uint64_t const size;
    std::atomic<std::uint64_t> at{0};
    std::atomic<unsigned long> passes{0}, slices{0};

    HashProgress(std::string const& file_path, std::uint64_t file_size) : path(file_path), size(file_size) {}

    std::string text() const {
        return "pass " + std::to_string(passes + 1) + " of " + path + ": " +
               std::to_string(size > 0 ? 100 * at / size : 100) + "% of " + std::to_string(size >> 20) +
               " MiB, " + std::to_string(slices) + " slices";
    }
};

// Goes through the file again and again, with a pause after each pass. Each pass has to find the same
// checksum.
class FileHash {
public:
    explicit FileHash(std::string const& path)
        : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC), path.c_str()),
          progress_(boost::make_shared<HashProgress>(path, size_of(file_))),
          task_([this](orn::zel::task::Controller* self) { slice(self); }) {
        task_.Name("hash").Run();
    }

    boost::shared_ptr<HashProgress const> progress() const { return progress_; }
    unsigned long differing() const { return differing_; }

    std::string result() const {
        if (progress_->passes == 0)
            return progress_->text();
        return "cksum " + std::to_string(first_.value()) + ' ' + std::to_string(first_.length()) + ' ' +
               progress_->path;
    }

private:
    static constexpr std::size_t piece = 65536;
    static constexpr unsigned long pause_ms = 100;

    static std::uint64_t size_of(Descriptor const& file) {
        struct stat status = {};
        if (fstat(file.get(), &status) != 0)
            fail("fstat");
        return static_cast<std::uint64_t>(status.st_size);
    }

    void slice(orn::zel::task::Controller* self) {
        unsigned char buffer[piece];
        HashProgress& progress = *progress_;
        off_t const at = static_cast<off_t>(progress.at.load());
        ssize_t const got = pread(file_.get(), buffer, sizeof buffer, at);
        if (got == -1 && errno != EINTR)
            fail(progress.path.c_str());
        ++progress.slices;
        if (got > 0) {
            current_.add(buffer, static_cast<std::size_t>(got));
            progress.at += static_cast<std::uint64_t>(got);
        } else if (got == 0) {
            finish_pass();
            self->Sleep(); // no slices until the alarm
            again_.emplace(pause_ms, [self] { self->Continue(); });
        }
    }

    void finish_pass() {
        if (progress_->passes++ == 0)
            first_ = current_;
        else if (current_.value() != first_.value() || current_.length() != first_.length())
            ++differing_;
        current_ = Checksum();
        progress_->at = 0;
    }

    Descriptor const file_;
    boost::shared_ptr<HashProgress> const progress_;
    Checksum current_, first_;
    unsigned long differing_ = 0;
    orn::zel::Task task_; // cancelled when this dies
    std::optional<orn::zel::Alarm> again_;
};

} // namespace station

#endif
