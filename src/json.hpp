// SPDX-License-Identifier: MIT
//
// Composes JSON text, whatever the strings in it hold. Internal. What is said in it is the caller's.
#ifndef ZEL_SRC_JSON_HPP
#define ZEL_SRC_JSON_HPP

#include <string>
#include <type_traits>
#include <utility>

namespace orn::zel::detail {

// Each call adds to the text and puts the commas. The caller closes what it opens. Numbers are plain digits,
// whatever locale the host has chosen. Strings come out as UTF-8: a byte that is no part of it becomes the
// character with that number.
class Json {
public:
    Json& open() { return open_with(nullptr, '{'); }
    Json& open(char const* name) { return open_with(name, '{'); }
    Json& close() { return add("}"); }
    Json& open_list(char const* name) { return open_with(name, '['); }
    Json& close_list() { return add("]"); }

    // The name is written as it is.
    Json& field(char const* name, std::string const& text);
    Json& field(char const* name, char const* text);
    template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
    Json& field(char const* name, Number number) {
        if constexpr (std::is_same_v<Number, bool>)
            return word(name, number ? "true" : "false");
        else if constexpr (std::is_signed_v<Number>)
            return signed_field(name, number);
        else
            return unsigned_field(name, number);
    }
    template <class Value>
    Json& item(Value const& value) {
        return field(nullptr, value);
    }
    Json& null(char const* name) { return word(name, "null"); }

    void end_line() { text_ += '\n'; }
    // The text so far, which begins anew.
    std::string take() { return std::exchange(text_, std::string()); }

private:
    // Without a name, what follows is an item of a list.
    void key(char const* name);
    Json& open_with(char const* name, char bracket);
    Json& add(char const* text);
    Json& word(char const* name, char const* text);
    Json& signed_field(char const* name, long long number);
    Json& unsigned_field(char const* name, unsigned long long number);

    std::string text_;
};

} // namespace orn::zel::detail

#endif
