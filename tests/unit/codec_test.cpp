// The kernel's TLV codec: decoding rules, header growth and shrinkage, the
// walkers' padding rules, the checkers, child iteration, and hostile input
// for every bounded walker (buffers are exact-size heap copies, so that a
// read past the end is caught under ASan).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "checked.hpp"
#include "tlv.h"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using host::Tlv;

Bytes Value(size_t n, uint8_t seed = 0) {
    Bytes v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(seed + i);
    return v;
}

// E1 nested `levels` deep around an empty innermost E1.
Bytes Nested(int levels) {
    Bytes b = FromHex("E1 00");
    for (int i = 1; i < levels; ++i)
        b = Tlv(0xE1, {b});
    return b;
}

// ---- Decoding -------------------------------------------------------------------

struct HeaderCase {
    const char *hex;
    uint32_t tag, tagLen, len, lenLen;
};

class HeaderDecoding : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(HeaderDecoding, TagAndLengthAsTheCodecReadsThem) {
    const HeaderCase &c = GetParam();
    Bytes b = FromHex(c.hex);
    uint32_t tag = 0, tagLen = 0, len = 0, lenLen = 0;
    GetTagAndLen(b.data(), &tag, &tagLen, &len, &lenLen);
    EXPECT_EQ(tag, c.tag);
    EXPECT_EQ(tagLen, c.tagLen);
    EXPECT_EQ(len, c.len);
    EXPECT_EQ(lenLen, c.lenLen);
    EXPECT_EQ(TLV_GetTag(b.data()), c.tag);
    EXPECT_EQ(TLV_GetLen(b.data()), c.len);
    EXPECT_EQ(TLV_GetTlvTotalLen(b.data()), c.tagLen + c.lenLen + c.len);
    uint32_t t2 = 0, l2 = 0;
    EXPECT_EQ(Get_TagAndLen_Ex(b.data(), &t2, &l2), c.tagLen + c.lenLen);
    EXPECT_EQ(t2, c.tag);
    GetTag_xx(b.data(), &t2, &l2);
    EXPECT_EQ(l2, c.tagLen);
}

INSTANTIATE_TEST_SUITE_P(
    Codec, HeaderDecoding,
    ::testing::Values(
        HeaderCase{"9F 02 06 00 00 00 00 01 00", 0x9F02, 2, 6, 1},
        HeaderCase{"DF 81 29 08", 0xDF8129, 3, 8, 1}, HeaderCase{"FF 81 05 00", 0xFF8105, 3, 0, 1},
        // 80 does not continue a tag
        HeaderCase{"9F 80 05", 0x9F80, 2, 5, 1}, HeaderCase{"DF 81 80 05", 0xDF8180, 3, 5, 1},
        HeaderCase{"DF 81 82 83 01", 0xDF818283, 4, 1, 1},
        // the fourth tag byte is never tested
        HeaderCase{"DF 81 82 FF 01", 0xDF8182FF, 4, 1, 1}, HeaderCase{"5A 81 80", 0x5A, 1, 128, 2},
        HeaderCase{"5A 82 01 00", 0x5A, 1, 256, 3},
        HeaderCase{"5A 83 01 00 00", 0x5A, 1, 0x10000, 4},
        // 84 reads as 83: three length bytes, the fourth left unread
        HeaderCase{"5A 84 00 00 01 00", 0x5A, 1, 1, 4}, HeaderCase{"5A 80", 0x5A, 1, 0, 1}));

TEST(CodecDecoding, PaddingAndNullPointers) {
    const Bytes pad = FromHex("00 5A");
    uint32_t tag = 7, len = 7;
    EXPECT_EQ(Get_TagAndLen_Ex(pad.data(), &tag, &len), 0u);
    EXPECT_EQ(tag, 0u);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(Get_TagAndLen_Ex(nullptr, &tag, &len), 0u);
    EXPECT_EQ(TLV_GetTag(nullptr), 0u);
    EXPECT_EQ(TLV_GetLen(nullptr), 0u);
    EXPECT_EQ(TLV_GetValue(nullptr), nullptr);
    tag = 9;
    GetTagAndLen(nullptr, &tag, nullptr, nullptr, nullptr);
    EXPECT_EQ(tag, 9u);
}

