/* SPDX-License-Identifier: MIT
 *
 * What the library exports. Everything is compiled with hidden visibility; what a host, a module or a test
 * may link against carries ORN_API. The private functions of an exported class, which nobody else can name,
 * carry ORN_LOCAL. Plain C, since the C headers of the platform layer include it too. */
#ifndef ORN_API_H
#define ORN_API_H

#define ORN_API __attribute__((visibility("default")))
#define ORN_LOCAL __attribute__((visibility("hidden")))

#endif
