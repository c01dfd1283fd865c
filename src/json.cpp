// SPDX-License-Identifier: MIT
//
// Commas between the parts of a JSON text, and the escapes in its strings.
#include "json.hpp"

#include <cstddef>

#include "plainText.hpp"

namespace orn::zel::detail {

namespace {

bool continues(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// The length of the character that begins at the position; 0 when what is there is not UTF-8.
std::size_t utf8_length(std::string const& text, std::size_t at) {
    auto const byte = [&](std::size_t i) {
        return static_cast<unsigned char>(i < text.size() ? text[i] : 0);
    };
    unsigned char const first = byte(at);
    unsigned char const second = byte(at + 1);
    if (first < 0x80)
        return 1;
    if (!continues(second))
        return 0;
    if (first >= 0xC2 && first <= 0xDF)
        return 2;
    // Not the longer ways to write a shorter character, nor the halves of a pair of UTF-16.
    bool const short_form = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    bool const surrogate = first == 0xED && second >= 0xA0;
    bool const beyond = first == 0xF4 && second >= 0x90;
    if (short_form || surrogate || beyond || !continues(byte(at + 2)))
        return 0;
    if (first >= 0xE0 && first <= 0xEF)
        return 3;
    return first >= 0xF0 && first <= 0xF4 && continues(byte(at + 3)) ? 4 : 0;
}

void escape(std::string& out, unsigned char byte) {
    char const* const digits = "0123456789abcdef";
    out += "\\u00";
    out += digits[byte >> 4];
    out += digits[byte & 15];
}

} // namespace

void Json::key(char const* name) {
    char const last = text_.empty() ? '\n' : text_.back();
    if (last != '{' && last != '[' && last != '\n')
        text_ += ',';
    if (name)
        text_.append(1, '"').append(name).append("\":");
}

Json& Json::open_with(char const* name, char bracket) {
    key(name);
    text_ += bracket;
    return *this;
}

Json& Json::add(char const* text) {
    text_ += text;
    return *this;
}

Json& Json::word(char const* name, char const* text) {
    key(name);
    return add(text);
}

Json& Json::signed_field(char const* name, long long number) {
    key(name);
    append_number(text_, number);
    return *this;
}

Json& Json::unsigned_field(char const* name, unsigned long long number) {
    key(name);
    append_number(text_, number);
    return *this;
}

Json& Json::field(char const* name, char const* text) {
    return field(name, std::string(text));
}

Json& Json::field(char const* name, std::string const& text) {
    key(name);
    text_ += '"';
    for (std::size_t at = 0; at < text.size();) {
        unsigned char const byte = static_cast<unsigned char>(text[at]);
        std::size_t const length = utf8_length(text, at);
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            escape(text_, byte);
            ++at;
            continue;
        }
        if (byte == '"' || byte == '\\')
            text_ += '\\';
        text_.append(text, at, length);
        at += length;
    }
    text_ += '"';
    return *this;
}

} // namespace orn::zel::detail
