// SPDX-License-Identifier: MIT
//
// The primitives: identifiers, exceptions, values that may be missing, splitting, locks.
#include <limits>
#include <sstream>

#include "../src/uniqueId.hpp"
#include "support/Support.hpp"

using namespace orn::zel;
using namespace support;

namespace {

unsigned long const first_of_the_process = unique_id(); // whichever test is the first

TEST(Identifiers, begin_at_1_and_come_from_one_counter) {
    EXPECT_EQ(1u, first_of_the_process);
    unsigned long const next = unique_id();
    EXPECT_EQ(next + 1, basic_ProcessUnique<unsigned long>::next_id());
    EXPECT_EQ(next + 2, UniqueId::next_id());
    EXPECT_EQ(next + 3, unique_id());
    std::ostringstream text;
    text << std::hex << basic_Id<unsigned long>(255);
    EXPECT_EQ("ff", text.str());
}

TEST(Identifiers, are_32_bits_wide_and_wrap_whatever_the_width_of_long) {
    detail::continue_identifiers_at(0xFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFu, unique_id());
    EXPECT_EQ(0u, unique_id());
    EXPECT_EQ(1u, unique_id());
}

TEST(Split, cuts_at_each_separator_and_leaves_the_rest_in_the_last_field) {
    int const all = 1000;
    struct {
        char const* text;
        char const* separators;
        int most;
        Words fields;
    } const cases[] = {{"a,,b", ",", all, {"a", "", "b"}},
                       {",a", ",", all, {"", "a"}},
                       {"a,b,", ",", all, {"a", "b"}},
                       {",,", ",", all, {"", ""}},
                       {"a:b;c", ":,;", all, {"a", "b", "c"}},
                       {"a:b", "", all, {"a:b"}},
                       {"", ",", all, {}},
                       {"a,b,c", ",", 2, {"a", "b,c"}},
                       {"a,b,c", ",", 3, {"a", "b", "c"}},
                       {"a,", ",", 2, {"a"}},
                       {"a,b,c", ",", 1, {"a,b,c"}},
                       {"a,b,c", ",", 0, {"a,b,c"}},
                       {"a,b,c", ",", -1, {"a,b,c"}},
                       {"a,b,c", ",", std::numeric_limits<int>::min(), {"a,b,c"}},
                       {"", ",", 1, {}}};
    for (auto const& item : cases) {
        Words out{"before"};
        split(item.text, item.separators, out, item.most);
        if (item.most == all)
            split(item.text, item.separators, out);
        Words expected{"before"};
        for (int i = item.most == all ? 2 : 1; i > 0; --i)
            expected.insert(expected.end(), item.fields.begin(), item.fields.end());
        EXPECT_EQ(expected, out) << item.text << ' ' << item.most;
    }
}

TEST(Split, takes_its_texts_from_its_own_output) {
    Words out{"a field that does not fit into the string object;and another one", ";"};
    out.shrink_to_fit(); // the first field to be appended moves them all
    split(out[0], out[1], out);
    ASSERT_EQ(4u, out.size());
    EXPECT_EQ("a field that does not fit into the string object", out[2]);
    EXPECT_EQ("and another one", out[3]);
}

TEST(PossiblyUndefined, is_copied_with_its_state_but_assigned_only_with_a_value) {
    PossiblyUndefined<int> none;
    PossiblyUndefined<int> seven(7);
    PossiblyUndefined<int> const copy(none);
    EXPECT_TRUE(copy.undefined());
    EXPECT_EQ("undefined value", refusal<UndefinedValue>([&] { seven = none; }));
    EXPECT_EQ(7, seven.value());
    EXPECT_THROW(none.value(), UndefinedValue);
    none = seven;
    EXPECT_EQ(7, none.value());
    none = 8;
    EXPECT_EQ(8, none.value());
}

TEST(RecursionCheck, puts_the_flag_back_however_its_scope_ends) {
    bool flag = false;
    auto const nest = [&flag] {
        RecursionCheck const outer(flag);
        EXPECT_FALSE(static_cast<bool>(outer));
        EXPECT_TRUE(static_cast<bool>(RecursionCheck(flag)));
        EXPECT_TRUE(flag);
        throw 1;
    };
    EXPECT_THROW(nest(), int);
    EXPECT_FALSE(flag);
}

} // namespace
