// SPDX-License-Identifier: MIT
//
// Log sinks, the loader of libraries that reports to them, and unloading a library with all of this in it.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <orn/LibLoader.hpp>
#include <orn/log.h>
#include <regex.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class PlatformLog : public ::testing::Test {
protected:
    PlatformLog() {
        char name[] = "/tmp/platform_log_XXXXXX";
        directory_ = mkdtemp(name);
        path_ = directory_ + "/log";
    }
    ~PlatformLog() override {
        use(nullptr);
        unlink(path_.c_str());
        rmdir(directory_.c_str());
    }

    static void use(char const* where, char const* level = nullptr) {
        where != nullptr ? setenv("LOG_SINK", where, 1) : unsetenv("LOG_SINK");
        level != nullptr ? setenv("LOG_LEVEL", level, 1) : unsetenv("LOG_LEVEL");
        Log_Reopen();
    }

    std::vector<std::string> lines() const {
        std::ifstream file(path_);
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);) {
            all.push_back(line);
        }
        return all;
    }

    std::string directory_;
    std::string path_;
};

TEST_F(PlatformLog, WithoutASinkNothingIsFormatted) {
    use(nullptr, "info");
    auto const* const unreadable = reinterpret_cast<char const*>(1);
    Log_SpecEntry(logSpecForceInfo, unreadable, 1, "%s", unreadable);
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
}

TEST_F(PlatformLog, ARecordIsOneLineOfAFile) {
    use(path_.c_str());
    errno = ENOENT;
    Log_SpecEntry(logSpecForceInfo, "src/fd", 174, "%s: fd=%d\nsecond\n", "insert", 5);
    EXPECT_EQ(errno, ENOENT);
    Log_SpecEntry(logSpecInfo, "src/fd", 175, "%s", "below the level");
    EXPECT_FALSE(Log_Enabled(logSpecInfo));
    use(path_.c_str(), "info"); // appends
    Log_SpecEntry(logSpecInfo, "src/fd", 176, "%s", std::string(5000, 'x').c_str());
    Log_SpecEntry(logSpecInfo, "src/fd", 177, "%s", std::string(200000, 'y').c_str());
    auto const all = lines();
    ASSERT_EQ(all.size(), 3u);
    regex_t shape;
    ASSERT_EQ(regcomp(&shape,
                        "^20[0-9]{2}(-[0-9]{2}){2}T[0-9]{2}(:[0-9]{2}){2}\\.[0-9]{6}Z [0-9]+/[0-9]+ INFO "
                        "src/fd:174: insert: fd=5 second$",
                        REG_EXTENDED | REG_NOSUB),
              0);
    EXPECT_EQ(regexec(&shape, all[0].c_str(), 0, nullptr, 0), 0) << all[0];
    regfree(&shape);
    char today[16];
    std::time_t const now = std::time(nullptr);
    std::strftime(today, sizeof today, "%Y-%m-%dT%H", std::gmtime(&now));
    EXPECT_EQ(all[0].substr(0, 13), today);
    EXPECT_EQ(all[1].substr(all[1].size() - 5001), " " + std::string(5000, 'x'));
    EXPECT_GT(all[2].size(), 60000u);
    EXPECT_LT(all[2].size(), 70000u);
}

TEST_F(PlatformLog, RecordsOfSeveralThreadsStayWholeAcrossRotation) {
    use(path_.c_str());
    auto const write = [] {
        for (int i = 0; i < 500; ++i) {
            Log_SpecEntry(logSpecForceInfo, "src/x", i, "%s", "0123456789 end");
        }
    };
    std::thread a(write);
    std::thread b(write);
    std::string const old = path_ + ".1";
    ASSERT_EQ(rename(path_.c_str(), old.c_str()), 0);
    Log_Reopen();
    a.join();
    b.join();
    auto all = lines();
    ASSERT_EQ(rename(old.c_str(), path_.c_str()), 0);
    for (auto const& line : lines()) {
        all.push_back(line);
    }
    EXPECT_EQ(all.size(), 1000u);
    for (auto const& line : all) {
        EXPECT_EQ(line.substr(line.size() - 15), " 0123456789 end");
    }
}

