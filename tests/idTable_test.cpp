// SPDX-License-Identifier: MIT
//
// The table of identifiers, beside a std::map that goes through the same.
#include "../src/idTable.hpp"

#include <map>
#include <random>
#include <utility>

#include <gtest/gtest.h>

namespace {

struct Entry {
    std::uint32_t id;
};

// Identifiers come in order and past the wrap, some far apart, and go in any order.
TEST(IdTable, knows_what_was_put_in_and_not_taken_out) {
    for (std::uint32_t const step : {1u, 3u, 64u, 128u, 65536u}) {
        orn::zel::detail::IdTable<Entry> table;
        std::map<std::uint32_t, Entry> known;
        std::minstd_rand random(step);
        std::uint32_t id = 0xFFFFFF00;
        for (int round = 0; round < 20000; ++round, id += step) {
            if (known.count(id) == 0)
                table.insert(id, known[id] = Entry{id});
            for (bool const shrinking : {true, round / 3000 % 2 == 1}) {
                auto const gone = known.lower_bound(static_cast<std::uint32_t>(random()) * 2);
                if (shrinking && random() % 3 != 0 && gone != known.end()) {
                    table.erase(gone->first);
                    EXPECT_EQ(nullptr, table.find(gone->first));
                    known.erase(gone);
                }
            }
            ASSERT_EQ(known.size(), table.size());
        }
        for (auto& item : known)
            ASSERT_EQ(&item.second, table.find(item.first)) << step;
        std::size_t told = 0;
        table.clear([&](Entry& entry) { told += known.erase(entry.id); });
        EXPECT_EQ(0u, known.size());
        EXPECT_NE(0u, told);
        EXPECT_EQ(0u, table.size());
        EXPECT_EQ(nullptr, table.find(id - step));
    }
}

} // namespace
