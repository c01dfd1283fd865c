// SPDX-License-Identifier: MIT
//
// Composing texts without a stream.
#include "plainText.hpp"

#include <sys/syscall.h>
#include <unistd.h>

namespace orn::zel::detail {

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
    text_ += std::to_string(number);
    return *this;
}

PlainText& PlainText::add_unsigned(unsigned long number) {
    text_ += std::to_string(number);
    return *this;
}

} // namespace orn::zel::detail