TEST(CodecDecoding, DolEntriesCountOneLengthByteExceptTheLongFormAfterAFourByteTag) {
    uint32_t tag = 0, len = 0;
    Bytes e = FromHex("9F 02 06");
    EXPECT_EQ(Get_TagAndLen_Dol(e.data(), &tag, &len), 3u);
    EXPECT_EQ(tag, 0x9F02u);
    EXPECT_EQ(len, 6u);
    e = FromHex("00");
    EXPECT_EQ(Get_TagAndLen_Dol(e.data(), &tag, &len), 1u);
    EXPECT_EQ(tag, 0u);
    e = FromHex("9F 02 86");  // a DOL length byte is a plain byte
    EXPECT_EQ(Get_TagAndLen_Dol(e.data(), &tag, &len), 3u);
    EXPECT_EQ(len, 0x86u);
    e = FromHex("DF 81 82 03 81 20");
    EXPECT_EQ(Get_TagAndLen_Dol(e.data(), &tag, &len), 5u);
    EXPECT_EQ(len, 0x20u);
}

TEST(CodecDecoding, GetValueUsesTheUncappedFieldSizeAndReadTagTheFullBerRule) {
    Bytes b = FromHex("5A 84 00 00 01 00 AA");
    EXPECT_EQ(TLV_GetValue(b.data()), b.data() + 6);
    b = FromHex("5A 81 01 AA");
    EXPECT_EQ(TLV_GetValue(b.data()), b.data() + 3);
    uint32_t tag = 0;
    b = FromHex("9F 81 82 83 01");
    EXPECT_EQ(TLV_ReadTag(b.data(), &tag), 5u);
    EXPECT_EQ(tag, 0x81828301u);
    b = FromHex("9F 80 05");
    EXPECT_EQ(TLV_ReadTag(b.data(), &tag), 3u);
    EXPECT_EQ(tag, 0x9F8005u);
}

TEST(CodecEncoding, LengthAndTagFields) {
    const std::pair<uint32_t, const char *> lengths[] = {{0, "00"},         {127, "7F"},
                                                         {128, "81 80"},    {255, "81 FF"},
                                                         {256, "82 01 00"}, {65535, "82 FF FF"}};
    for (const auto &[len, hex] : lengths) {
        uint8_t out[8] = {};
        const uint32_t n = TLV_GenLen(len, out);
        EXPECT_EQ(Bytes(out, out + n), FromHex(hex)) << len;
    }
    const std::pair<uint32_t, const char *> tags[] = {{0, "00"},
                                                      {0x5A, "5A"},
                                                      {0x9F02, "9F 02"},
                                                      {0xDF8129, "DF 81 29"},
                                                      {0x1000000, "01 00 00 00"}};
    for (const auto &[tag, hex] : tags) {
        uint8_t out[4] = {};
        const uint32_t n = TLV_Get_Tag_Len(tag, out);
        EXPECT_EQ(Bytes(out, out + n), FromHex(hex)) << std::hex << tag;
    }
    uint8_t b[8] = {};
    EXPECT_EQ(TLV_New(b, 0xFF8105, nullptr, 0), 4u);
    EXPECT_EQ(Bytes(b, b + 4), FromHex("FF 81 05 00"));
    EXPECT_EQ(TLV_New(nullptr, 0x5A, nullptr, 0), 0u);
    uint8_t d[16];
    EXPECT_EQ(TLV_Init(d, 16), d);
}

// ---- Building -----------------------------------------------------------------------

