// The one DOL builder behind PDOL, CDOL1, CDOL2 and DDOL.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;

class DolBuilder : public KernelTest {
protected:
    // Related data for the DOL (hex), with the given capacity; "" for none.
    std::string Build(std::string_view dol, uint32_t capacity = 300) {
        const Bytes d = FromHex(dol);
        Bytes out(capacity + 8, 0xEE);
        uint32_t len = capacity;
        const uint32_t r = VelkCless_GenerateDOL_Response(d.data(), static_cast<uint32_t>(d.size()),
                                                          out.data(), &len);
        EXPECT_EQ(r, len);
        // Nothing is ever written past the capacity.
        for (uint32_t i = capacity; i < out.size(); ++i)
            EXPECT_EQ(out[i], 0xEE) << "byte " << i;
        return Hex(out.data(), len);
    }
};

struct DolCase : NamedCase {
    uint32_t tag;
    const char *stored;  // nullptr: absent
    const char *dol;
    const char *expected;
};
void PrintTo(const DolCase &c, std::ostream *os) {
    *os << c.dol;
}

class DolValues : public DolBuilder, public ::testing::WithParamInterface<DolCase> {};

TEST_P(DolValues, FillsEachEntryToItsRequestedLength) {
    const DolCase &c = GetParam();
    if (c.stored != nullptr) Put(c.tag, c.stored);
    EXPECT_EQ(Build(c.dol), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, DolValues,
    ::testing::Values(
        // n: right-aligned, leading zeros; too long keeps the rightmost digits
        DolCase{"NumericExact", 0x9F02, "000000012345", "9F0206", "000000012345"},
        DolCase{"NumericPadded", 0x9F02, "000000012345", "9F0208", "0000000000012345"},
        DolCase{"NumericCut", 0x9F02, "000000012345", "9F0204", "00012345"},
        // cn: left-aligned, padded with F; too long keeps the leading bytes
        DolCase{"CompressedPadded", 0x5A, "5413330089601041", "5A0A", "5413330089601041FFFF"},
        DolCase{"CompressedCut", 0x5A, "5413330089601041", "5A04", "54133300"},
        // anything else: left-aligned, padded with 00
        DolCase{"AnsPadded", 0x50, "4142", "5004", "41420000"},
        DolCase{"BinaryCut", 0x9F33, "E0F8C8", "9F3302", "E0F8"},
        DolCase{"UnknownTagPadded", 0x9F7A, "01", "9F7A03", "010000"},
        DolCase{"EmptyValueCn", 0x5A, "", "5A02", "FFFF"},
        DolCase{"Absent", 0x9F66, nullptr, "9F6604", "00000000"},
        // constructed tags get zeros whatever is stored: a one-byte tag by
        // bit 0x20, a longer one by bit 0x2000 of the tag value
        DolCase{"ConstructedOneByte", 0x70, "5A0112", "7003", "000000"},
        DolCase{"ConstructedTwoBytes", 0xBF0C, "01", "BF0C01", "00"},
        // three-byte tags: bit 0x20 of the middle byte decides, not the first
        DolCase{"ThreeByteMiddleBitSet", 0x9FA001, "AB", "9FA00101", "00"},
        DolCase{"ThreeByteFirstByteConstructed", 0xBF8101, "AB", "BF810101", "AB"}),
    CaseName());

TEST_F(DolBuilder, SkipsPaddingBetweenEntriesAndConcatenatesValues) {
    Put(0x9F02, "000000000100");
    Put(0x9F1A, "0826");
    EXPECT_EQ(Build("00 9F0206 FF FF 9F1A02 00"), "0000000001000826");
}

TEST_F(DolBuilder, PdolAskingAnAbsentTagAndTheAmount) {
    Put(0x9F02, "000000012345");
    EXPECT_EQ(Build("9F6604 9F0206"), "00000000000000012345");
}

TEST_F(DolBuilder, AnEntryCutByTheEndOfTheDolGivesNoDataAtAll) {
    Put(0x9F02, "000000012345");
    EXPECT_EQ(Build("9F0206 9F"), "");
    EXPECT_EQ(Build("9F02"), "");
    EXPECT_EQ(Build("DF8129"), "");
}

TEST_F(DolBuilder, ValuesPassingTheCapacityGiveNoDataAtAll) {
    Put(0x9F02, "000000012345");
    EXPECT_EQ(Build("9F0206", 6), "000000012345");
    EXPECT_EQ(Build("9F0206", 5), "");
    EXPECT_EQ(Build("9F0206 9F0306", 11), "");
    EXPECT_EQ(Build("", 0), "");
}

TEST_F(DolBuilder, HostileRequestsNeverPassTheBuffer) {
    // Ten entries of 255 bytes each against a 300-byte buffer.
    std::string dol;
    for (int i = 0; i < 10; ++i)
        dol += "9F02FF";
    EXPECT_EQ(Build(dol), "");
    // One entry of 255 bytes fits.
    EXPECT_EQ(Build("9F02FF").size(), 510u);
}

TEST_F(DolBuilder, EmptyDolGivesEmptyData) {
    EXPECT_EQ(Build("00 FF"), "");
}

}  // namespace
}  // namespace velk::test
