/* SPDX-License-Identifier: MIT
 *
 * Log records. Public, plain C. Where they go is left to the environment, which is read when the first record
 * is written:
 *
 *     LOG_SINK   syslog, stderr or the path of a file; unset or empty: nowhere, and then nothing is formatted
 *     LOG_LEVEL  info: logSpecInfo records are written too; else only logSpecForceInfo records are
 *
 *     Log_SpecEntry(logSpecForceInfo, "src/fd", 174, "%s: fd=%d", "insert", fd);
 *
 * A record is one line, written whole with one write(): UTC time, process and thread id, level, source:line
 * and the text. Control characters in the text become blanks, and a text of more than 64 KiB is cut.
 */
#ifndef ORN_LOG_H
#define ORN_LOG_H

#include <orn/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-use-using): plain C */
typedef enum Log_Spec {
    logSpecForceInfo, /* written wherever a sink is set */
    logSpecInfo       /* written with LOG_LEVEL=info only: what happens on every turn of a loop */
} Log_Spec;
/* NOLINTEND(modernize-use-using) */

/* Writes one record. Any thread may call it, also while exit() runs, but no signal handler. It never fails
 * and never throws, leaves errno alone, and is no cancellation point. A record is lost when the file or FIFO
 * cannot take it. Writing to a stderr that blocks blocks. */
ORN_API void Log_SpecEntry(Log_Spec spec, char const* source, int line, char const* format, ...)
    __attribute__((format(printf, 4, 5)));

/* Reads LOG_SINK and LOG_LEVEL again and opens the file anew, for use after log rotation or when the
 * environment has changed. Any thread may call it. */
ORN_API void Log_Reopen(void);

/* One bit for each Log_Spec that is written. Only Log_Enabled() reads it. */
ORN_API extern unsigned orn_log_enabled;

/* 0 when a record with this spec would go nowhere, so that composing its text can be spared. */
static inline int Log_Enabled(Log_Spec spec) {
    return ((__atomic_load_n(&orn_log_enabled, __ATOMIC_RELAXED) >> spec) & 1u) != 0;
}

#ifdef __cplusplus
}
#endif

#endif
