// Drivers of conversions.data: number and text conversions. Outputs are
// written into a field between guard bytes, so that a write outside the field
// shows.
#include <string>

#include "kn_common.h"
#include "rows.hpp"

namespace velk::test {
namespace {

constexpr size_t kGuard = 8;
constexpr uint8_t kFill = 0xCC;

// The field's bytes, and whether the guards around it are intact.
struct Guarded {
    explicit Guarded(size_t size) : bytes(size + 2 * kGuard, kFill), size(size) {}
    uint8_t *Field() { return bytes.data() + kGuard; }
    Bytes Value(size_t n) const { return Bytes(bytes.begin() + kGuard, bytes.begin() + kGuard + static_cast<long>(n)); }
    void Expect(Row &row, const Bytes &want) {
        row.Eq("field", want, Value(want.size()));
        for (size_t i = 0; i < bytes.size(); ++i)
            if (i < kGuard || i >= kGuard + want.size()) row.Eq("guard byte", kFill, bytes[i]);
    }
    Bytes bytes;
    size_t size;
};

// hex_char:character:value (aschextobin; bintoaschex of values below 16 back)
VELK_DRIVER(hex_char) {
    const uint8_t c = static_cast<uint8_t>(row.U(0)), v = static_cast<uint8_t>(row.U(1));
    row.Eq("aschextobin", v, aschextobin(c));
    if (v < 16 && c < 0x80 && !(c >= 'a' && c <= 'f')) row.Eq("bintoaschex", c, static_cast<uint8_t>(bintoaschex(v)));
}

// asc_to_hex:text:bytes:num_digits (text as characters; "-" a null output)
VELK_DRIVER(asc_to_hex) {
    const Bytes want = row.Arg(1) == "-" ? Bytes{} : row.Hex(1);
    Guarded out(want.size());
    uint32_t digits = 0xFFFF;
    row.Eq("result", 0u, Asc_To_Hex(row.Arg(0).c_str(), row.Arg(1) == "-" ? nullptr : out.Field(), &digits));
    row.Eq("num_digits", row.U(2), digits);
    out.Expect(row, want);
}

// hex_to_asc:bytes:text (Hex_To_Asc, with its terminator)
VELK_DRIVER(hex_to_asc) {
    Bytes in = row.Hex(0);
    const size_t n = in.size();
    in.push_back(0);  // never a null input, also for an empty one
    std::string out(2 * n + 2, '#');
    row.Eq("count", 2 * n, Hex_To_Asc(in.data(), static_cast<uint32_t>(n), out.data()));
    row.Eq("text", row.Arg(1) + std::string(1, '\0') + "#", out.substr(0, 2 * n + 2));
}

// bcd_to_long:bcd:digits:value (Bcd_To_Long)
VELK_DRIVER(bcd_to_long) {
    const Bytes in = row.Hex(0);
    row.Eq("value", row.U(2), Bcd_To_Long(in.data(), static_cast<uint32_t>(std::stoul(row.Arg(1)))));
}

// hex_to_long:bytes:value (Hex_To_Long)
VELK_DRIVER(hex_to_long) {
    const Bytes in = row.Hex(0);
    row.Eq("value", row.U(1), Hex_To_Long(in.data(), static_cast<uint32_t>(in.size())));
}

// long_to_hex:value:field bytes:field (Long_to_Hex); long_to_bcd the same
void ToField(Row &row, uint32_t (*convert)(uint8_t *, uint32_t, const uint32_t *)) {
    const uint32_t value = row.U(0), len = static_cast<uint32_t>(std::stoul(row.Arg(1)));
    Guarded out(len);
    row.Eq("result", 0u, convert(out.Field(), len, &value));
    out.Expect(row, row.Hex(2));
}
VELK_DRIVER(long_to_hex) {
    ToField(row, Long_to_Hex);
}
VELK_DRIVER(long_to_bcd) {
    ToField(row, Long_To_Bcd);
}

}  // namespace
}  // namespace velk::test
