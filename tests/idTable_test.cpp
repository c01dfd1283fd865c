// SPDX-License-Identifier: MIT
//
// The table of objects by their identifiers, beside a map.
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "../src/idTable.hpp"

using namespace orn::zel;
using Id = orn::zel::id_t;

namespace {

TEST(IdTable, holds_what_a_map_holds) {
    std::mt19937 random;
    detail::IdTable<int> table;
    std::map<Id, int*> map;
    std::vector<int> objects(64);
    for (int step = 0; step < 100000; ++step) {
        // Neighbours, and identifiers far apart that belong to the same places.
        Id const id = random() % 300 + (random() % 4 << 28);
        int& object = objects[random() % objects.size()];
        if (random() % 2)
            ASSERT_EQ(map.emplace(id, &object).second, table.insert(id, object));
        else
            table.erase(id), map.erase(id);
        auto const it = map.find(id ^ 1);
        ASSERT_EQ(it == map.end() ? nullptr : it->second, table.find(id ^ 1));
    }
    std::vector<int*> ascending;
    for (auto const& item : map)
        ascending.push_back(item.second);
    EXPECT_EQ(ascending, table.ascending());
}

} // namespace
