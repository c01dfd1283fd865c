// SPDX-License-Identifier: MIT
//
// Large poll sets, which are asked about through an epoll set: what that hides, and that nobody can tell. The
// other tests of the loop run a second time with it, whatever the size of their sets.
#include <random>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "../src/readiness.hpp"
#include "support/Messages.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;
using orn::zel::detail::Readiness;

namespace {

int allocations_left = -1; // before one fails; any number when negative

} // namespace

#ifndef __SANITIZE_ADDRESS__ // which looks after new and delete itself
void* operator new(std::size_t size) {
    void* const memory = allocations_left == 0 ? nullptr : std::malloc(size);
    allocations_left -= allocations_left >= 0 ? 1 : 0;
    return memory ? memory : throw std::bad_alloc();
}
#endif

namespace {

int idle_descriptor() {
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// ---- The epoll set by itself ----------------------------------------------------------------------------

class ReadinessSet : public testing::Test {
protected:
    void watch(int fd, std::uint64_t stamp) { set.set({fd, POLLIN, 1, stamp}); }

    // What is asked about, by number, with an exclamation mark behind what is ready; "all" when that is
    // everything.
    std::string ask() {
        std::vector<pollfd> named;
        std::optional<int> const ready = set.ask(named);
        if (!ready)
            return "all";
        std::sort(named.begin(), named.end(),
                  [](auto const& left, auto const& right) { return left.fd < right.fd; });
        std::string text;
        for (pollfd const& entry : named) {
            text += text.empty() ? "" : " ";
            text += std::to_string(entry.fd) + (entry.revents != 0 ? "!" : "");
        }
        EXPECT_EQ(std::count(text.begin(), text.end(), '!'), *ready);
        return text;
    }
    // Asks until everything is to be asked about, and confirms what the caller of poll() would.
    int audit(std::vector<int> const& ready) {
        int questions = 0;
        while (ask() != "all" && questions < 10000)
            ++questions;
        EXPECT_TRUE(set.audits());
        for (int const fd : ready)
            set.confirm(fd);
        set.audited();
        return questions;
    }
    static std::string ready(int fd) { return std::to_string(fd) + '!'; }

    Readiness set;
    orn::os::Pipe one{false};
    orn::os::Pipe two{false};
};

TEST_F(ReadinessSet, names_what_is_ready_and_what_epoll_refuses) {
    TempFile const file;
    int const regular = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
    watch(one.ReadFD(), 1);
    watch(two.ReadFD(), 2);
    EXPECT_EQ("", ask());
    put(one.WriteFD(), "x");
    put(two.WriteFD(), "x");
    for (int question = 0; question < 30;
         ++question) // told by the epoll set first, and then known to be busy
        ASSERT_EQ(ready(one.ReadFD()) + ' ' + ready(two.ReadFD()), ask());
    take(one.ReadFD());
    watch(regular, 3);
    for (int question = 0; question < 30; ++question)
        ASSERT_NE(std::string::npos, ask().find(ready(two.ReadFD()))) << question;
    EXPECT_EQ(ready(two.ReadFD()) + ' ' + ready(regular), ask());
    set.begin();
    watch(one.ReadFD(), 1);
    set.end();
    EXPECT_EQ("", ask());
    EXPECT_EQ(1u, set.size());
    close(regular);
}

TEST_F(ReadinessSet, an_audit_finds_a_number_that_stands_for_another_file) {
    int const number = dup(one.ReadFD());
    watch(number, 1);
    EXPECT_EQ("", ask());
    ASSERT_EQ(number, dup2(two.ReadFD(), number)); // the first file lives on in the pipe
    put(two.WriteFD(), "x");
    EXPECT_EQ("", ask()) << "which is what an audit is for";
    EXPECT_GE(64, audit({number}));
    EXPECT_EQ(ready(number), ask());
    // The old file tells of itself under the same number, and is got rid of.
    take(number);
    put(one.WriteFD(), "x");
    EXPECT_EQ("", ask());
    audit({});
    EXPECT_EQ("", ask());
    put(two.WriteFD(), "x");
    EXPECT_EQ(ready(number), ask());
    close(number);
    watch(number, 2);
    EXPECT_EQ(ready(number), ask()) << "POLLNVAL is a result";
    EXPECT_EQ(1u, set.size());
}

TEST_F(ReadinessSet, names_no_descriptor_twice) {
    int const number = dup(one.ReadFD());
    watch(number, 1);
    EXPECT_EQ("", ask());
    ASSERT_EQ(number, dup2(two.ReadFD(), number)); // the first file lives on in the pipe
    put(one.WriteFD(), "x");
    put(two.WriteFD(), "x");
    for (int question = 0; question < 4; ++question) // known to be busy by the last one
        ASSERT_EQ(ready(number), ask());
    take(one.ReadFD());
    take(two.ReadFD());
    for (int question = 0; question < 20; ++question) // and known to be idle
        ask();
    put(one.WriteFD(), "x");
    put(two.WriteFD(), "x");
    EXPECT_EQ(ready(number), ask());
    close(number);
}

TEST_F(ReadinessSet, is_not_in_a_child_and_goes_without_while_there_is_no_descriptor) {
    watch(one.ReadFD(), 1);
    put(one.WriteFD(), "x");
    EXPECT_EQ(ready(one.ReadFD()), ask());
    std::size_t const with = descriptors().size();
    EXPECT_EQ("exit 0", in_child([&] {
                  bool const gone = descriptors().size() == with - 1;
                  return gone && ask() == ready(one.ReadFD()) && descriptors().size() == with ? 0 : 1;
              }));
    EXPECT_EQ(ready(one.ReadFD()), ask());

    Readiness poor;
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit const none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    poor.set({one.ReadFD(), POLLIN, 1, 1});
    std::vector<pollfd> named;
    EXPECT_FALSE(poor.ask(named));
    setrlimit(RLIMIT_NOFILE, &before);
    int questions = 0; // as many as to an audit; it would be as dear to try each time
    while (!poor.ask(named) && questions < 1000) {
        EXPECT_FALSE(poor.audits());
        ++questions;
    }
    EXPECT_EQ(63, questions);
    EXPECT_EQ(1u, named.size());
    // A number costs the same memory however large it is.
    watch(INT_MAX, 2);
    EXPECT_EQ(ready(one.ReadFD()) + ' ' + ready(INT_MAX), ask()) << "POLLNVAL is a result";
}

TEST_F(ReadinessSet, is_told_again_what_it_had_no_memory_for) {
    TempFile const file;
    int const regular = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
    bool failed = true;
    for (int allocations = 0; failed && allocations < 10; ++allocations) {
        Readiness poor;
        std::vector<pollfd> named;
        poor.set({one.ReadFD(), POLLIN, 1, 1});
        EXPECT_EQ(0, poor.ask(named)); // makes the epoll set
        allocations_left = allocations;
        try {
            poor.set({regular, POLLIN, 1, 1});
            failed = false;
        } catch (std::bad_alloc const&) {
        }
        allocations_left = -1;
        poor.set({regular, POLLIN, 1, 1});
        EXPECT_EQ(1, poor.ask(named)) << allocations;
        poor.ask(named);
        poor.set({regular, POLLIN, 1, 2});
        poor.drop(regular);
        EXPECT_EQ(0, poor.ask(named)) << allocations;
    }
    EXPECT_FALSE(failed);
    close(regular);
}

// ---- A large group --------------------------------------------------------------------------------------

class LargeGroup : public Loop {
protected:
    void watch_idle(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            idle.push_back(idle_descriptor());
            receptors.push_back(std::make_unique<fd::AutoReceptor>(idle.back(), [](fd::Event*) {}));
        }
    }
    ~LargeGroup() override {
        receptors.clear();
        for (int const fd : idle)
            close(fd);
    }

    std::vector<int> idle;
    std::vector<std::unique_ptr<fd::AutoReceptor>> receptors;
};

TEST_F(LargeGroup, costs_a_descriptor_while_it_is_large_and_sees_what_was_closed_within_bounds) {
    thread::ThisGroup();
    std::size_t const small = descriptors().size();
    std::size_t const count = 40;
    watch_idle(count);
    WatchedPipe busy;
    settle();
    EXPECT_EQ(small + count + 3, descriptors().size());
    short seen = 0;
    int const closed = idle_descriptor();
    fd::AutoReceptor const receptor(closed, [&](fd::Event* event) { seen = event->revents(); });
    settle();
    close(closed); // behind the loop's back, which is never idle
    std::size_t turns = 0;
    for (; seen == 0 && turns < 1000; ++turns) {
        busy.feed();
        RunOnce(-1);
    }
    EXPECT_EQ(POLLNVAL, seen);
    EXPECT_GE(4 * (count + 4), turns);
    receptors.clear();
    settle();
    EXPECT_EQ(small + count + 2, descriptors().size());
}

// Another member may register a descriptor while the epoll set is being made, and so between the two looks at
// the registrations.
TEST_F(LargeGroup, counts_a_descriptor_that_two_members_watch_twice) {
    watch_idle(40);
    WatchedPipe busy;
    settle();
    thread::ThisGroup()->insert(1 << 30);
    auto const second = fd::Fd(busy.ReadFD(), thread::FdMgr(1 << 30));
    settle();
    second->insert([](fd::Event*) {});
    thread::ThisGroup()->setup_pollset();
    busy.feed(); // the second handler takes nothing
    for (int turn = 0; turn < 100; ++turn)
        RunOnce(-1);
    EXPECT_EQ(2, RunOnce(-1));
}

// /proc/mounts has POLLPRI once for each change, for whoever asks first.
TEST_F(LargeGroup, tells_of_what_is_told_but_once) {
    int const refused = 77;
    std::string const outcome = in_child([this] {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return refused;
        int const mounts = open("/proc/self/mounts", O_RDONLY | O_CLOEXEC);
        watch_idle(40);
        WatchedPipe busy;
        short seen = 0;
        auto const monitor = Fd(mounts);
        monitor->events(POLLPRI);
        monitor->insert([&](fd::Event* event) { seen = event->revents(); });
        for (int turn = 0; turn < 105 && seen == 0; ++turn) { // the loop is busy by the hundredth
            if (turn == 100 && mount("none", "/tmp", "tmpfs", 0, nullptr) != 0)
                return refused;
            busy.feed();
            RunOnce(-1);
        }
        return seen == (POLLPRI | POLLERR) ? 0 : 1;
    });
    if (outcome == "exit 77")
        GTEST_SKIP() << "no mount namespace of its own is allowed here";
    EXPECT_EQ("exit 0", outcome);
}

// ---- The same by either way -----------------------------------------------------------------------------

// Goes through a script of things that a program may do, made from a seed, and writes down which handlers
// were called in each turn, and what the turn returned. Closes no descriptor behind the loop's back. The poll
// set has descriptors of three members, two of whom are no threads. It is changed in place, or always built
// anew.
class Script {
public:
    Script(unsigned seed, bool anew) : random_(seed), anew_(anew) {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, way_));
        for (int const tid : {1, thread::self(), 1 << 30}) {
            thread::ThisGroup()->insert(tid);
            managers_.push_back(thread::FdMgr(tid));
        }
    }

    std::string run() {
        for (Place& place : places_)
            reopen(place);
        for (int step = 0; step < 60; ++step) {
            for (int i = below(4); i >= 0; --i)
                act();
            turn();
        }
        for (Place& place : places_) {
            withdraw(place);
            close(place.fd);
            close(place.write_end);
        }
        while (RunOnce(0) > 0) {
        }
        close(way_[0]);
        close(way_[1]);
        return log_;
    }