TEST_F(PlatformLog, AFileMayBecomeLargerThanTwoGigabytes) {
    std::ofstream(path_).close();
    ASSERT_EQ(truncate(path_.c_str(), 0x7fffffff - 50), 0); // takes no room on the disk
    use(path_.c_str());
    Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", "across the limit");
    use(path_.c_str());
    Log_SpecEntry(logSpecForceInfo, "src/x", 2, "%s", "behind it");
    std::ifstream file(path_);
    file.seekg(0x7fffffff - 50);
    std::string line;
    std::getline(file, line);
    EXPECT_NE(line.find("across the limit"), std::string::npos) << line;
    std::getline(file, line);
    EXPECT_NE(line.find("behind it"), std::string::npos) << line;
}

TEST_F(PlatformLog, ASinkThatTakesNothingHurtsNobody) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    use(path_.c_str()); // no reader: does not wait for one
    Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", "lost");
    int const reader = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    use(path_.c_str());
    for (int i = 0; i < 5000; ++i) { // more than the FIFO holds
        Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", "perhaps lost");
    }
    close(reader);
    std::signal(SIGPIPE, SIG_DFL);
    Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", "lost");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    use("/nonexistent/log");
    Log_SpecEntry(logSpecForceInfo, "src/x", 1, "%s", "lost");
    EXPECT_FALSE(Log_Enabled(logSpecForceInfo));
}

// ---------------------------------------------------------------- the loader

class PlatformLibLoader : public PlatformLog {};

TEST_F(PlatformLibLoader, UnloadsInReverseAndReportsABadNameOnce) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    setenv("PLATFORM_MODULE_FD", std::to_string(ends[1]).c_str(), 1);
    use(path_.c_str());
    {
        orn::LibLoader loader;
        EXPECT_TRUE(loader.load(MODULE_A));
        EXPECT_FALSE(loader.load(""));
        EXPECT_FALSE(loader.load("/nonexistent/libx.so"));
        EXPECT_TRUE(loader.load(MODULE_B));
        loader.unload();
        loader.unload();
        EXPECT_TRUE(loader.load(MODULE_B));
    }
    char text[16];
    ssize_t const size = read(ends[0], text, sizeof text);
    EXPECT_EQ(std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0), "ABbaBb");
    auto const all = lines();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_NE(all[1].find("'/nonexistent/libx.so'"), std::string::npos) << all[1];
    unsetenv("PLATFORM_MODULE_FD");
    close(ends[0]);
    close(ends[1]);
}

std::size_t entries(char const* directory) {
    DIR* const list = opendir(directory);
    std::size_t count = 0;
    while (readdir(list) != nullptr) {
        ++count;
    }
    closedir(list);
    return count;
}

TEST_F(PlatformLibLoader, ABusyPlatformLayerIsUnloadedWithoutATrace) {
    setenv("LOG_SINK", path_.c_str(), 1);
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    for (std::size_t round = 0; round < 200; ++round) {
        orn::LibLoader loader;
        ASSERT_TRUE(loader.load(MODULE_WHOLE));
        loader.unload();
        ASSERT_EQ(dlopen(MODULE_WHOLE, RTLD_NOLOAD | RTLD_LAZY), nullptr);
        if (round == 0) { // what a sanitizer starts for itself is there by now
            descriptors = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
        ASSERT_EQ(entries("/proc/self/fd"), descriptors);
        // A thread that has been joined may be listed for a moment longer.
        for (int tries = 0; entries("/proc/self/task") > threads; ++tries) {
            ASSERT_LT(tries, 5000);
            usleep(1000);
        }
        ASSERT_EQ(lines().size(), round + 1);
    }
    EXPECT_TRUE(Log_Enabled(logSpecForceInfo)) << "the variable is this program's";
    pid_t const child = fork(); // with no handler of the library left behind
    if (child == 0) {
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace
