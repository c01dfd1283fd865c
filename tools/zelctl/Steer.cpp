// SPDX-License-Identifier: MIT
//
// The verbs load and unload. What the process's dynamic linker would refuse is refused here, with the reason.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include <elf.h>
#include <unistd.h>

#include "Output.hpp"
#include "Table.hpp"
#include "Target.hpp"
#include "Verbs.hpp"

namespace zelctl {

namespace {

// Paths mean what they mean to the process, which may have another root.
std::string as_it_sees(Target const& target, std::string const& path) {
    std::optional<Process> const now = describe(target.pid());
    std::string const root = (now ? *now : target.process()).proc + "/root";
    return access((root + '/').c_str(), X_OK) == 0 ? root + path : path;
}

// The class, the byte order, the kind and the machine of an ELF file; the latter two in its own byte order.
struct Format {
    bool is_elf = false;
    int bits = 0;
    bool big = false;
    unsigned type = 0;
    unsigned machine = 0;
    bool whole = false; // it has all that its segments take from it
};

class Bytes {
public:
    Bytes(std::ifstream& file, std::uint64_t from, std::size_t size, bool big) : data_(size), big_(big) {
        file.seekg(static_cast<std::streamoff>(from));
        file.read(data_.data(), static_cast<std::streamsize>(size));
    }
    std::uint64_t number(std::size_t at, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i)
            value = value << 8 | static_cast<unsigned char>(data_[big_ ? at + i : at + size - 1 - i]);
        return value;
    }
    char const* data() const { return data_.data(); }

private:
    std::vector<char> data_;
    bool const big_;
};

// A process that maps a file which is still being copied dies of what is not there yet, within dlopen().
bool has_its_segments(std::ifstream& file, Bytes const& head, Format const& format, std::uint64_t size) {
    bool const wide = format.bits == 64;
    std::size_t const word = wide ? 8 : 4;
    std::uint64_t const table = wide ? head.number(32, 8) : head.number(28, 4);
    // The product of two numbers of 16 bits is none of more than 32.
    std::size_t const entry = static_cast<std::size_t>(head.number(wide ? 54 : 42, 2));
    std::size_t const count = static_cast<std::size_t>(head.number(wide ? 56 : 44, 2));
    if (entry < (wide ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr)) || table > size ||
        count * entry > size - table)
        return false;
    Bytes const segments(file, table, count * entry, format.big);
    for (std::size_t at = 0; at < count * entry; at += entry) {
        std::uint64_t const from = segments.number(at + word, word);
        std::uint64_t const length = segments.number(at + 4 * word, word);
        if (length > 0 && (from > size || length > size - from))
            return false;
    }
    return true;
}

Format format_of(std::string const& path) {
    Format format;
    std::error_code error;
    std::uint64_t const size = std::filesystem::file_size(path, error);
    if (error || size < EI_NIDENT + 4)
        return format; // not opened, which would wait for the writer of a pipe
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return format;
    Bytes const start(file, 0, EI_NIDENT, false);
    format.is_elf = std::memcmp(start.data(), ELFMAG, SELFMAG) == 0;
    format.bits = start.data()[EI_CLASS] == ELFCLASS64 ? 64 : 32;
    format.big = start.data()[EI_DATA] == ELFDATA2MSB;
    Bytes const head(file, 0, sizeof(Elf64_Ehdr), format.big);
    format.type = static_cast<unsigned>(head.number(EI_NIDENT, 2));
    format.machine = static_cast<unsigned>(head.number(EI_NIDENT + 2, 2));
    format.whole = size >= sizeof(Elf64_Ehdr) && has_its_segments(file, head, format, size);
    return format;
}

std::string machine_name(unsigned machine) {
    static std::map<unsigned, char const*> const names = {
        {EM_386, "x86"},     {EM_X86_64, "x86-64"}, {EM_ARM, "ARM"},   {EM_AARCH64, "AArch64"},
        {EM_PPC, "PowerPC"}, {EM_PPC64, "PowerPC"}, {EM_MIPS, "MIPS"}, {EM_RISCV, "RISC-V"}};
    auto const known = names.find(machine);
    return known == names.end() ? "machine " + std::to_string(machine) : known->second;
}

std::string text_of(Format const& format) {
    return machine_name(format.machine) + " with " + std::to_string(format.bits) + " bits, " +
           (format.big ? "big" : "little") + "-endian";
}

// The process looks up a path from its own working directory, and a bare name where libraries are.
std::string absolute(std::string const& name) {
    std::error_code error;
    if (name.find('/') == std::string::npos && !std::filesystem::exists(name, error))
        return name;
    return std::filesystem::absolute(name, error).lexically_normal().string();
}

void check(Target const& target, std::string const& path) {
    std::string const shown = printable(path);
    if (path[0] != '/')
        return; // the process's dynamic linker knows where to look
    std::string const seen = as_it_sees(target, path);
    if (access(seen.c_str(), F_OK) != 0) {
        throw Failure(refused,
                      shown + ": " + strerror(errno) + ": give a path that " + target.name() + " can see");
    }
    if (access(seen.c_str(), R_OK) != 0)
        throw Failure(refused, shown + ": " + strerror(errno) + ": zelctl reads of what kind it is");
    Format const format = format_of(seen);
    if (!format.is_elf || format.type != ET_DYN)
        throw Failure(refused, shown + " is no shared library");
    Format const own = format_of(as_it_sees(target, target.process().library_path));
    if (own.is_elf && (own.bits != format.bits || own.big != format.big || own.machine != format.machine)) {
        throw Failure(refused, shown + " is for " + text_of(format) + ", and " + target.name() + " runs on " +
                                   text_of(own) + ": build it for that");
    }
    if (!format.whole)
        throw Failure(refused, shown + " is cut short: copy it again, or wait until it is whole");
}

} // namespace

// The process answers each library with a line, which ends with ": loaded", say, when all is well.
ExitStatus steer(Context& context, std::string const& change, Words const& libraries) {
    Target const& target = context.session.target();
    if (libraries.empty() || std::count(libraries.begin(), libraries.end(), "") > 0)
        throw Failure(misused, change + " takes the names of libraries");
    Words paths;
    for (std::string const& library : libraries) {
        paths.push_back(absolute(library));
        if (paths.back().find(' ') != std::string::npos) {
            throw Failure(misused, "'" + printable(paths.back()) +
                                       "' holds a blank, which separates names: give it a link without");
        }
        if (change == "load")
            check(target, paths.back());
    }
    context.session.check(); // a signal may have cut the look at the files short
    std::string const done = ": " + change + "ed";
    std::size_t succeeded = 0;
    Answer const answer =
        context.session.ask("zel " + change + ' ' + joined(paths), [&](std::string const& line) {
            if (line.size() >= done.size() &&
                line.compare(line.size() - done.size(), done.size(), done) == 0) {
                ++succeeded;
                context.output.line(context.options.json ? json_line({{"line", line}}) : line);
            } else {
                std::fprintf(stderr, "zelctl: %s: %s\n", target.name().c_str(), printable(line).c_str());
            }
        });
    ExitStatus const status = status_of(answer);
    return status == ok && succeeded != paths.size() ? refused : status;
}

} // namespace zelctl
