// SPDX-License-Identifier: MIT
//
// Texts without a Response's prefix: listings and log records. Internal.
#ifndef ZEL_SRC_PLAINTEXT_HPP
#define ZEL_SRC_PLAINTEXT_HPP

#include <locale>
#include <sstream>

namespace orn {
namespace zel {
namespace detail {

// Numbers in plain digits, whatever locale the host has chosen for its own streams: clients read them.
class PlainText : public std::ostringstream {
public:
    PlainText() { imbue(std::locale::classic()); }
};

} // namespace detail
} // namespace zel
} // namespace orn

#endif
