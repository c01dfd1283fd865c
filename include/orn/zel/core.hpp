// SPDX-License-Identifier: MIT
//
// The primitives that everything else in zel stands on: locks, process-unique identifiers, exceptions, a
// value that may be missing, a re-entry guard and a string splitter. Public. Knows nothing of poll loops or
// threads; those are in threadGroup.hpp.
//
// From examples/20_core.cpp:
//
//     orn::zel::ThreadMutex mutex;
//     std::map<orn::zel::id_t, std::string> table;
//     std::vector<std::string> fields;
//     orn::zel::split("red:green;blue", ":;", fields);
//     for (std::string const& field : fields) {
//         orn::zel::AutoLock const guard(mutex);
//         table[orn::zel::unique_id()] = field;
//     }
#ifndef ORN_ZEL_CORE_HPP
#define ORN_ZEL_CORE_HPP

#include <atomic>
#include <exception>
#include <ostream>
#include <string>
#include <vector>

#include <orn/api.h>
#include <orn/os/o_pthread.h>
#include <orn/zel/annotations.hpp>

namespace orn {

// Base of every exception that zel throws. Both texts are copied and live as long as the exception.
class ORN_API Exception : public std::exception {
public:
    Exception(std::string const& message, std::string const& details)
        : message_(message), details_(details) {}
    ~Exception() override;

    char const* what() const noexcept override { return message_.c_str(); }
    virtual char const* details() const noexcept { return details_.c_str(); }

private:
    std::string message_;
    std::string details_;
};

} // namespace orn

namespace orn::zel {

// Misuse at run time, with a fixed text per case ("invalid FD (-1)", "NULL handler", ...); no details.
class ORN_API Exception : public orn::Exception {
public:
    explicit Exception(char const* what) : orn::Exception(what, "") {}
    explicit Exception(std::string const& what) : orn::Exception(what, "") {}
    ~Exception() override;
};

// "undefined value": the value of a PossiblyUndefined was asked for and there is none.
class ORN_API UndefinedValue : public Exception {
public:
    UndefinedValue() : Exception("undefined value") {}
    ~UndefinedValue() override;
};

// The interface of whatever can be locked.
class ORN_API ZEL_CAPABILITY("mutex") Lockable {
public:
    virtual ~Lockable();
    virtual void Lock() ZEL_ACQUIRE() = 0;
    virtual void Unlock() ZEL_RELEASE() = 0;
};

// The null lock: for code that is written against Lockable but runs in one thread only.
class ORN_API ZEL_CAPABILITY("mutex") Mutex : public Lockable {
public:
    ~Mutex() override;
    void Lock() override ZEL_ACQUIRE();
    void Unlock() override ZEL_RELEASE();
};

// The real lock: excludes other threads, is not recursive, and must be unlocked by the thread that locked it.
class ORN_API ZEL_CAPABILITY("mutex") ThreadMutex : public Mutex {
public:
    ThreadMutex();
    ~ThreadMutex() override;
    void Lock() override ZEL_ACQUIRE();
    void Unlock() override ZEL_RELEASE();

    ThreadMutex(ThreadMutex const&) = delete;
    ThreadMutex& operator=(ThreadMutex const&) = delete;

private:
    o_pthread_mutex_t mutex_;
};

// A real lock that its holder may take again, and that is free when the holder has unlocked it as often. The
// kind that HandlerList works with.
class ORN_API ZEL_CAPABILITY("mutex") RecursiveThreadMutex : public Mutex {
public:
    RecursiveThreadMutex();
    // Takes another lock, once for all levels, in place of one of its own. The other must outlive this.
    explicit RecursiveThreadMutex(Mutex& other);
    ~RecursiveThreadMutex() override;
    void Lock() override ZEL_ACQUIRE();
    void Unlock() override ZEL_RELEASE();

    RecursiveThreadMutex(RecursiveThreadMutex const&) = delete;
    RecursiveThreadMutex& operator=(RecursiveThreadMutex const&) = delete;

private:
    ThreadMutex own_;
    Mutex& mutex_;
    std::atomic<int> owner_; // 0 when free; a thread that finds its id here has set it itself
    unsigned depth_;
};

// Holds a lock for a scope. The lock must outlive the scope.
class ZEL_SCOPED_CAPABILITY AutoLock {
public:
    explicit AutoLock(Lockable& lock) ZEL_ACQUIRE(lock) : lock_(lock) { lock_.Lock(); }
    ~AutoLock() ZEL_RELEASE() { lock_.Unlock(); }

