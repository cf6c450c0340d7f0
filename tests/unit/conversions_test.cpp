// Number and text conversions: the rules that are easy to get wrong (digit
// order, odd lengths, right alignment, the 10-digit limit) and that nothing
// is written outside the field given.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kn_common.h"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;

// A field of `size` bytes with guard bytes on both sides; Field() is what the
// conversion may write, Intact() that nothing else changed.
class Guarded {
public:
    explicit Guarded(size_t size) : bytes_(size + 2 * kGuard, kFill) {}
    uint8_t *Field() { return bytes_.data() + kGuard; }
    Bytes Value(size_t len) const {
        return Bytes(bytes_.begin() + kGuard, bytes_.begin() + kGuard + static_cast<long>(len));
    }
    bool Intact(size_t written) const {
        for (size_t i = 0; i < bytes_.size(); ++i) {
            const bool inside = i >= kGuard && i < kGuard + written;
            if (!inside && bytes_[i] != kFill) return false;
        }
        return true;
    }

private:
    static constexpr size_t kGuard = 8;
    static constexpr uint8_t kFill = 0xCC;
    Bytes bytes_;
};

TEST(Conversions, HexCharacterValues) {
    const struct {
        uint8_t c, value;
    } cases[] = {{'0', 0},    {'9', 9},    {'A', 10}, {'F', 15},
                 {'a', 0x2A}, {'f', 0x2F}, {0xB0, 0}, {0xC1, 10}};
    for (const auto &c : cases)
        EXPECT_EQ(aschextobin(c.c), c.value) << c.c;
    const std::string digits = "0123456789ABCDEF";
    for (uint8_t v = 0; v < 16; ++v)
        EXPECT_EQ(bintoaschex(v), digits[v]);
}

TEST(Conversions, AscToHexPairsCharactersAndCountsWholeBytes) {
    const struct {
        const char *text;
        const char *bytes;
        uint32_t num_digits;
    } cases[] = {
        {"1a2B3", "1A2B30", 2},  // odd: last byte written, not counted
        {"0aFf", "0AFF", 2},
        {"7", "70", 0},
        {"", "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const Bytes expected = FromHex(c.bytes);
        Guarded out(expected.size());
        uint32_t num_digits = 0xFFFF;
        EXPECT_EQ(Asc_To_Hex(c.text, out.Field(), &num_digits), 0u);
        EXPECT_EQ(out.Value(expected.size()), expected);
        EXPECT_EQ(num_digits, c.num_digits);
        EXPECT_TRUE(out.Intact(expected.size()));
    }
}

TEST(Conversions, HexToAscWritesUpperCaseAndATerminator) {
    char out[8];
    std::fill(std::begin(out), std::end(out), '#');
    const Bytes in = FromHex("0AFF");
    EXPECT_EQ(Hex_To_Asc(in.data(), 2, out), 4u);
    EXPECT_EQ(std::string(out, 6), std::string("0AFF\0#", 6));
    EXPECT_EQ(Hex_To_Asc(in.data(), 0, out), 0u);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(out[1], 'A');
}

TEST(Conversions, BcdToLongCountsTheTenLowestDigits) {
    const struct {
        const char *bcd;
        uint32_t digits;
        uint32_t value;
    } cases[] = {
        {"000000012345", 12, 12345},
        {"123456789012", 12, 3456789012u},  // the two leading digits drop out
        {"0123", 3, 123},
        {"9123", 3, 123},  // odd count: the first high nibble is ignored
        {"0A", 2, 10},     // nibbles above 9 count as they are
        {"FF", 2, 165},
        {"9999999999", 10, 1410065407u},  // 9,999,999,999 mod 2^32
        {"00000000001234567890", 20, 1234567890u},
        {"12", 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bcd);
        const Bytes in = FromHex(c.bcd);
        EXPECT_EQ(Bcd_To_Long(in.data(), c.digits), c.value);
    }
}

TEST(Conversions, HexToLongKeepsTheLastFourBytes) {
    const struct {
        const char *hex;
        uint32_t value;
    } cases[] = {{"00000100", 256},
                 {"0100000000", 0},
                 {"123456789A", 0x3456789A},
                 {"1234", 0x1234},
                 {"", 0}};
    for (const auto &c : cases) {
        const Bytes in = FromHex(c.hex);
        EXPECT_EQ(Hex_To_Long(in.data(), static_cast<uint32_t>(in.size())), c.value) << c.hex;
    }
}

struct FieldCase {
    uint32_t value;
    uint32_t len;
    const char *expected;
};

// Right-aligned fields: the value's low bytes (or digits) at the end, zeros in
// front; a field shorter than the value keeps its low end.
void CheckField(uint32_t (*convert)(uint8_t *, uint32_t, const uint32_t *),
                std::initializer_list<FieldCase> cases) {
    for (const FieldCase &c : cases) {
        SCOPED_TRACE(testing::Message() << c.value << " into " << c.len);
        Guarded out(c.len);
        EXPECT_EQ(convert(out.Field(), c.len, &c.value), 0u);
        EXPECT_EQ(out.Value(c.len), FromHex(c.expected));
        EXPECT_TRUE(out.Intact(c.len));
    }
}

TEST(Conversions, LongToHexIsRightAligned) {
    CheckField(Long_to_Hex, {{0x12345678, 6, "000012345678"},
                             {0x12345678, 4, "12345678"},
                             {0x12345678, 2, "5678"},
                             {0x12345678, 0, ""}});
}

TEST(Conversions, LongToBcdIsRightAligned) {
    CheckField(Long_To_Bcd, {{12345, 6, "000000012345"},
                             {12345, 2, "2345"},
                             {4294967295u, 5, "4294967295"},
                             {4294967295u, 7, "00004294967295"},
                             {0, 3, "000000"},
                             {99, 0, ""}});
}

TEST(Conversions, RoundTripsBetweenNumbersAndFields) {
    for (uint32_t v : {0u, 1u, 99u, 100u, 65535u, 123456789u, 4294967295u}) {
        uint8_t bcd[6], hex[4];
        Long_To_Bcd(bcd, sizeof bcd, &v);
        Long_to_Hex(hex, sizeof hex, &v);
        EXPECT_EQ(Bcd_To_Long(bcd, 2 * sizeof bcd), v);
        EXPECT_EQ(Hex_To_Long(hex, sizeof hex), v);
    }
}

}  // namespace
}  // namespace velk::test
