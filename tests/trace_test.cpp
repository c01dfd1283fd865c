// SPDX-License-Identifier: MIT
//
// Traces and times of loops, as the word "inspect" hands them out.
#include <new>

#include <orn/clock.hpp>
#include <orn/os/Thread.hpp>

#include "../src/cmd.hpp"
#include "../src/loopRecord.hpp"
#include "../src/trace.hpp"
#include "support/Viewer.hpp"

using namespace orn::zel;
using namespace support;

namespace {

std::atomic<int> rings_left(-1); // before there is no memory for another; any number when negative

} // namespace

#ifndef __SANITIZE_ADDRESS__ // which looks after new and delete itself
void* operator new(std::size_t size, std::align_val_t alignment) {
    bool const is_ring = size == sizeof(detail::SpanRing);
    void* const memory =
        is_ring && rings_left == 0 ? nullptr : std::aligned_alloc(static_cast<std::size_t>(alignment), size);
    rings_left -= is_ring && rings_left > 0 ? 1 : 0;
    return memory ? memory : throw std::bad_alloc();
}
#endif

namespace {

using Traces = InspectedLoop;

// Work of all kinds, with a nested turn and a move to another group in the midst.
void make_spans(int rounds) {
    int alarms = 0;
    int slices = 0;
    signal::AutoReceptor const watched(SIGUSR2, [](int) {});
    WatchedPipe const inner;
    WatchedPipe const pipe([&] {
        inner.feed();
        RunOnce(-1);
    });
    orn::zel::Alarm const ticks(1, 1, [&] { ++alarms; });
    RunTask([&](task::Controller* self) {
        if (++slices >= rounds)
            self->Complete();
        else if (slices % 7 == 0)
            RunOnce(0);
    });
    for (int i = 0; i < rounds || alarms == 0 || slices < rounds; ++i) {
        pipe.feed();
        if (i % 10 == 0)
            raise(SIGUSR2);
        RunOnce(-1);
    }
}

TEST_F(Traces, a_trace_nests_and_agrees_with_the_counters_and_the_times) {
    Json const before = look();
    EXPECT_EQ("on", viewer.ask("trace on").at(0)["trace"]);
    EXPECT_EQ("on", viewer.ask("timing on").at(0)["timing"]);
    worker.run([] {
        make_spans(100);
        settle();
    });
    Objects const times = viewer.ask("timing");
    EXPECT_EQ("off", viewer.ask("trace off").at(0)["trace"]);
    EXPECT_EQ(0, viewer.lost[worker.group]);
    Json const after = look();

    std::map<std::string, int> count;
    std::map<std::pair<std::string, int>, std::uint64_t> total;
    Objects spans;
    for (Json const& span : viewer.spans) {
        if (span["group"] != worker.group)
            continue;
        EXPECT_EQ(worker.tid, span["tid"]);
        EXPECT_LE(span["begin"], span["end"]);
        ++count[span["kind"]];
        total[{span["kind"], span["id"]}] +=
            span["end"].get<std::uint64_t>() - span["begin"].get<std::uint64_t>();
        // They come in the order of their ends, so what has begun later is inside, and complete.
        while (!spans.empty() && spans.back()["begin"] >= span["begin"])
            spans.pop_back();
        EXPECT_TRUE(spans.empty() || spans.back()["end"] <= span["begin"]) << span;
        spans.push_back(span);
    }
    EXPECT_EQ(after["turns"].get<int>() - before["turns"].get<int>(), count["turn"]);
    EXPECT_EQ(after["dispatches"].get<int>() - before["dispatches"].get<int>(), count["fd"]);
    EXPECT_EQ(100, count["task"]);
    EXPECT_LE(10, count["signal"]);
    EXPECT_LE(1, count["alarm"]);

    std::map<std::string, int> timed;
    for (Json const& entry : times) {
        if (entry.value("group", 0) != worker.group)
            continue;
        timed[entry["kind"]] += entry["count"].get<int>();
        EXPECT_EQ((total[{entry["kind"], entry["id"]}]), entry["total_ns"]);
        EXPECT_LE(entry["longest_ns"], entry["total_ns"]);
        int in_histogram = 0;
        for (Json const& each : entry["histogram"])
            in_histogram += each.get<int>();
        EXPECT_EQ(entry["count"], in_histogram);
    }
    count.erase("turn");
    count.erase("sleep");
    EXPECT_EQ(count, timed);
}

TEST_F(Traces, a_trace_tells_when_alarms_were_due_and_signals_came_and_times_the_longest_slice) {
    using orn::internal::now_ns;
    unsigned long again = 0;
    std::unique_ptr<Task> slow;
    std::uint64_t times[4] = {};
    int fired = 0;
    worker.run([&] {
        slow = std::make_unique<Task>([](task::Controller* self) { self->Sleep(); });
        times[0] = now_ns();
        again = alarm::manager()->AddAlarm(50, 50, [&] { ++fired; });
        times[1] = now_ns();
    });
    viewer.ask("trace on");
    viewer.ask("timing on");
    worker.run([&] {
        signal::AutoReceptor const watched(SIGUSR2, [](int) {});
        times[2] = now_ns();
        raise(SIGUSR2);
        times[3] = now_ns();
        SetAlarm(0, [&] { ++fired; });
        slow->Run();
        while (fired < 4)
            RunOnce(-1);
        alarm::manager()->DeleteAlarm(again);
    });
    Json const timed = viewer.find("timing", "kind", "task");
    Json const task = viewer.find("tasks", "thread", worker.tid);
    EXPECT_EQ((Json{timed["id"], timed["longest_ns"]}), (Json{task["task"], task["longest_ns"]}));
    viewer.ask("timing off");
    EXPECT_FALSE(viewer.find("tasks", "thread", worker.tid).contains("longest_ns"));

    std::set<std::string> known;
    for (Json const& span : viewer.spans) {
        if (span["group"] != worker.group || span["late"] == 0)
            continue;
        std::uint64_t const came = span["begin"].get<std::uint64_t>() - span["late"].get<std::uint64_t>();
        known.insert(span["id"] == again ? "again" : span["kind"]);
        if (span["id"] == again) // armed before the trace, and keeps its phase
            EXPECT_LE((came - times[0]) % 50000000, times[1] - times[0]) << span;
        else
            EXPECT_TRUE(times[2] <= came && (span["kind"] == "alarm" || came <= times[3])) << span;
    }
    EXPECT_EQ((std::set<std::string>{"again", "alarm", "signal"}), known);
}

TEST_F(Traces, what_does_not_fit_is_counted_to_the_last_span) {
    auto const ring = std::make_unique<detail::SpanRing>();
    detail::Span span = {};
    for (unsigned long i = 0; i < detail::SpanRing::size + 5; ++i, ++span.id)
        ring->push(span);
    EXPECT_EQ(5u, ring->lost());
    std::vector<detail::Span> taken(10);
    EXPECT_EQ(10u, ring->take(taken.data(), 10));
    EXPECT_EQ(9u, taken[9].id);
    ring->push(span);
    EXPECT_EQ(5u, ring->lost());
    Replaced const however_slow(detail::trace_wish_ns, 1000000000000U);
    Json const before = look();
    viewer.ask("trace on");
    // The client does not read meanwhile, so first its pipe is full and then the ring.
    int const slices = 60000;
    worker.run([&] {
        int left = slices;
        RunTask([&](task::Controller* self) {
            if (--left == 0)
                self->Complete();
        });
        while (left > 0)
            RunOnce(0);
    });
    // Once the pipe is empty again, the next line tells.
    viewer.ask("trace on");
    worker.run([] { RunOnce(0); });
    viewer.ask("trace");
    Json const after = look();
    auto const made = [&](char const* what) { return after[what].get<int>() - before[what].get<int>(); };
    int const got =
        static_cast<int>(std::count_if(viewer.spans.begin(), viewer.spans.end(),
                                       [&](Json const& each) { return each["group"] == worker.group; }));
    EXPECT_LT(0, viewer.lost[worker.group]);
    EXPECT_LT(500, got);
    EXPECT_EQ(slices + made("turns") + made("dispatches"), got + viewer.lost[worker.group]);
}

TEST_F(Traces, a_wish_for_which_there_is_no_memory_is_refused_and_a_new_group_waits_for_it_alone) {
    if (is_sanitized && !has_thread_sanitizer)
        GTEST_SKIP() << "the sanitizer has an operator new of its own";
    for (int const rings : {0, 1}) { // of the two that it takes
        rings_left = rings;
        Json const refusal = viewer.ask("trace on").at(0);
        EXPECT_EQ((Json{"not enough memory", "off"}), (Json{refusal["error"], refusal["trace"]}));
        EXPECT_FALSE(viewer.observed("trace"));
        EXPECT_FALSE(thread::ThisGroup()->record()->traced());
    }
    auto const traced = [this](Worker& one) {
        viewer.ask("trace");
        one.run([] { RunOnce(0); });
        viewer.ask("trace");
        return std::any_of(viewer.spans.begin(), viewer.spans.end(),
                           [&](Json const& span) { return span["group"] == one.group; });
    };
    rings_left = -1;
    EXPECT_EQ("on", viewer.ask("trace on").at(0)["trace"]);
    rings_left = 0;
    Worker another;
    EXPECT_FALSE(traced(another));
    EXPECT_TRUE(traced(worker));
    rings_left = -1;
    EXPECT_TRUE(traced(another));
}

TEST(LoopRecord, tells_no_span_that_began_in_an_earlier_trace_whatever_has_been_traced_inside_of_it) {
    using orn::zel::detail::Doing;
    using orn::zel::detail::LoopRecord;
    orn::zel::detail::Span spans[8];
    LoopRecord record;
    auto const trace_anew = [&] {
        record.stop_tracing();
        record.trace();
    };
    trace_anew();
    {
        LoopRecord::Turn turn(record, LoopRecord::running());
        {
            LoopRecord::Callback<Doing::fd> row(record);
            record.stop_tracing();
            row.next(7);
            trace_anew();
            LoopRecord::Turn nested(record, LoopRecord::running());
            LoopRecord::Callback<Doing::fd> inner(record);
            inner.next(8);
            inner.pause();
        }
    }
    ASSERT_EQ(2u, record.trace().take(spans, 8));
    EXPECT_EQ(8u, spans[0].id);
    EXPECT_EQ(2u, spans[1].id) << "the nested turn";
    EXPECT_EQ(thread::self(), spans[1].tid);
}

TEST(TraceLine, leaves_half_of_a_pipe_to_others_whoever_has_written_what_is_in_it) {
    // 2,100 bytes take a page, and leave no room in it for as many again.
    std::vector<std::size_t> const writers[] = {{2100}, {4096}, {50}, {4000, 10, 90}, {700, 3500, 2100}};
    for (std::vector<std::size_t> const& pieces : writers) {
        orn::os::Pipe const pipe(false);
        std::vector<char> bytes(4096);
        std::size_t written = 1;
        auto const put = [&](std::size_t size) {
            return write(pipe.WriteFD(), bytes.data(), size) == static_cast<ssize_t>(size);
        };
        ASSERT_TRUE(put(pieces[0]));
        ASSERT_EQ(40, read(pipe.ReadFD(), bytes.data(), 40)); // the first page is emptied in part
        for (; cmd::has_room(pipe.WriteFD()); ++written)
            ASSERT_TRUE(put(pieces[written % pieces.size()]));
        EXPECT_LE(3u, written);
        long pages = 0;
        while (put(4096))
            pages += 4096;
        EXPECT_LE(fcntl(pipe.WriteFD(), F_GETPIPE_SZ) / 2, pages) << pieces[0];
    }
}

TEST_F(Traces, a_wish_ends_when_it_is_not_renewed_or_its_client_goes_or_in_a_child) {
    boost::shared_ptr<thread::Group> const group = thread::ThisGroup();
    EXPECT_EQ("off", viewer.ask("trace").at(0)["trace"]);
    EXPECT_TRUE(viewer.ask("trace sideways").at(0).contains("error"));
    viewer.ask("trace on");
    EXPECT_TRUE(viewer.observed("trace"));
    EXPECT_EQ("exit 1", in_child([&] {
                  group->RunOnce(0);
                  return group->record()->traced() ? 2 : 1;
              }));
    EXPECT_TRUE(group->record()->traced());
    {
        Replaced const soon(detail::trace_wish_ns, 20000000U);
        viewer.ask("trace on");
        EXPECT_TRUE(wait_until([&] { return !group->record()->traced(); }));
    }
    EXPECT_FALSE(viewer.observed("trace")) << "and everything else goes on";
    {
        Viewer second; // of this process, so answers go to it from here on
        second.ask("timing on");
        EXPECT_TRUE(second.observed("timing"));
    }
    EXPECT_TRUE(wait_until([&] { return !group->record()->traced(); }));
    Viewer third;
    EXPECT_FALSE(third.observed("timing"));

    // Only who gets answers through the channel may wish.
    orn::os::Pipe const pipe(false);
    cmd::ProcessCommand("inspect trace on", pipe.WriteFD());
    EXPECT_NE(std::string::npos, take(pipe.ReadFD()).find("\"error\""));
}

TEST_F(Traces, a_storm_in_many_threads_is_told_of_in_whole_lines) {
    std::atomic<bool> over(false);
    auto const storm = [&over] {
        while (!over) {
            NewThreadGroup();
            WatchedPipe const moves([] { NewThreadGroup(); });
            moves.feed();
            RunOnce(0);
            orn::os::Thread const member([] { WatchedPipe const watched; });
            make_spans(10);
        }
    };
    std::thread threads[] = {std::thread(storm), std::thread(storm), std::thread(storm)};
    int const rounds = number_from("INSPECTIONS", 30);
    for (int i = 0; i < rounds; ++i) {
        for (char const* const what :
             {"trace on", "timing on", "groups", "fds", "threads", "timing", "process"})
            EXPECT_FALSE(viewer.ask(what).empty());
        if (i % 3 == 2)
            viewer.ask("trace off");
        if (i % 7 == 6)
            viewer.ask("timing off");
    }
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_LT(0u, viewer.spans.size());
}

} // namespace
