// SPDX-License-Identifier: MIT
//
// The table of objects by their identifiers, beside a map that goes through the same.
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "../src/idTable.hpp"

using namespace orn::zel;
using Id = orn::zel::id_t;

namespace {

// Identifiers come in order and past the wrap, or far apart, and go in any order.
TEST(IdTable, holds_what_a_map_holds) {
    for (Id const step : {1u, 3u, 128u, 65536u}) {
        std::mt19937 random;
        detail::IdTable<int> table;
        std::map<Id, int*> map;
        std::vector<int> objects(64);
        Id next = 0xFFFFFF00;
        for (int round = 0; round < 30000; ++round) {
            Id const id =
                random() % 4 ? next = (next + step) & 0xFFFFFFFF : random() % 300 + (random() % 4 << 28);
            int& object = objects[random() % objects.size()];
            ASSERT_EQ(map.emplace(id, &object).second, table.insert(id, object));
            for (bool const shrinking : {true, round / 3000 % 2 == 1}) {
                auto const gone = map.lower_bound(random());
                if (!shrinking || gone == map.end())
                    continue;
                table.take(gone->first);
                table.take(gone->first ^ 1 << 30); // which is not there as a rule
                map.erase(gone->first ^ 1 << 30);
                EXPECT_EQ(nullptr, table.find(gone->first));
                map.erase(gone);
            }
            ASSERT_EQ(map.size(), table.size());
        }
        std::vector<int*> ascending;
        for (auto const& item : map) {
            ASSERT_EQ(item.second, table.find(item.first)) << step;
            ascending.push_back(item.second);
        }
        EXPECT_EQ(ascending, table.ascending());
        std::size_t told = 0;
        detail::IdTable<int> gone;
        gone.swap(table);
        gone.each([&](Id id, int& object) { told += map.at(id) == &object; });
        EXPECT_EQ(map.size(), told);
        EXPECT_EQ(0u, table.size());
        EXPECT_EQ(nullptr, table.find(next));
    }
}

} // namespace
