// SPDX-License-Identifier: MIT
//
// The log: where records go, and how one is put together. All state is constant-initialised and never
// destroyed, so that records may be written before, while and after static objects come and go. Only the log
// file is closed when the library goes.
#include <orn/log.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <orn/cancel.hpp>
#include <orn/descriptor.hpp>
#include <orn/forkHandlers.hpp>

// All bits are set until the first record has read the environment.
unsigned orn_log_enabled = ~0u;

// Also on the processors on which it is narrower unless that is asked for.
static_assert(sizeof(off_t) == 8, "a log file may grow beyond two gigabytes");

namespace {

enum class Sink { unread, nowhere, standard_error, file, system_log };

constexpr std::size_t text_limit = 64 * 1024;
constexpr std::size_t prefix_limit = 256;
constexpr mode_t file_mode = 0640;

// Held while a record is written, because closing the file frees its number: the record would end up in
// whatever gets the number next. A leaf.
std::mutex mutex;
Sink sink = Sink::unread;
int sink_fd = -1;
bool sink_may_raise = false; // it may be a pipe or socket, where writing can raise SIGPIPE

void enable(unsigned mask) {
    __atomic_store_n(&orn_log_enabled, mask, __ATOMIC_RELAXED);
}

void close_sink() {
    if (sink == Sink::file)
        close(sink_fd);
    sink_fd = -1;
    sink = Sink::nowhere;
}

// Returns what is enabled from now on.
unsigned open_sink() {
    // getenv() would let any user make a privileged program append to a file of his choice.
    char const* const where = secure_getenv("LOG_SINK");
    char const* const level = secure_getenv("LOG_LEVEL");
    close_sink();
    if (!where || *where == '\0')
        return 0;
    if (std::strcmp(where, "syslog") == 0) {
        sink = Sink::system_log;
    } else if (std::strcmp(where, "stderr") == 0) {
        sink = Sink::standard_error;
        sink_fd = STDERR_FILENO;
    } else {
        // With O_NONBLOCK a FIFO whose reader is absent or slow loses records and does not hold the caller
        // up.
        sink_fd = orn::internal::above_standard(
            open(where, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, file_mode));
        if (sink_fd < 0)
            return 0;
        sink = Sink::file;
    }
    struct stat status = {};
    sink_may_raise = sink_fd >= 0 && (fstat(sink_fd, &status) != 0 || !S_ISREG(status.st_mode));
    bool const info = level && std::strcmp(level, "info") == 0;
    return (1u << logSpecForceInfo) | (info ? 1u << logSpecInfo : 0u);
}

// Writing a record must not change the caller's errno, and must not be where its thread is cancelled.
class Unnoticed {
public:
    Unnoticed() : errno_(errno) {}
    ~Unnoticed() { errno = errno_; }
    int error() const { return errno_; }
    Unnoticed(Unnoticed const&) = delete;
    Unnoticed& operator=(Unnoticed const&) = delete;

private:
    int errno_;
    orn::internal::CancelShield shield_;
};

void write_whole(char const* record, std::size_t size) {
    orn::internal::unless_interrupted([&] { return write(sink_fd, record, size); });
}

// A reader that has gone must not end the process, and a SIGPIPE that was pending before stays pending, since
// it is the application's.
void write_without_sigpipe(char const* record, std::size_t size) {
    sigset_t broken;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    sigemptyset(&pending);
    sigpending(&pending);
    bool const was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &broken, &before);
    errno = 0;
    write_whole(record, size);
    if (errno == EPIPE && !was_pending) {
        timespec const now = {0, 0};
        while (sigtimedwait(&broken, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

struct Date {
    int year;
    unsigned month;
    unsigned day;
};

// gmtime_r() takes the C library's time zone lock, which a fork() can leave locked in the child for ever.
// Years are counted from March here, so that the leap day is the last of its year.
Date date_of(std::int64_t days_since_1970) {
    std::int64_t const shifted = days_since_1970 + 719468;
    std::int64_t const era = shifted / 146097;
    auto const day_of_era = static_cast<unsigned>(shifted - era * 146097);
    unsigned const year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    unsigned const day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    unsigned const from_march = (5 * day_of_year + 2) / 153;
    unsigned const month = from_march < 10 ? from_march + 3 : from_march - 9;
    return {static_cast<int>(year_of_era + era * 400) + (month <= 2 ? 1 : 0), month,
            day_of_year - (153 * from_march + 2) / 5 + 1};
}

std::size_t put_prefix(char* to, std::size_t room, Log_Spec spec, char const* source, int line) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    auto const seconds = static_cast<std::int64_t>(now.tv_sec);
    Date const date = date_of(seconds / 86400);
    auto const in_day = static_cast<int>(seconds % 86400);
    int const length = std::snprintf(
        to, room, "%04d-%02u-%02uT%02d:%02d:%02d.%06ldZ %d/%ld %s %.120s:%d: ", date.year, date.month,
        date.day, in_day / 3600, in_day / 60 % 60, in_day % 60, static_cast<long>(now.tv_nsec / 1000),
        static_cast<int>(getpid()), syscall(SYS_gettid), spec == logSpecInfo ? "info" : "INFO", source, line);
    return length < 0                                ? 0
           : static_cast<std::size_t>(length) < room ? static_cast<std::size_t>(length)
                                                     : room - 1;
}

// Makes one line of a text, so that nobody can forge a record with a line feed in a name. A line feed at the
// end is cut off, because formats may have one there.
std::size_t make_line(char* text, std::size_t size) {
    while (size > 0 && text[size - 1] == '\n')
        --size;
    for (std::size_t i = 0; i < size; ++i) {
        auto const c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f)
            text[i] = ' ';
    }
    return size;
}

// The caller leaves room for the prefix before the text, and for the line's end behind it.
void emit(Log_Spec spec, char const* source, int line, char* text, std::size_t size) {
    size = make_line(text, size);
    std::lock_guard<std::mutex> const lock(mutex);
    if (sink == Sink::system_log) {
        text[size] = '\0';
        syslog(spec == logSpecInfo ? LOG_INFO : LOG_NOTICE, "%s:%d: %s", source, line, text);
        return;
    }
    if (sink != Sink::standard_error && sink != Sink::file)
        return;
    // Copied to right before the text, so that one write() takes both.
    char prefix[prefix_limit];
    std::size_t const length = put_prefix(prefix, sizeof prefix, spec, source, line);
    char* const record = text - length;
    std::memcpy(record, prefix, length);
    text[size] = '\n';
    if (sink_may_raise)
        write_without_sigpipe(record, length + size + 1);
    else
        write_whole(record, length + size + 1);
}

orn::internal::ForkHandlers const fork_handlers __attribute__((init_priority(101))) = {
    [] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); }};

