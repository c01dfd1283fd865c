// SPDX-License-Identifier: MIT
//
// Log sinks, and the loader of libraries that reports to them.
#include <ctime>
#include <fstream>

#include <regex.h>
#include <sys/stat.h>

#include <orn/LibLoader.hpp>
#include <orn/log.h>

#include "support/Common.hpp"

namespace {

using support::Words;

void write_record(char const* text) {
    Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", text);
}

class PlatformLog : public ::testing::Test {
protected:
    ~PlatformLog() override { use(nullptr); }

    static void use(char const* where, char const* level = nullptr) {
        where ? setenv("LOG_SINK", where, 1) : unsetenv("LOG_SINK");
        level ? setenv("LOG_LEVEL", level, 1) : unsetenv("LOG_LEVEL");
        Log_Reopen();
    }

    Words lines() const {
        std::ifstream in(path);
        Words all;
        for (std::string line; std::getline(in, line);)
            all.push_back(line);
        return all;
    }

    support::TempFile const file;
    char const* const path = file.path().c_str();
};

TEST_F(PlatformLog, has_a_line_for_each_record_of_its_level_and_formats_nothing_without_a_sink) {
    use(nullptr, "info");
    auto const* const unreadable = reinterpret_cast<char const*>(1);
    Log_SpecEntry(logSpecForceInfo, unreadable, 1, "%s", unreadable);
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
    use(path);
    errno = ENOENT;
    Log_SpecEntry(logSpecForceInfo, "src/fd", 174, "%s: fd=%d\nsecond\n", "insert", 5);
    EXPECT_EQ(ENOENT, errno);
    Log_SpecEntry(logSpecInfo, "src/fd", 175, "%s", "below the level");
    EXPECT_FALSE(Log_Enabled(logSpecInfo));
    use(path, "info"); // appends
    Log_SpecEntry(logSpecInfo, "src/fd", 176, "%s", std::string(5000, 'x').c_str());
    Log_SpecEntry(logSpecInfo, "src/fd", 177, "%s", std::string(200000, 'y').c_str());
    EXPECT_FALSE(orn::LibLoader().load(""));
    EXPECT_FALSE(orn::LibLoader().load("/nonexistent/libx.so"));
    Words const all = lines();
    ASSERT_EQ(5u, all.size());
    regex_t shape;
    ASSERT_EQ(0, regcomp(&shape,
                         "^20[0-9]{2}(-[0-9]{2}){2}T[0-9]{2}(:[0-9]{2}){2}\\.[0-9]{6}Z [0-9]+/[0-9]+ INFO "
                         "src/fd:174: insert: fd=5 second$",
                         REG_EXTENDED | REG_NOSUB));
    EXPECT_EQ(0, regexec(&shape, all[0].c_str(), 0, nullptr, 0)) << all[0];
    regfree(&shape);
    char today[16];
    std::time_t const now = std::time(nullptr);
    std::strftime(today, sizeof today, "%Y-%m-%dT%H", std::gmtime(&now));
    EXPECT_EQ(today, all[0].substr(0, 13));
    EXPECT_EQ(' ' + std::string(5000, 'x'), all[1].substr(all[1].size() - 5001));
    EXPECT_GT(all[2].size(), 60000u);
    EXPECT_LT(all[2].size(), 70000u);
    EXPECT_NE(std::string::npos, all[4].find("'/nonexistent/libx.so'")) << all[4];
}

TEST_F(PlatformLog, keeps_the_records_of_several_threads_whole_while_the_file_is_rotated) {
    use(path);
    auto const write_many = [] {
        for (int i = 0; i < 500; ++i)
            write_record("0123456789 end");
    };
    std::thread a(write_many);
    std::thread b(write_many);
    std::string const old = file.path() + ".1";
    ASSERT_EQ(0, rename(path, old.c_str()));
    Log_Reopen();
    a.join();
    b.join();
    Words all = lines();
    ASSERT_EQ(0, rename(old.c_str(), path));
    for (std::string const& line : lines())
        all.push_back(line);
    EXPECT_EQ(1000u, all.size());
    for (std::string const& line : all)
        EXPECT_EQ(" 0123456789 end", line.substr(line.size() - 15));
}

TEST_F(PlatformLog, hurts_nobody_when_its_sink_takes_nothing) {
    std::string const fifo = file.path() + ".fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    use(fifo.c_str()); // no reader: does not wait for one
    write_record("lost");
    int const reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    use(fifo.c_str());
    for (int i = 0; i < 5000; ++i) // more than the FIFO holds
        write_record("perhaps lost");
    close(reader);
    signal(SIGPIPE, SIG_DFL);
    write_record("lost");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
    use("/nonexistent/log");
    write_record("lost");
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
    unlink(fifo.c_str());
}

} // namespace
