// SPDX-License-Identifier: MIT
//
// Which descriptors of a large poll set are worth asking poll() about. Internal to the groups. An epoll set
// mirrors the poll set and names candidates; what is true of them is for poll() to say, which the group
// calls.
#ifndef ZEL_SRC_READINESS_HPP
#define ZEL_SRC_READINESS_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <poll.h>
#include <sys/epoll.h>

#include "idTable.hpp"

namespace orn::zel::detail {

// Tests change these, so that small sets go through all of this.
//
// A group has an epoll set from when its poll set has more entries than this until it has fallen to half of
// it. For fewer, poll() of everything costs less.
extern std::size_t readiness_threshold;
// A loop asks poll() about everything while its latest results were one in so many entries or more: two
// answers for one entry, the epoll set's and poll()'s, cost what poll() of that many does.
extern std::size_t readiness_crowd;

// The kernel's epoll set follows files and not descriptor numbers. A number that is closed leaves it without
// a word, one that is opened again as another file is not in it, and a file that lives on under another
// number stays in it and cannot be taken out. Candidates are therefore only a hint, and each so many
// questions the answer is "ask poll() about everything": what that finds is told to confirm(), which mends
// the set.
//
// Only the group's runner calls this. Costs one descriptor. While there is none, or no memory in the kernel,
// every question has the answer "ask poll() about everything"; the epoll set is tried again when an audit
// would have been due.
class Readiness {
public:
    struct Watch {
        int fd;
        short events;
        int owner;
        std::uint64_t stamp; // another one means that the number may stand for another file
    };

    Readiness();
    ~Readiness();
    Readiness(Readiness const&) = delete;
    Readiness& operator=(Readiness const&) = delete;

    // Says what is watched, all of it: those that are not set between begin() and end() are dropped. What has
    // not changed costs no system call.
    void begin() { ++round_; }
    void end();
    // Change one. Setting what is watched already replaces it.
    void set(Watch const& watch);
    void drop(int fd);

    std::size_t size() const { return slots_.size(); }
    // Of a descriptor that is watched. The place is the asker's own, who may note where its entry is.
    int owner(int fd) const { return slot_of(fd)->owner; }
    std::uint32_t& place(int fd) { return slot_of(fd)->place; }

    // Asks poll() about all entries that may be ready, without waiting. Fills them in, in no order, and
    // returns what poll() does. Nothing: ask poll() about everything.
    std::optional<int> ask(std::vector<pollfd>& named);

    // Whether the latest question had that answer because it was time for it. If so, poll() has to be asked,
    // confirm() told what it has found, and then audited() called.
    bool audits() const { return audits_; }
    void audited();

    // Makes sure that the file that the descriptor stands for now is in the epoll set. Does nothing for one
    // that is not watched.
    void confirm(int fd);

    // In a child of fork(): closes all epoll sets, which are the parent's. Signal-safe. They are made anew
    // when they are next asked.
    static void forked();

private:
    struct Slot {
        std::uint64_t stamp;
        std::uint32_t serial; // what the kernel is given with the number
        std::uint32_t round;  // of begin(), in which it was set
        int fd;
        int owner;
        short events;
        bool polled; // not in the epoll set, so poll() is always asked about it: unfit for it, or hot
        bool hot;
        unsigned latest; // question that had a result
        unsigned streak; // of questions with results
        std::uint32_t place;
    };

    void open();
    void close();
    void shut();
    bool renew();
    std::size_t questions_to_audit() const;
    Slot* slot_of(int fd) const { return slots_.find(static_cast<id_t>(fd)); }
    Slot& new_slot(int fd);
    void drop(Slot& slot);
    int control(int operation, Slot const& slot) const;
    void enter(Slot& slot);
    void poll_always(Slot& slot);
    void forget_polled(Slot& slot);
    int poll_told(std::vector<pollfd>& named, std::size_t first);
    int poll_hot_first(std::vector<pollfd>& named);
    bool tell(std::vector<pollfd>& named);
    void note(Slot& slot, short result);
    void confirm(Slot& slot);

    std::atomic<int> epoll_; // -1 when there is none; a child of fork() finds it closed
    bool refused_;           // it is not to be used before it has been made anew
    bool dead_;              // the set tells of files that nobody watches any more
    bool quiet_;             // it told of nothing when it was last asked
    bool audits_;
    std::size_t asked_; // questions since the latest audit, or since the epoll set was refused
    unsigned question_;
    std::size_t hot_;
    std::uint32_t serials_;
    std::uint32_t round_;
    IdTable<Slot> slots_; // by descriptor, of what is watched
    std::vector<Slot*> polled_;
    std::vector<Slot*> named_; // by the present question
    std::vector<epoll_event> events_;
    Readiness* previous_; // of all, for forked(); the fork barrier guards the links
    Readiness* next_;
};

} // namespace orn::zel::detail

#endif