// Closes the file after the last ordinary static object of this library has gone. orn_log_enabled stays as it
// is, because in a program that is linked with this layer as well it may be the program's variable.
class Lifetime {
public:
    Lifetime() = default;
    ~Lifetime() {
        orn::internal::CancelShield const shield; // a thread that has been cancelled may call exit()
        std::lock_guard<std::mutex> const lock(mutex);
        if (sink == Sink::file || sink == Sink::unread)
            close_sink();
    }
    Lifetime(Lifetime const&) = delete;
    Lifetime& operator=(Lifetime const&) = delete;
};

Lifetime lifetime __attribute__((init_priority(101)));

} // namespace

extern "C" void Log_SpecEntry(Log_Spec spec, char const* source, int line, char const* format, ...) {
    if (!Log_Enabled(spec))
        return;
    Unnoticed unnoticed;
    {
        std::lock_guard<std::mutex> const lock(mutex);
        if (sink == Sink::unread)
            enable(open_sink());
    }
    if (!Log_Enabled(spec))
        return;
    char small[prefix_limit + 1024];
    std::size_t room = sizeof small - prefix_limit - 1; // one for the line's end
    char* buffer = small;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    errno = unnoticed.error(); // for %m
    int const length = std::vsnprintf(buffer + prefix_limit, room, format, arguments);
    std::size_t size = length < 0 ? 0 : static_cast<std::size_t>(length);
    if (size >= room) {
        std::size_t const wanted = size < text_limit ? size + 1 : text_limit;
        auto* const large = static_cast<char*>(std::malloc(prefix_limit + wanted + 1));
        if (large) {
            buffer = large;
            room = wanted;
            errno = unnoticed.error();
            std::vsnprintf(buffer + prefix_limit, room, format, again);
        }
        size = size < room ? size : room - 1;
    }
    va_end(again);
    va_end(arguments);
    emit(spec, source, line, buffer + prefix_limit, size);
    if (buffer != small)
        std::free(buffer);
}

extern "C" void Log_Reopen(void) {
    Unnoticed unnoticed;
    std::lock_guard<std::mutex> const lock(mutex);
    enable(open_sink()); // threads that log meanwhile wait for the mutex and lose nothing
}
