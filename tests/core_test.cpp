// SPDX-License-Identifier: MIT
//
// The primitives: identifiers, exceptions, values that may be missing, splitting, locks.
#include <climits>

#include "../src/uniqueId.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

unsigned long const first_of_the_process = unique_id(); // whichever test is the first

TEST(Identifiers, come_from_one_counter_of_32_bits_that_begins_at_1_and_wraps) {
    EXPECT_EQ(1u, first_of_the_process);
    unsigned long const next = unique_id();
    EXPECT_EQ(next + 1, basic_ProcessUnique<unsigned long>::next_id());
    EXPECT_EQ(next + 2, UniqueId::next_id());
    detail::continue_identifiers_at(0xFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFu, unique_id());
    EXPECT_EQ(0u, unique_id());
}

TEST(Split, cuts_at_each_separator_and_leaves_the_rest_in_the_last_field) {
    std::map<std::string, Words> const whole = {
        {",a;,b,", {"", "a", "", "b"}}, {",;", {"", ""}}, {"a:b", {"a:b"}}, {"", {}}};
    for (auto const& item : whole) {
        Words out;
        split(item.first, ",;", out);
        EXPECT_EQ(item.second, out) << item.first;
    }
    std::map<int, Words> const at_most = {{2, {"a", "b,c,"}}, {3, {"a", "b", "c,"}}, {4, {"a", "b", "c"}},
                                          {1, {"a,b,c,"}},    {0, {"a,b,c,"}},       {INT_MIN, {"a,b,c,"}}};
    for (auto const& item : at_most) {
        Words out;
        split("a,b,c,", ",", out, item.first);
        EXPECT_EQ(item.second, out) << item.first;
    }
}

TEST(Split, takes_its_texts_from_its_own_output) {
    Words out{"a field that does not fit into the string object;and another one", ";"};
    out.shrink_to_fit(); // the first field to be appended moves them all
    split(out[0], out[1], out);
    EXPECT_EQ((Words{out[0], ";", "a field that does not fit into the string object", "and another one"}),
              out);
}

TEST(PossiblyUndefined, is_copied_with_its_state_but_assigned_only_with_a_value) {
    PossiblyUndefined<int> none;
    PossiblyUndefined<int> seven(7);
    EXPECT_TRUE(PossiblyUndefined<int>(none).undefined());
    EXPECT_EQ("undefined value", refusal<UndefinedValue>([&] { seven = none; }));
    none = seven;
    EXPECT_EQ(7, none.value());
}

TEST(RecursionCheck, puts_the_flag_back_when_the_outermost_scope_ends) {
    bool flag = false;
    {
        RecursionCheck const outer(flag);
        EXPECT_FALSE(static_cast<bool>(outer));
        EXPECT_TRUE(static_cast<bool>(RecursionCheck(flag)));
        EXPECT_TRUE(flag);
    }
    EXPECT_FALSE(flag);
}

} // namespace