private:
    struct Place {
        int fd = -1;
        int write_end = -1;
        boost::shared_ptr<fd::Monitor> monitor;
        boost::shared_ptr<fd::Monitor> second; // of another member
    };

    int below(int end) { return static_cast<int>(random_() % static_cast<unsigned>(end)); }

    // Numbers stay the same, whatever other descriptors there are. The former file may live on, under another
    // number or on its way through a socket, and the new one may be another place's.
    void reopen(Place& place) {
        Place const& other = places_[below(places)];
        int ends[2] = {dup(other.fd), dup(other.write_end)};
        if (below(4) != 0 || ends[0] == -1 || ends[1] == -1) {
            close(ends[0]);
            close(ends[1]);
            bool const made =
                (below(2) == 0 ? pipe2(ends, O_NONBLOCK)
                               : socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends)) == 0;
            ASSERT_TRUE(made);
        }
        if (below(2) == 0)
            fcntl(place.fd, F_DUPFD_CLOEXEC, 900 + below(50));
        else if (place.fd != -1 && below(2) == 0)
            messages::bare_send(way_[0], "x", {place.fd});
        int const number = 500 + 2 * static_cast<int>(&place - places_);
        place.fd = dup3(ends[0], number, O_CLOEXEC);
        place.write_end = dup3(ends[1], number + 1, O_CLOEXEC);
        close(ends[0]);
        close(ends[1]);
    }

    void act() {
        Place& place = places_[below(places)];
        switch (below(10)) {
        case 0:
            withdraw(place);
            break;
        case 1: // closed and opened again, with the registration withdrawn before
            withdraw(place);
            reopen(place);
            watch(place);
            break;
        case 2:
            watch(place);
            if (below(8) == 0)
                place.second = watched(place, below(3));
            break;
        case 3: // of another file, whose number this has been before
            if (!place.monitor)
                reopen(place);
            break;
        case 4:
            close(950 - below(50));
            break;
        case 5: // which closes what came with it
            recv(way_[1], nullptr, 0, MSG_DONTWAIT);
            break;
        case 6: // a result without end
            if (below(4) == 0)
                close(place.write_end);
            break;
        default:
            if (write(place.write_end, "x", 1) != 1)
                log_ += "full ";
        }
    }

    static void withdraw(Place& place) {
        place.monitor.reset();
        place.second.reset();
    }

    void watch(Place& place) {
        withdraw(place);
        place.monitor = watched(place, static_cast<int>(&place - places_) % 3);
    }

    boost::shared_ptr<fd::Monitor> watched(Place& place, int member) {
        auto const monitor = fd::Fd(place.fd, managers_[static_cast<std::size_t>(member)]);
        if (below(8) == 0)
            monitor->events(POLLIN | POLLOUT);
        monitor->insert([this, &place](fd::Event* event) { handle(place, event); });
        return monitor;
    }

    void handle(Place& place, fd::Event* event) {
        log_ += std::to_string(&place - places_) + '/' + std::to_string(event->revents()) + ' ';
        char bytes[2];
        if (below(5) != 0 && read(event->fd(), bytes, sizeof bytes) < 0)
            log_ += "nothing ";
        switch (below(12)) {
        case 0:
            act();
            break;
        case 1:
            if (depth_ < 3)
                turn();
            break;
        case 2: {
            pollfd entry = {places_[below(places)].fd, POLLIN, 0};
            int const ready = RunUntilEventOnFdSet(&entry, 1, 0);
            log_ += "until=" + std::to_string(ready) + '/' + std::to_string(entry.revents) + ' ';
            break;
        }
        case 3:
            throw std::runtime_error("handler");
        default:
            break;
        }
    }

    void turn() {
        ++depth_;
        log_ += "( ";
        for (auto const& manager : managers_) {
            if (anew_)
                manager->outdate();
        }
        try {
            log_ += std::to_string(RunOnce(0)) + ' ';
        } catch (std::runtime_error const&) {
            log_ += "thrown ";
        }
        log_ += ") ";
        --depth_;
    }

    static int const places = 12;

    std::mt19937 random_;
    bool const anew_;
    std::vector<boost::shared_ptr<fd::Manager>> managers_;
    Place places_[places];
    int way_[2];
    std::string log_;
    int depth_ = 0;
};

TEST_F(LargeGroup, calls_the_same_handlers_in_the_same_order_as_a_small_one) {
    unsigned const first = static_cast<unsigned>(number_from("ZEL_TEST_SEED", 1));
    unsigned const count = static_cast<unsigned>(number_from("ZEL_TEST_SCRIPTS", 40));
    for (unsigned seed = first; seed < first + count; ++seed) {
        std::string logs[2];
        for (int way = 0; way < 2; ++way) {
            Replaced const threshold(detail::readiness_threshold, way == 0 ? SIZE_MAX : std::size_t(0));
            Replaced const crowd(detail::readiness_crowd, seed % 4 == 0 ? std::size_t(4) : std::size_t(0));
            NewThreadGroup();
            while (RunOnce(0) > 0) {
            }
            logs[way] = Script(seed, way == 0).run();
            for (int fd = 900; fd < 1000; ++fd)
                close(fd);
        }
        ASSERT_EQ(logs[0], logs[1]) << "ZEL_TEST_SEED=" << seed << " ZEL_TEST_SCRIPTS=1";
    }
}

} // namespace