    AutoLock(AutoLock const&) = delete;
    AutoLock& operator=(AutoLock const&) = delete;

private:
    Lockable& lock_;
};

// Identifies a handler, alarm, task, group or manager within the process; 0 means none.
using id_t = unsigned long;

// The next identifier: 1, 2, 3, ... over all subsystems together. Any thread. The counter is 32 bits
// wide whatever the width of id_t, because identifiers travel through pipes as four bytes; after 4294967295
// it wraps to 0, and no identifier is skipped then. Takes no lock.
ORN_API id_t unique_id();

namespace detail {

// An identifier other than 0, which means none. After the counter has wrapped it may be that of something
// alive, so who looks things up by their identifier draws again while it is taken.
inline id_t draw_id() {
    id_t id;
    do
        id = unique_id();
    while (id == 0);
    return id;
}

} // namespace detail

// A typed identifier, so that it prints as a number and is not mistaken for one.
template <class T>
class basic_Id {
public:
    explicit basic_Id(T value) : value_(value) {}
    virtual ~basic_Id() {}
    basic_Id(basic_Id const&) = default;
    basic_Id& operator=(basic_Id const&) = default;

    T value() const { return value_; }

private:
    T value_;
};

// The value in decimal, with the stream's current formatting.
inline std::ostream& operator<<(std::ostream& os, basic_Id<unsigned long> const& id) {
    return os << id.value();
}

// Base of what carries an identifier of its own. Draws on the same counter as unique_id().
template <class T>
class basic_ProcessUnique {
public:
    virtual ~basic_ProcessUnique() {}
    static T next_id() { return static_cast<T>(unique_id()); }

protected:
    basic_ProcessUnique() = default;
    basic_ProcessUnique(basic_ProcessUnique const&) = default;
    basic_ProcessUnique& operator=(basic_ProcessUnique const&) = default;
};

class UniqueId : public basic_ProcessUnique<unsigned long> {};

// A value that may not be there yet. Copying carries the missing state; assigning refuses it.
template <class T>
class PossiblyUndefined {
public:
    PossiblyUndefined() : undefined_(true), value_() {}
    explicit PossiblyUndefined(T const& value) : undefined_(false), value_(value) {}
    PossiblyUndefined(PossiblyUndefined const&) = default;
    virtual ~PossiblyUndefined() {}

    virtual PossiblyUndefined& operator=(T const& value) {
        value_ = value;
        undefined_ = false;
        return *this;
    }

    // Throws UndefinedValue when the other has none; this one is then as before.
    virtual PossiblyUndefined& operator=(PossiblyUndefined const& other) { return *this = other.value(); }

    bool undefined() const { return undefined_; }

    // Throws UndefinedValue when there is none.
    T const& value() const {
        if (undefined_)
            throw UndefinedValue();
        return value_;
    }

private:
    bool undefined_;
    T value_;
};

// Tells a section of code whether it is already active further up the stack. Reads true when the flag was set
// on entry; puts the flag back when the scope ends, however it ends. Not synchronised: one thread only.
class RecursionCheck {
public:
    explicit RecursionCheck(bool& flag) : flag_(&flag), entered_(flag) { flag = true; }
    ~RecursionCheck() { *flag_ = entered_; }
    operator bool() const { return entered_; }

    RecursionCheck(RecursionCheck const&) = delete;
    RecursionCheck& operator=(RecursionCheck const&) = delete;

private:
    bool* flag_;
    bool entered_;
};

// Appends the fields of text to out, which is not cleared. Each character of separators separates by itself;
// separators side by side give an empty field between them, one at the start gives a leading empty field, one
// at the end gives none.
ORN_API void split(std::string const& text, std::string const& separators, std::vector<std::string>& out);

// The same with at most maxFields fields, the last of which keeps its separators; 1 or less gives the text
// whole.
ORN_API void split(std::string const& text, std::string const& separators, std::vector<std::string>& out,
                   int maxFields);

namespace detail {

// Prints "<file>:<line>: Assertion `<expression>' failed." on stderr and aborts, in every build type.
[[noreturn]] ORN_API void assertion_failed(char const* expression, char const* file, int line) noexcept;

inline void check(bool holds, char const* expression, char const* file, int line) noexcept {
    if (__builtin_expect(!holds, 0))
        assertion_failed(expression, file, line);
}

} // namespace detail
} // namespace orn::zel

#endif
