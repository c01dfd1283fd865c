/* SPDX-License-Identifier: MIT
 *
 * The one export macro. Everything is compiled with hidden visibility; what a host, a module or a test may
 * link against carries ORN_API. Plain C, since the C headers of the platform layer include it too. */
#ifndef ORN_API_H
#define ORN_API_H

#define ORN_API __attribute__((visibility("default")))

#endif
