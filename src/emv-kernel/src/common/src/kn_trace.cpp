// SPDX-License-Identifier: Apache-2.0
// Trace output to the host's log sink.
#include "kn_trace.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "emv_kernel_global.h"
#include "reg_std.h"

extern "C" {
char g_fmt_str[256];
char g_put_buffer[256];
int32_t g_put_len;
}

namespace {

// A line holds at most this many characters (its line feed included) and a
// NUL behind them.
constexpr int32_t kMaxLine = static_cast<int32_t>(sizeof g_put_buffer) - 1;

// vsnprintf cuts the text at 255 characters; strlen is the other C library
// function the trace may use.
void TraceV(const char *fmt, va_list args) {
    if (fmt == nullptr) return;
    Memset_(g_fmt_str, 0, static_cast<int>(sizeof g_fmt_str));
    // Every caller starts args with va_start; the analyzer does not follow
    // the list across the call.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(g_fmt_str, sizeof g_fmt_str, fmt, args);
    const size_t len = strlen(g_fmt_str);
    for (size_t i = 0; i < len; ++i)
        private_parse_trace_char(g_fmt_str[i]);
}

// Burns `rounds` iterations; volatile keeps the compiler from removing it.
void Pace(uint32_t rounds) {
    volatile uint32_t left = rounds;
    while (left != 0) {
        const uint32_t next = left - 1u;
        left = next;
    }
}

}  // namespace

extern "C" {

void kn_trace(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    TraceV(fmt, args);
    va_end(args);
}

void private_printf(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    TraceV(fmt, args);
    va_end(args);
}

void private_parse_trace_char(char c) {
    // The count is a public global; a value outside the buffer starts a fresh
    // line rather than writing past it.
    if (g_put_len < 0 || g_put_len >= kMaxLine) g_put_len = 0;
    g_put_buffer[g_put_len++] = c;
    if (g_put_len < kMaxLine && c != '\n') return;
    g_put_buffer[g_put_len] = '\0';
    if (pemv_kn_glb != nullptr && pemv_kn_glb->opt_std.opt_log != nullptr) {
        pemv_kn_glb->opt_std.opt_log(g_put_buffer);
    }
    g_put_len = 0;
}

// The character column is built as a hexadecimal dump would need it, but this
// build prints neither column (see private_trace_ascii).
void kn_trace_dump(const uint8_t *dat, uint32_t len, uint32_t rts) {
    if (dat == nullptr) return;
    constexpr uint32_t kGroup = 16;
    for (uint32_t done = 0; done < len;) {
        Pace(rts);
        const uint32_t count = len - done < kGroup ? len - done : kGroup;
        uint8_t column[kGroup];
        Memset_(column, 0, static_cast<int>(sizeof column));
        for (uint32_t i = 0; i < count; ++i) {
            const uint8_t b = dat[done + i];
            column[i] = b >= 0x20 && b <= 0x7E ? b : '.';
        }
        private_trace_ascii(column, count);
        done += count;
    }
}

// Emits nothing in this build; a build that restores the text column prints
// it here.
void private_trace_ascii(const uint8_t *dat, uint32_t len) {
    (void)dat;
    (void)len;
}

void kn_trace_assert(const char *file, uint32_t line) {
    (void)file;
    (void)line;
}

}  // extern "C"
