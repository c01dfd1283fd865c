// SPDX-License-Identifier: MIT
//
// Composing texts without a stream.
#include "plainText.hpp"

#include <cstddef>
#include <iterator>

#include <sys/syscall.h>
#include <unistd.h>

namespace orn::zel::detail {

void append_number(std::string& text, unsigned long long number) {
    char digits[20]; // as many as the largest number has
    char* const end = std::end(digits);
    char* first = end;
    do {
        *--first = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    text.append(first, static_cast<std::size_t>(end - first));
}

void append_number(std::string& text, long long number) {
    unsigned long long const magnitude = static_cast<unsigned long long>(number);
    if (number >= 0)
        return append_number(text, magnitude);
    text += '-';
    append_number(text, 0 - magnitude);
}

PlainText PlainText::of_this_thread() {
    PlainText text;
    text << "tid=" << syscall(SYS_gettid) << ' ';
    return text;
}

PlainText& PlainText::operator<<(char letter) {
    text_ += letter;
    return *this;
}

PlainText& PlainText::operator<<(char const* text) {
    text_ += text;
    return *this;
}

PlainText& PlainText::operator<<(std::string const& text) {
    text_ += text;
    return *this;
}

PlainText& PlainText::add_signed(long number) {
    append_number(text_, static_cast<long long>(number));
    return *this;
}

PlainText& PlainText::add_unsigned(unsigned long number) {
    append_number(text_, static_cast<unsigned long long>(number));
    return *this;
}

} // namespace orn::zel::detail