TEST(CodecBuilding, ParentHeaderGrowsOneTwoThreeLengthBytesAndShrinksBackOnDelete) {
    std::vector<uint8_t> buf(600, 0xEE);
    ASSERT_EQ(TLV_New(buf.data(), 0x7F01, nullptr, 0), 3u);
    std::vector<Bytes> children;
    auto expected = [&] {
        Bytes value;
        for (const Bytes &c : children)
            value.insert(value.end(), c.begin(), c.end());
        return Tlv(0x7F01, value);
    };
    const Bytes first = FromHex("5A 01 12");
    EXPECT_EQ(TLV_AddTag(buf.data(), 0x5A, first.data() + 2, 1), 6u);
    children.push_back(first);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 6), FromHex("7F 01 03 5A 01 12"));
    // 3 + 2 x 61 = 125, then 127 (one byte), then 129 (81 xx), ... past 255 (82 xx xx)
    const uint32_t tags[] = {0xDF01, 0xDF02, 0x9F02, 0xDF03, 0xDF04, 0xDF05};
    const uint32_t sizes[] = {58, 58, 0, 0, 120, 50};
    for (size_t i = 0; i < 6; ++i) {
        const Bytes v = Value(sizes[i], static_cast<uint8_t>(i));
        const uint32_t total = TLV_AddTag(buf.data(), tags[i], v.data(), sizes[i]);
        children.push_back(Tlv(tags[i], v));
        const Bytes want = expected();
        ASSERT_EQ(total, want.size());
        ASSERT_EQ(Bytes(buf.begin(), buf.begin() + total), want) << i;
    }
    EXPECT_EQ(buf[2], 0x82);  // 7F 01 82 01 xx
    // Delete back down: 82 -> 81 -> one byte.
    const uint32_t order[] = {0xDF05, 0xDF04, 0xDF02};
    for (uint32_t tag : order) {
        const uint32_t total = TLV_DelTag(buf.data(), tag);
        std::erase_if(children, [&](const Bytes &c) { return TLV_GetTag(c.data()) == tag; });
        const Bytes want = expected();
        ASSERT_EQ(total, want.size());
        ASSERT_EQ(Bytes(buf.begin(), buf.begin() + total), want) << std::hex << tag;
    }
    EXPECT_EQ(buf[2], 0x46u);  // 3 + 61 + 3 + 3 = 70 bytes of children: one length byte
}

TEST(CodecBuilding, ValueAt128And127BytesDecidesTheFieldSize) {
    std::vector<uint8_t> buf(300);
    TLV_New(buf.data(), 0x70, nullptr, 0);
    const Bytes v = Value(125);
    TLV_AddTag(buf.data(), 0x5A, v.data(), 125);  // 127 bytes: 70 7F
    EXPECT_EQ(buf[1], 0x7F);
    TLV_AddTag(buf.data(), 0x8A, v.data(), 0);  // 129: 70 81 81
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 5), FromHex("70 81 81 5A 7D"));
    EXPECT_EQ(TLV_DelTag(buf.data(), 0x8A), 129u);  // back to 127: 70 7F
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 4), FromHex("70 7F 5A 7D"));
}

TEST(CodecBuilding, AddRefusesAPrimitiveParentAndCopiesAnElement) {
    Bytes prim = FromHex("5A 01 12 00 00 00");
    EXPECT_EQ(TLV_AddTag(prim.data(), 0x9F02, nullptr, 0), 0u);
    EXPECT_EQ(TLV_DelTag(prim.data(), 0x12), 0u);
    EXPECT_EQ(prim, FromHex("5A 01 12 00 00 00"));
    std::vector<uint8_t> buf(16);
    TLV_New(buf.data(), 0x70, nullptr, 0);
    const Bytes el = FromHex("5A 81 02 12 34");  // re-encoded minimal
    EXPECT_EQ(TLV_AddTag_TLV(buf.data(), el.data()), 6u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 6), FromHex("70 04 5A 02 12 34"));
}

TEST(CodecBuilding, DelTagRewritesOnlyTheOutermostLengthAndNeverRemovesTheParent) {
    Bytes b = FromHex("E1 08 70 03 5A 01 12 9F 02 00");
    EXPECT_EQ(TLV_DelTag(b.data(), 0x5A), 7u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 7), FromHex("E1 05 70 03 9F 02 00"));
    Bytes c = FromHex("E1 02 5A 00");
    EXPECT_EQ(TLV_DelTag(c.data(), 0xE1), 4u);
    EXPECT_EQ(c, FromHex("E1 02 5A 00"));
    EXPECT_EQ(TLV_DelTag(c.data(), 0x9F02), 4u);
}

TEST(CodecBuilding, UpdateOverwritesASameLengthValueInPlaceAndMovesAnotherToTheEnd) {
    std::vector<uint8_t> buf(64);
    TLV_New(buf.data(), 0x7F01, nullptr, 0);
    const Bytes v2 = FromHex("00 01"), v3 = FromHex("AA BB CC");
    TLV_AddTag(buf.data(), 0x9F36, v2.data(), 2);
    TLV_AddTag(buf.data(), 0x5A, v3.data(), 3);
    const Bytes nv = FromHex("00 02");
    EXPECT_EQ(TLV_AddTag_UpDataMode(buf.data(), 0x9F36, nv.data(), 2), 13u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 13),
              FromHex("7F 01 0A 9F 36 02 00 02 5A 03 AA BB CC"));
    EXPECT_EQ(TLV_AddTag_UpDataMode(buf.data(), 0x9F36, v3.data(), 3), 14u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 14),
              FromHex("7F 01 0B 5A 03 AA BB CC 9F 36 03 AA BB CC"));
    EXPECT_EQ(TLV_AddTag_UpDataMode(buf.data(), 0x9F27, v2.data(), 1), 18u);
}

// ---- Searching --------------------------------------------------------------------------

TEST(CodecSearch, FindTagComparesTheRootFirstAndOnlyTheExFormSkipsPadding) {
    Bytes b = FromHex("70 08 5A 01 12 00 9F 02 01 01");
    EXPECT_EQ(TLV_FindTag(b.data(), 0x70), b.data());
    EXPECT_EQ(TLV_FindTag(b.data(), 0x5A), b.data() + 2);
    EXPECT_EQ(TLV_FindTag(b.data(), 0x9F02), nullptr);
    EXPECT_EQ(TLV_FindTag_Ex(b.data(), 0x9F02), b.data() + 6);
    Bytes nested = FromHex("6F 0B 84 01 AA A5 06 BF 0C 03 9F 75 00");
    EXPECT_EQ(TLV_FindTag(nested.data(), 0x9F75), nested.data() + 10);
    EXPECT_EQ(TLV_FindChildTag(nested.data(), 0x9F75), nullptr);
    EXPECT_EQ(TLV_FindChildTag(nested.data(), 0xA5), nested.data() + 5);
}

// ---- Checking ---------------------------------------------------------------------------------

struct CheckCase {
    const char *name;
    const char *hex;
    uint8_t format, format2, parse;
};

class Checkers : public ::testing::TestWithParam<CheckCase> {};

TEST_P(Checkers, AcceptOrRejectWithEveryReadInsideTheLength) {
    const CheckCase &c = GetParam();
    const Bytes src = FromHex(c.hex);
    std::vector<uint8_t> b(src.begin(), src.end());  // exact size on the heap
    const uint32_t len = static_cast<uint32_t>(b.size());
    EXPECT_EQ(TLV_Check_Format(b.data(), &len), c.format);
    EXPECT_EQ(TLV_Check_Format2(b.data(), &len), c.format2);
    EXPECT_EQ(Parse_TLV_buffer(b.data(), len), c.parse);
}

