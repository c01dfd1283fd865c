// SPDX-License-Identifier: MIT
//
// Composes the texts of the library: monitor lines, listings, log records. Internal. Handlers of commands
// have cmd::Response, a stream, which costs a text ten times as much memory and code.
#ifndef ZEL_SRC_PLAINTEXT_HPP
#define ZEL_SRC_PLAINTEXT_HPP

#include <string>
#include <type_traits>

#include <orn/zel/core.hpp>

namespace orn::zel::detail {

// One function for all numbers of a kind. std::to_string() is inlined, some 200 bytes at each call.
void append_number(std::string& text, long long number);
void append_number(std::string& text, unsigned long long number);

// Clients read the numbers, so they are plain digits whatever locale the host has chosen.
class PlainText {
public:
    // Begins with "tid=", the kernel's id of the calling thread, and a blank, as a Response does.
    static PlainText of_this_thread();

    PlainText& operator<<(char letter);
    PlainText& operator<<(char const* text);
    PlainText& operator<<(std::string const& text);
    PlainText& operator<<(basic_Id<unsigned long> const& id) { return *this << id.value(); }

    template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
    PlainText& operator<<(Number number) {
        static_assert(sizeof number <= sizeof(long));
        if constexpr (std::is_signed_v<Number>)
            return add_signed(number);
        else
            return add_unsigned(number);
    }

    std::string const& str() const { return text_; }

private:
    PlainText& add_signed(long number);
    PlainText& add_unsigned(unsigned long number);

    std::string text_;
};

} // namespace orn::zel::detail

#endif
