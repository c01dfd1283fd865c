// SPDX-License-Identifier: MIT
//
// The verbs load and unload. What the process's dynamic linker would refuse is refused here, with the reason.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

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
    std::string const root = target.process().proc + "/root";
    return access((root + '/').c_str(), X_OK) == 0 ? root + path : path;
}

// The class, the byte order, the kind and the machine of an ELF file; the latter two in its own byte order.
struct Format {
    bool is_elf = false;
    int bits = 0;
    bool big = false;
    unsigned type = 0;
    unsigned machine = 0;
};

Format format_of(std::string const& path) {
    std::array<unsigned char, EI_NIDENT + 4> head = {};
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(head.data()), head.size());
    Format format;
    format.is_elf = file.good() && std::memcmp(head.data(), ELFMAG, SELFMAG) == 0;
    format.bits = head[EI_CLASS] == ELFCLASS64 ? 64 : 32;
    format.big = head[EI_DATA] == ELFDATA2MSB;
    auto const half = [&](std::size_t at) {
        return format.big ? head[at] * 256u + head[at + 1] : head[at + 1] * 256u + head[at];
    };
    format.type = half(EI_NIDENT);
    format.machine = half(EI_NIDENT + 2);
    return format;
}

std::string text_of(Format const& format) {
    return std::to_string(format.bits) + " bits, " + (format.big ? "big" : "little") + "-endian, machine " +
           std::to_string(format.machine);
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
    Format const format = format_of(seen);
    if (!format.is_elf || format.type != ET_DYN)
        throw Failure(refused, shown + " is no shared library");
    Format const own = format_of(as_it_sees(target, target.process().library_path));
    if (own.is_elf && (own.bits != format.bits || own.big != format.big || own.machine != format.machine)) {
        throw Failure(refused, shown + " is for " + text_of(format) + ", and " + target.name() +
                                   " runs with " + text_of(own) + ": build it for that");
    }
}

} // namespace

// The process answers each library with a line, which ends with ": loaded", say, when all is well.
ExitStatus steer(Context& context, std::string const& change, Words const& libraries) {
    Target const& target = context.session.target();
    if (libraries.empty())
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