INSTANTIATE_TEST_SUITE_P(
    Codec, Checkers,
    ::testing::Values(CheckCase{"PaddingInsideATemplate", "70 07 00 00 5A 02 12 34 FF", 1, 1, 1},
                      CheckCase{"OneByteTooLong", "70 07 00 00 5A 02 12 34 FF 5A", 0, 0, 0},
                      CheckCase{"TrailingPadding", "70 07 00 00 5A 02 12 34 FF 00", 1, 0, 1},
                      CheckCase{"ChildPastItsParent", "70 07 00 00 5A 05 12 34 FF", 0, 0, 0},
                      CheckCase{"LeadingPadding", "00 5A 01 12", 1, 0, 0},
                      CheckCase{"TwoTopLevelElements", "5A 01 12 9F 02 00", 1, 0, 1},
                      CheckCase{"TagCutAfterFirstByte", "9F", 0, 0, 0},
                      CheckCase{"NoLengthByte", "9F 02", 0, 0, 0},
                      CheckCase{"FourByteTagCut", "DF 81 82", 0, 0, 0},
                      CheckCase{"FourByteTagCutInATemplate", "70 03 DF 81 82", 0, 0, 0},
                      CheckCase{"LengthBytesCut", "5A 82 01", 0, 0, 0},
                      CheckCase{"ValueCut", "5A 02 12", 0, 0, 0},
                      CheckCase{"LengthPastTheEnd", "70 81 FF 5A 01 12", 0, 0, 0},
                      CheckCase{"FourLengthBytesRefused", "5A 84 00 00 01 00", 0, 0, 0},
                      CheckCase{"EightyIsLengthZero", "70 02 5A 80", 1, 1, 1}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(CodecCheck, AnEmptyBufferIsWellFormedForTheWalkingCheckers) {
    const uint8_t b[1] = {0x5A};
    const uint32_t zero = 0;
    EXPECT_EQ(TLV_Check_Format(b, &zero), 1);
    EXPECT_EQ(Parse_TLV_buffer(b, 0), 1);
    EXPECT_EQ(TLV_Check_Format2(b, &zero), 0);
    EXPECT_EQ(TLV_Check_Format(nullptr, &zero), 0);
    EXPECT_EQ(velk::WellFormedLen(b, 0), 0u);
}

TEST(CodecCheck, NestingOf48IsAcceptedAnd49Refused) {
    for (int levels : {48, 49}) {
        const Bytes n = Nested(levels);
        std::vector<uint8_t> b(n.begin(), n.end());
        const uint32_t len = static_cast<uint32_t>(b.size());
        const uint8_t ok = levels == 48;
        EXPECT_EQ(TLV_Check_Format(b.data(), &len), ok) << levels;
        EXPECT_EQ(TLV_Check_Format2(b.data(), &len), ok) << levels;
        EXPECT_EQ(Parse_TLV_buffer(b.data(), len), ok) << levels;
        EXPECT_EQ(velk::WellFormedLen(b.data(), len), ok ? len : 0u);
        EXPECT_EQ(TLV_FindTag(b.data(), 0xE1), b.data());
        // Searching past the bottom walks every level.
        EXPECT_EQ(TLV_FindTag(b.data(), 0x5A), nullptr);
    }
    // A primitive at level 48 is found, one at 49 is refused.
    Bytes deep = FromHex("5A 01 12");
    for (int i = 1; i < 48; ++i)
        deep = Tlv(0xE1, {deep});
    EXPECT_NE(TLV_FindTag(deep.data(), 0x5A), nullptr);
    deep = Tlv(0xE1, {deep});
    EXPECT_EQ(TLV_FindTag(deep.data(), 0x5A), nullptr);
    EXPECT_EQ(TLV_FindTag_Ex(deep.data(), 0x5A), nullptr);
}

// ---- Hostile input for the finders and iterators ----------------------------------------

TEST(CodecHostile, FindersStopAtTheEnclosingElementsEnd) {
    const char *cases[] = {
        "70 05 5A 09 12 34 56",     // child longer than the root
        "70 03 DF 81 82",           // 4-byte tag with continuations up to the end
        "70 02 DF 81",              // tag cut
        "70 04 5A 83 00 00",        // length bytes cut by the root's end
        "70 06 A5 05 5A 01 12 9F",  // nested child past its parent
        "70 03 5A 84 00",           // four length bytes
    };
    for (const char *hex : cases) {
        const Bytes src = FromHex(hex);
        std::vector<uint8_t> b(src.begin(), src.end());
        EXPECT_EQ(TLV_FindTag(b.data(), 0x9F02), nullptr) << hex;
        EXPECT_EQ(TLV_FindTag_Ex(b.data(), 0x9F02), nullptr) << hex;
        EXPECT_EQ(TLV_FindChildTag(b.data(), 0x9F02), nullptr) << hex;
        EXPECT_EQ(TLV_GetFirstChildTag(b.data()), nullptr) << hex;
        EXPECT_EQ(TLV_GetNextChildTag(b.data()), nullptr) << hex;
        EXPECT_EQ(TLV_GetFirstChildTag_Ex(b.data()), nullptr) << hex;
        EXPECT_EQ(velk::FindInSequence(b.data(), static_cast<uint32_t>(b.size()), 0x9F02), nullptr)
            << hex;
    }
    // An element before the fault is still found.
    const Bytes src = FromHex("70 06 5A 01 12 9F 02 09");
    std::vector<uint8_t> b(src.begin(), src.end());
    EXPECT_EQ(TLV_FindTag(b.data(), 0x5A), b.data() + 2);
    EXPECT_EQ(TLV_FindTag(b.data(), 0x9F02), nullptr);
    EXPECT_EQ(TLV_FindChildTag(b.data(), 0x9F03), nullptr);
}

TEST(CodecHostile, TrailingPaddingInsideTheRootEndsTheWalk) {
    const Bytes src = FromHex("70 05 5A 01 12 00 00");
    std::vector<uint8_t> b(src.begin(), src.end());
    EXPECT_EQ(TLV_FindTag_Ex(b.data(), 0x9F02), nullptr);
    EXPECT_EQ(TLV_GetFirstChildTag(b.data()), b.data() + 2);
    EXPECT_EQ(TLV_GetNextChildTag(b.data()), nullptr);
    const Bytes pad = FromHex("70 02 00 FF");
    std::vector<uint8_t> p(pad.begin(), pad.end());
    EXPECT_EQ(TLV_GetFirstChildTag(p.data()), nullptr);
}

// ---- Child iteration ---------------------------------------------------------------------------

TEST(CodecIteration, FirstChildSkipsPaddingAndRefusesPrimitivesAndEmptyParents) {
    Bytes b = FromHex("70 04 FF 00 5A 00");
    EXPECT_EQ(TLV_GetFirstChildTag(b.data()), b.data() + 4);
    // Without skipping, FF 00 reads as tag FF00 with a length of 5A: malformed.
    EXPECT_EQ(TLV_GetFirstChildTag_Ex(b.data()), nullptr);
    Bytes empty = FromHex("70 00");
    EXPECT_EQ(TLV_GetFirstChildTag(empty.data()), nullptr);
    EXPECT_EQ(TLV_GetNextChildTag(empty.data()), nullptr);
    Bytes prim = FromHex("5A 02 5A 00");
    EXPECT_EQ(TLV_GetFirstChildTag(prim.data()), nullptr);
    EXPECT_EQ(TLV_GetFirstChildTag(nullptr), nullptr);
}

std::vector<uint32_t> ChildTags(uint8_t *parent, bool saveAroundInner) {
    std::vector<uint32_t> seen;
    for (uint8_t *c = TLV_GetFirstChildTag(parent); c != nullptr; c = TLV_GetNextChildTag(parent)) {
        seen.push_back(TLV_GetTag(c));
        if ((c[0] & 0x20) == 0) continue;
        TLV_GetNextChildTagPosition saved{};
        if (saveAroundInner) TLV_GetNextChlidTagPosition(&saved);
        for (uint8_t *g = TLV_GetFirstChildTag(c); g != nullptr; g = TLV_GetNextChildTag(c))
            seen.push_back(TLV_GetTag(g));
        if (saveAroundInner) TLV_SetNextChlidTagPosition(&saved);
    }
    return seen;
}

TEST(CodecIteration, NestedIterationNeedsTheSaveAndRestorePair) {
    Bytes b = FromHex("70 12 5A 01 12 A5 07 50 01 41 00 87 01 01 FF 9F 02 02 00 01");
    b[1] = static_cast<uint8_t>(b.size() - 2);
    EXPECT_EQ(ChildTags(b.data(), true), (std::vector<uint32_t>{0x5A, 0xA5, 0x50, 0x87, 0x9F02}));
    // Without it the inner iteration's end is the outer's end too.
    EXPECT_EQ(ChildTags(b.data(), false), (std::vector<uint32_t>{0x5A, 0xA5, 0x50, 0x87}));
}

TEST(CodecIteration, SiblingStyleFollowsTheCurrentChild) {
    Bytes b = FromHex("70 09 5A 01 12 00 00 9F 02 01 01");
    uint8_t *c = TLV_GetFirstChildTag(b.data());
    ASSERT_EQ(c, b.data() + 2);
    c = TLV_GetNextTagSibling(c);
    ASSERT_EQ(c, b.data() + 7);
    EXPECT_EQ(TLV_GetNextTagSibling(c), nullptr);
    c = TLV_GetFirstChildTag_Ex(b.data());
    c = TLV_GetNextTagSibling_Ex(c);
    EXPECT_EQ(c, b.data() + 5);  // 00 00 taken as an element
    c = TLV_GetNextTagSibling_Ex(c);
    EXPECT_EQ(c, b.data() + 7);
    EXPECT_EQ(TLV_GetNextChildTag_Ex(b.data()), b.data() + 5);
}

TEST(CodecIteration, AMalformedChildEndsTheIteration) {
    const Bytes src = FromHex("70 07 5A 01 12 9F 02 05 01");
    std::vector<uint8_t> b(src.begin(), src.end());
    EXPECT_EQ(TLV_GetFirstChildTag(b.data()), b.data() + 2);
    EXPECT_EQ(TLV_GetNextChildTag(b.data()), nullptr);
    EXPECT_EQ(TLV_GetNextChildTag(b.data()), nullptr);
    uint8_t *c = TLV_GetFirstChildTag(b.data());
    EXPECT_EQ(TLV_GetNextTagSibling(c), nullptr);
    // A state restored for a larger parent cannot lead out of a smaller one.
    const TLV_GetNextChildTagPosition big{2, 4000};
    TLV_SetNextChlidTagPosition(&big);
    const Bytes small = FromHex("70 03 5A 01 12");
    std::vector<uint8_t> s(small.begin(), small.end());
    EXPECT_EQ(TLV_GetNextChildTag(s.data()), s.data() + 2);
    EXPECT_EQ(TLV_GetNextChildTag(s.data()), nullptr);
}

// ---- Bounded helpers ----------------------------------------------------------------------------

TEST(CodecChecked, AddRefusesWritingNothingWhenTheParentWithHeaderGrowthPassesCap) {
    std::vector<uint8_t> buf(131, 0xEE);
    TLV_New(buf.data(), 0x70, nullptr, 0);
    const Bytes v = Value(200);
    ASSERT_EQ(velk::AddTagChecked(buf.data(), 131, 0x5A, v.data(), 122), 126u);  // 70 7C
    const std::vector<uint8_t> before = buf;
    // A 4-byte child brings the value to 128: 70 81 80, 131 bytes in all.
    EXPECT_EQ(velk::AddTagChecked(buf.data(), 130, 0x9F02, v.data(), 1), 0u);
    EXPECT_EQ(buf, before);
    EXPECT_EQ(velk::AddTagChecked(buf.data(), 131, 0x9F02, v.data(), 1), 131u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 3), FromHex("70 81 80"));
    Bytes prim = FromHex("5A 00 00 00 00");
    EXPECT_EQ(velk::AddTagChecked(prim.data(), 5, 0x9F02, nullptr, 0), 0u);
    EXPECT_EQ(velk::NewChecked(prim.data(), 4, 0x9F02, v.data(), 2), 0u);
    EXPECT_EQ(velk::NewChecked(prim.data(), 4, 0x9F02, v.data(), 0), 3u);
    // A parent whose declared length passes cap is refused.
    Bytes lying = FromHex("70 20 00 00");
    EXPECT_EQ(velk::AddTagChecked(lying.data(), 4, 0x5A, nullptr, 0), 0u);
}

TEST(CodecChecked, RefusedUpdateOfAnotherLengthLosesNothing) {
    std::vector<uint8_t> buf(12, 0xEE);
    TLV_New(buf.data(), 0x70, nullptr, 0);
    const Bytes v = Value(8);
    velk::AddTagChecked(buf.data(), 12, 0x5A, v.data(), 2);
    velk::AddTagChecked(buf.data(), 12, 0x9F02, v.data(), 1);  // 70 08 5A 02 .. 9F 02 01 ..
    const std::vector<uint8_t> before = buf;
    EXPECT_EQ(velk::AddTagUpdateChecked(buf.data(), 12, 0x5A, v.data(), 5), 0u);  // 13 bytes
    EXPECT_EQ(buf, before);
    EXPECT_EQ(velk::AddTagUpdateChecked(buf.data(), 12, 0x5A, v.data(), 4), 12u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 12), FromHex("70 0A 9F 02 01 00 5A 04 00 01 02 03"));
    EXPECT_EQ(velk::AddTagUpdateChecked(buf.data(), 12, 0x5A, v.data() + 4, 4), 12u);
    EXPECT_EQ(buf[8], 4);
}

