// SPDX-License-Identifier: MIT
//
// Locks, the identifier counter, the splitter and the end of a failed assertion.
#include <orn/zel/core.hpp>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <set>

#include <unistd.h>

#include "immortal.hpp"
#include "uniqueId.hpp"

namespace orn {

Exception::~Exception() = default;

} // namespace orn

namespace orn::zel {

Exception::~Exception() = default;
UndefinedValue::~UndefinedValue() = default;
Lockable::~Lockable() = default;
Mutex::~Mutex() = default;

// The analysis cannot see that a null lock is a lock.
void Mutex::Lock() ZEL_NO_ANALYSIS {}
void Mutex::Unlock() ZEL_NO_ANALYSIS {}

ThreadMutex::ThreadMutex() : mutex_() {
    o_pthread_mutex_init(&mutex_, nullptr);
}

ThreadMutex::~ThreadMutex() {
    o_pthread_mutex_destroy(&mutex_);
}

// The analysis does not know the platform's mutex.
void ThreadMutex::Lock() ZEL_NO_ANALYSIS {
    o_pthread_mutex_lock(&mutex_);
}

void ThreadMutex::Unlock() ZEL_NO_ANALYSIS {
    o_pthread_mutex_unlock(&mutex_);
}

RecursiveThreadMutex::RecursiveThreadMutex() : RecursiveThreadMutex(own_) {}
RecursiveThreadMutex::RecursiveThreadMutex(Mutex& other) : mutex_(other), owner_(0), depth_(0) {}
RecursiveThreadMutex::~RecursiveThreadMutex() = default;

// The analysis cannot follow a lock that is taken at the first level only.
void RecursiveThreadMutex::Lock() ZEL_NO_ANALYSIS {
    int const me = o_pthread_self();
    if (owner_.load(std::memory_order_relaxed) != me) {
        mutex_.Lock();
        owner_.store(me, std::memory_order_relaxed);
    }
    ++depth_;
}

void RecursiveThreadMutex::Unlock() ZEL_NO_ANALYSIS {
    if (--depth_ == 0) {
        owner_.store(0, std::memory_order_relaxed);
        mutex_.Unlock();
    }
}

namespace {

// Relaxed, because it orders nothing but itself.
std::atomic<std::uint32_t> next_identifier(1);

} // namespace

id_t unique_id() {
    return next_identifier.fetch_add(1, std::memory_order_relaxed);
}

void detail::continue_identifiers_at(std::uint32_t id) {
    next_identifier = id;
}

namespace {

struct LiveIdsLock;
struct LiveIds;

ThreadMutex& live_ids_lock() {
    return detail::immortal<ThreadMutex, LiveIdsLock>();
}

// Empty, and so without memory of its own, when the last of them has gone.
std::set<id_t>& live_ids() {
    return detail::immortal<std::set<id_t>, LiveIds>();
}

} // namespace

[[gnu::cold]] id_t detail::draw_live_id() {
    AutoLock const guard(live_ids_lock());
    id_t id;
    do
        id = draw_id();
    while (!live_ids().insert(id).second);
    return id;
}

[[gnu::cold]] void detail::end_live_id(id_t id) {
    AutoLock const guard(live_ids_lock());
    live_ids().erase(id);
}

namespace {

[[gnu::cold]] void split_at_most(std::string const& text, std::string const& separators,
                                 std::vector<std::string>& out, unsigned long cuts) {
    std::vector<std::string> fields; // not out itself, which may hold both texts and moves as it grows
    std::string::size_type begin = 0;
    for (; cuts > 0; --cuts) {
        std::string::size_type const end = text.find_first_of(separators, begin);
        if (end == std::string::npos)
            break;
        fields.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    if (begin < text.size())
        fields.push_back(text.substr(begin));
    out.insert(out.end(), std::make_move_iterator(fields.begin()), std::make_move_iterator(fields.end()));
}

} // namespace

void split(std::string const& text, std::string const& separators, std::vector<std::string>& out) {
    split_at_most(text, separators, out, ULONG_MAX);
}

void split(std::string const& text, std::string const& separators, std::vector<std::string>& out,
           int maxFields) {
    split_at_most(text, separators, out, maxFields > 1 ? static_cast<unsigned long>(maxFields) - 1 : 0);
}

namespace detail {

[[gnu::cold]] void assertion_failed(char const* expression, char const* file, int line) noexcept {
    char text[512];
    int const length =
        std::snprintf(text, sizeof text, "%s:%d: Assertion `%s' failed.\n", file, line, expression);
    if (length > 0) {
        // The process ends here whether or not the text could be written.
        ssize_t const written =
            write(STDERR_FILENO, text, std::min(static_cast<size_t>(length), sizeof text - 1));
        static_cast<void>(written);
    }
    std::abort();
}

} // namespace detail
} // namespace orn::zel
