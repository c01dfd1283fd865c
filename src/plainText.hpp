// SPDX-License-Identifier: MIT
//
// Texts without a Response's prefix, such as listings and log records, and how all texts write numbers.
// Internal.
#ifndef ZEL_SRC_PLAINTEXT_HPP
#define ZEL_SRC_PLAINTEXT_HPP

#include <ios>
#include <locale>
#include <sstream>

namespace orn::zel::detail {

// Makes the stream write numbers in plain digits, whatever locale the host has chosen for its own streams:
// clients read them.
inline void use_plain_digits(std::ios& stream) {
    stream.imbue(std::locale::classic());
}

class PlainText : public std::ostringstream {
public:
    PlainText() { use_plain_digits(*this); }
};

} // namespace orn::zel::detail

#endif
