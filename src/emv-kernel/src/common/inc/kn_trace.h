// SPDX-License-Identifier: Apache-2.0
/*
 * Trace output of the common library. Formatted text is assembled into lines
 * of at most 255 characters; each finished line goes to the host's opt_log
 * (dropped when opt_log is null). Single-threaded: the module's buffers are
 * shared by all trace calls.
 */
#ifndef KN_TRACE_H
#define KN_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

extern char g_fmt_str[256];
extern char g_put_buffer[256];
extern int32_t g_put_len;

void kn_trace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void private_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void private_parse_trace_char(char c);
/* Walks the buffer in lines of 16 bytes, pacing each line with a countdown of
 * rts rounds; emits nothing in this build. */
void kn_trace_dump(const uint8_t *dat, uint32_t len, uint32_t rts);
void private_trace_ascii(const uint8_t *dat, uint32_t len);
void kn_trace_assert(const char *file, uint32_t line);

#ifdef __cplusplus
}
#endif

#endif /* KN_TRACE_H */
