// SPDX-License-Identifier: MIT
//
// Who wishes to see the loops' spans, and what they get: "inspect trace" and "inspect timing". Internal to
// the command channel. The spans come from the loops' records (loopRecord.hpp).
#ifndef ZEL_SRC_TRACE_HPP
#define ZEL_SRC_TRACE_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <orn/zel/core.hpp>

#include "json.hpp"
#include "loopRecord.hpp"

namespace orn::zel::detail {

class Answer;

// How long a wish lasts that nobody renews. Tests do not wait for so long.
extern std::uint64_t trace_wish_ns;

// How long the callbacks take, one entry for each handler that has been called. The entries that were called
// least lately go when there are too many: every one-shot alarm has an identifier of its own.
class TimingTable {
public:
    void add(id_t group, Span const& span);
    void tell(Answer& answer) const;
    // In whatever group it was; 0 when there is no such entry.
    std::uint64_t longest_ns(Doing doing, std::uint32_t id) const;
    unsigned long dropped() const { return dropped_; }

private:
    static constexpr std::size_t most = 1024;
    static constexpr std::size_t powers = 40; // 2 to the 40th nanosecond is 18 minutes

    using Key = std::tuple<Doing, std::uint32_t, id_t>; // the group comes last
    struct Entry {
        Key key;
        int tid;
        unsigned long count;
        std::uint64_t total_ns;
        std::uint64_t longest_ns;
        std::array<unsigned long, powers> histogram;
    };

    std::list<Entry> entries_; // in the order of their latest calls
    std::map<Key, std::list<Entry>::iterator> by_key_;
    unsigned long dropped_ = 0;
};

// The command thread's, for as long as it serves. No lock: all of it runs on that thread.
class Trace {
public:
    enum class Topic { trace, timing };

    Trace();
    ~Trace();
    Trace(Trace const&) = delete;
    Trace& operator=(Trace const&) = delete;

    // The calling thread's; null on any other than the command thread.
    static Trace* current() { return serving; }

    // How long the command thread may sleep: -1 when nobody wishes to see anything.
    int wait_ms() const;
    // Takes the spans out of the loops' rings and hands them on. Once after each of its turns.
    void serve();

    // A wish ends by itself when nobody reads the descriptor any more, or ten seconds after it was last
    // renewed. wish() makes or renews it. False when there is none, for want of memory.
    bool wish(Topic topic, int fd);
    void withdraw(Topic topic, int fd);
    // Must come before the descriptor is closed.
    void forget(int fd);
    bool wishes(Topic topic, int fd) const;
    // How many spans there was no room for: since the latest line of the trace that said so, or since the
    // times are taken.
    unsigned long lost(Topic topic, int fd) const;

    TimingTable const& timing() const { return *timing_; }
    void list(Json& object) const;

private:
    struct Wish {
        Topic topic;
        int fd;
        std::uint64_t until_ns;
        // By group; 0 is for all that have gone. Those that have lost nothing are not in it.
        std::map<id_t, unsigned long> lost;
    };
    // A group's record, kept until the last span is out of it.
    struct Source {
        std::shared_ptr<LoopRecord> record;
        unsigned long lost;
    };

    Wish const* find(Topic topic, int fd) const;
    bool wished(Topic topic) const;
    void end_wishes();
    bool find_sources();
    void drain(id_t group, Source& source);
    void forget_group(id_t group);
    void send(id_t group, Span const* spans, std::size_t count);
    void send_line(Wish& wish, id_t group, std::string const& events, std::size_t count);
    void stop();

    static thread_local Trace* serving;

    std::vector<Wish> wishes_;
    std::map<id_t, Source> sources_;
    std::unique_ptr<TimingTable> timing_;
    std::vector<Span> spans_;
    bool busy_ = false; // a ring was filling up
};

} // namespace orn::zel::detail

#endif
