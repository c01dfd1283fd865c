// SPDX-License-Identifier: MIT
//
// Handler lists, the one-handler receptacle, and the owner of one registration.
#include "../src/uniqueId.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

struct Calls {
    std::string text;
    boost::function<void(int)> as(char name) {
        return [this, name](int value) { text += name + std::to_string(value) + ' '; };
    }
};

TEST(HandlerList, calls_in_the_order_of_registration) {
    HandlerList<int> list;
    Calls calls;
    unsigned long const a = list.insert(calls.as('a'));
    EXPECT_TRUE(list.insert_handler(std::make_pair(a, calls.as('x')))) << "and keeps the one that it has";
    unsigned long const b = list.insert(calls.as('b'));
    list.insert(calls.as('c'));
    Dispatch(list, 1);
    list.remove(b);
    list.remove(b);
    list.remove(0);
    EXPECT_EQ(2u, list.count());
    Dispatch(list, 2);
    EXPECT_EQ("a1 b1 c1 a2 c2 ", calls.text);
    EXPECT_EQ("handler list " + std::to_string(list.id()), list.name());
    EXPECT_EQ("Empty handler function",
              refusal<orn::Exception>([&] { list.insert(HandlerList<int>::receptor_type()); }));
}

TEST(HandlerList, keeps_changes_for_the_end_of_the_dispatch_but_counts_them_at_once) {
    HandlerList<int> list;
    Calls calls;
    unsigned long self = 0;
    unsigned long later = 0;
    auto const count = [&] { calls.text += std::to_string(list.count()) + ' '; };
    self = list.insert([&](int) {
        list.remove(self); // stays for this dispatch only
        count();
        list.remove(later); // not reached yet, and called all the same
        count();
        unsigned long const cancelled = list.insert(calls.as('x'));
        count();
        list.remove(cancelled);
        list.insert(calls.as('n'));
        count();
    });
    later = list.insert(calls.as('l'));
    Dispatch(list, 1);
    Dispatch(list, 2);
    count();
    EXPECT_EQ("1 0 1 1 l1 n2 1 ", calls.text);
}

TEST(HandlerList, and_a_single_receptacle_take_no_identifier_that_is_0_or_in_use) {
    std::string seen;
    HandlerList<int> list;
    auto const insert_as = [&](unsigned long next, std::string const& text) {
        detail::continue_identifiers_at(static_cast<std::uint32_t>(next));
        return list.insert([&seen, text](int) { seen += text; });
    };
    unsigned long const old = list.insert([&](int) {
        seen += 'o';
        unsigned long const kept = insert_as(1000, "k");
        EXPECT_NE(kept, insert_as(kept, "l"));
    });
    EXPECT_NE(0u, insert_as(0, "z"));
    insert_as(old, "n");
    EXPECT_EQ(3u, list.count());
    Dispatch(list, 1);
    EXPECT_EQ(3u, seen.size()) << seen;
    EXPECT_EQ(5u, list.count());

    SingleReceptacle<int> single;
    detail::continue_identifiers_at(0);
    EXPECT_NE(0u, single.insert([](int) {}));
}

TEST(HandlerList, runs_its_hooks_before_the_first_handler_and_after_the_last) {
    std::string seen;
    boost::shared_ptr<ThreadMutex> const mutex(new ThreadMutex);
    HandlerList<int> list(
        mutex,
        [&](HandlerList<int>* of) {
            seen += "first" + std::to_string(of->count());
            AutoLock const guard(*mutex); // is free here, or this would wait for ever
        },
        [&](HandlerList<int>* of) { seen += " last" + std::to_string(of->count()); });
    unsigned long only = list.insert([&](int) {
        list.remove(only);
        seen += " removed";
    });
    Dispatch(list, 1);
    EXPECT_EQ("first0 removed last0", seen) << "a removal that waits empties nothing yet";
    unsigned long const a = list.insert([](int) {});
    unsigned long const b = list.insert([](int) {});
    list.remove(a);
    list.remove(a);
    seen += " one left";
    list.remove(b);
    list.remove(b);
    EXPECT_EQ("first0 removed last0first0 one left last0", seen) << "once each time that it becomes empty";
    AutoLock const guard(*mutex);
}

