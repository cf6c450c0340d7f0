// SPDX-License-Identifier: Apache-2.0
// Drivers of trace.data: trace lines as the host's log sink receives them.
//
//   log:1|0              route the log to the row's record (cleared) or to
//                        nothing; the line buffer starts empty
//   trace:text           kn_trace("%s", text), the text as bytes
//   lines:line:line...   the lines logged so far, as bytes ("-" none)
//   put_len:n            the line buffer's fill (decimal, may be negative
//   set_put_len:n        when set)
//   parse_char:c         one character through private_parse_trace_char
//   format_sample        private_printf("%02X-%s\n%u\nrest", 0xA, "x", 42)
//   dumps_silent         the dumps and assertions emit nothing
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "emv_kernel_global.h"
#include "global.h"
#include "kn_trace.h"
#include "rows.hpp"

namespace velk::test {
namespace {

std::vector<std::string> lines_;

void Record(const char *line) {
    lines_.emplace_back(line);
}

std::string Text(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

VELK_DRIVER(log) {
    lines_.clear();
    g_put_len = 0;
    pemv_kn_glb->opt_std.opt_log = row.Arg(0) == "1" ? Record : nullptr;
}
VELK_DRIVER(trace) {
    kn_trace("%s", Text(row.Hex(0)).c_str());
}
VELK_DRIVER(lines) {
    std::string want, got;
    for (size_t i = 0; i < row.args.size(); ++i)
        if (row.Arg(i) != "-") want += host::ToHex(row.Hex(i)) + ";";
    for (const std::string &l : lines_)
        got += host::ToHex(Bytes(l.begin(), l.end())) + ";";
    row.Eq("lines logged", want, got);
}
VELK_DRIVER(put_len) {
    row.Eq("g_put_len", row.Arg(0), std::to_string(g_put_len));
}
VELK_DRIVER(set_put_len) {
    g_put_len = static_cast<int32_t>(std::stol(row.Arg(0)));
}
VELK_DRIVER(parse_char) {
    private_parse_trace_char(static_cast<char>(row.U(0)));
}
VELK_DRIVER(format_sample) {
    private_printf("%02X-%s\n%u\nrest", 0xAu, "x", 42u);
}
VELK_DRIVER(dumps_silent) {
    for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 40u}) {
        // Exactly sized, so a read past the end shows under the sanitizers.
        std::vector<uint8_t> data(len);
        for (uint32_t i = 0; i < len; ++i)
            data[i] = static_cast<uint8_t>(i * 13);
        kn_trace_dump(data.data(), len, 3);
        private_trace_ascii(data.data(), len);
    }
    kn_trace_dump(nullptr, 16, 0);
    kn_trace_assert("file.cpp", 12);
    // The last bytes before an inaccessible page: reading one byte past
    // them faults in every build.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (!row.Eq("guarded page", true,
                map != MAP_FAILED &&
                    mprotect(static_cast<uint8_t *>(map) + page, page, PROT_NONE) == 0))
        return;
    uint8_t *bytes = static_cast<uint8_t *>(map) + page - 3;
    bytes[0] = 0x41, bytes[1] = 0x0A, bytes[2] = 0xFF;
    Velk_trace_value(bytes, 3);
    Velk_trace_ascii(bytes, 3);
    Velk_trace_data(bytes, 3);
    munmap(map, 2 * page);
    row.Eq("lines logged", 0u, lines_.size());
}

}  // namespace
}  // namespace velk::test