TEST(CodecChecked, WellFormedLenAndFindInSequence) {
    Bytes b = FromHex("70 03 5A 01 12 00 77 04 9F 27 01 80");
    EXPECT_EQ(velk::WellFormedLen(b.data(), static_cast<uint32_t>(b.size())), 5u);
    EXPECT_EQ(velk::WellFormedLen(b.data(), 4), 0u);
    // An FF tag is the element's own first byte, not padding.
    const Bytes ff = FromHex("FF 81 05 03 9F 36 00");
    EXPECT_EQ(velk::WellFormedLen(ff.data(), 7), 7u);
    const uint32_t seven = 7;
    EXPECT_EQ(TLV_Check_Format(ff.data(), &seven), 0);
    EXPECT_EQ(velk::FindInSequence(b.data(), static_cast<uint32_t>(b.size()), 0x9F27),
              b.data() + 8);
    EXPECT_EQ(velk::FindInSequence(b.data(), static_cast<uint32_t>(b.size()), 0x9F26), nullptr);
    EXPECT_EQ(velk::FindInSequence(b.data(), static_cast<uint32_t>(b.size()) - 1, 0x5A), nullptr);
}

TEST(CodecChecked, CopyBytesMovesOverlappingRangesBothWays) {
    Bytes b = FromHex("01 02 03 04 05 06");
    velk::CopyBytes(b.data() + 1, b.data(), 4);
    EXPECT_EQ(b, FromHex("01 01 02 03 04 06"));
    velk::CopyBytes(b.data(), b.data() + 2, 4);
    EXPECT_EQ(b, FromHex("02 03 04 06 04 06"));
}

}  // namespace
}  // namespace velk::test
