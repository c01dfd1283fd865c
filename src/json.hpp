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
    template <class Value>
    Json& field(char const* name, Value const& value) {
        key(name);
        return put(value);
    }
    template <class Value>
    Json& item(Value const& value) {
        key(nullptr);
        return put(value);
    }
    Json& null(char const* name) {
        key(name);
        return add("null");
    }

    void end_line() { text_ += '\n'; }
    // The text so far, which begins anew.
    std::string take() { return std::exchange(text_, std::string()); }

private:
    void key(char const* name);
    Json& open_with(char const* name, char bracket);
    Json& add(char const* text) {
        text_ += text;
        return *this;
    }

    Json& put(std::string const& text);
    Json& put(char const* text) { return put(std::string(text)); }
    Json& put(bool value) { return add(value ? "true" : "false"); }
    template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
    Json& put(Number number) {
        return add(std::to_string(number).c_str());
    }

    std::string text_;
};

} // namespace orn::zel::detail

#endif