TEST(HandlerList, stays_locked_after_an_exception_until_a_dispatch_completes) {
    HandlerList<int> list;
    Calls calls;
    bool angry = true;
    list.insert([&](int) {
        if (angry)
            throw std::runtime_error("handler");
    });
    EXPECT_THROW(Dispatch(list, 1), std::runtime_error);
    list.insert(calls.as('n'));
    angry = false;
    Dispatch(list, 2);
    EXPECT_EQ("", calls.text) << "not part of the dispatch that completes";
    Dispatch(list, 3);
    EXPECT_EQ("n3 ", calls.text);
}

TEST(HandlerList, survives_a_nested_dispatch_that_replays_the_removal_of_the_running_handler) {
    HandlerList<int> list;
    auto const alive = std::make_shared<int>(7);
    std::string seen;
    unsigned long self = 0;
    self = list.insert([&, held = alive](int value) {
        if (value == 1) {
            list.remove(self);
            Dispatch(list, 2); // completes, and so replays
            EXPECT_LT(1, held.use_count()) << "what the running handler captured";
        }
        seen += std::to_string(value);
    });
    list.insert([&](int value) { seen += "b" + std::to_string(value); });
    Dispatch(list, 1);
    EXPECT_EQ("2b21b1", seen);
    EXPECT_EQ(1, alive.use_count());
    EXPECT_EQ(1u, list.count());
}

TEST(HandlerList, takes_changes_from_any_thread_during_a_dispatch_with_a_mutex_of_either_kind) {
    // On a plain one, which it shares with other code, the list stacks a recursive one.
    for (Mutex* const kind :
         {static_cast<Mutex*>(new RecursiveThreadMutex), static_cast<Mutex*>(new ThreadMutex)}) {
        boost::shared_ptr<Mutex> const mutex(kind);
        HandlerList<int> list(mutex);
        list.insert([&](int value) {
            if (value == 1)
                Dispatch(list, 2); // opens the list when it ends, while the outer one is still under way
            list.remove(list.insert([](int) {})); // replayed with the mutex held
        });
        auto const churn = [&] {
            for (int i = 0; i < 3000; ++i) {
                AutoReceptor<int> const scoped(list, [](int) {});
                EXPECT_GE(list.count(), 1u);
                AutoLock const guard(*mutex); // is free between the list's own steps
            }
        };
        Member const first(churn), second(churn);
        while (!first.ended() || !second.ended())
            Dispatch(list, 1);
        EXPECT_EQ(1u, list.count());
    }
}

TEST(AutoReceptor, moves_its_registration_and_keeps_to_its_receptacle) {
    HandlerList<int> one;
    HandlerList<int> two;
    AutoReceptor<int> a(one, [](int) {});
    AutoReceptor<int> b(one, [](int) {});
    AutoReceptor<int> c(two, [](int) {});
    unsigned long const handle = b.handle();
    a = b; // gives its own up
    EXPECT_EQ(1u, one.count());
    EXPECT_EQ(0u, b.handle());
    a = *&a;
    EXPECT_EQ("receptacle reassignment"
              "orn::zel::AutoReceptor<dataT>& orn::zel::AutoReceptor<dataT>::operator=(const "
              "orn::zel::AutoReceptor<dataT>&) [with dataT = int]",
              refusal<orn::Exception>([&] { a = c; }));
    EXPECT_EQ(handle, a.handle());

    AutoReceptor<int> empty;
    AutoReceptor<int> other;
    empty = other;
    empty = c; // takes the receptacle along
    EXPECT_EQ(0u, c.handle());
    EXPECT_THROW(empty = a, orn::Exception);
    { AutoReceptor<int> const moved(empty); }
    EXPECT_EQ(0u, two.count());
    EXPECT_EQ(0u, empty.handle());
}

} // namespace
