// SPDX-License-Identifier: Apache-2.0
// The kernel transaction database and its tag property table; the data
// records built from it; the queries over the transaction's data.
#include <stddef.h>
#include <stdint.h>

#include "baseKernel.h"
#include "checked.hpp"
#include "database.h"
#include "global.h"
#include "reg_std.h"
#include "tlv.h"

// ==== The tag property table =================================================
//
// One row per tag and per line, sorted by tag as the kernel's reference table
// is, so that the two can be read side by side: tag, property bits (source,
// mandatory, single/multiple), EMV format, minimum and maximum value length
// (999: no practical upper bound; 0: any length).

// clang-format off
constexpr TAGPRPPERITY gbTagPropreity[] = {
    {0x42,     0x02000400, TAG_FMT_N,   3,  3},
    {0x4F,     0x02000400, TAG_FMT_B,   5,  16},
    {0x50,     0x02000400, TAG_FMT_ANS, 1,  16},
    {0x52,     0x02000400, TAG_FMT_ANS, 1,  16},
    {0x56,     0x02000400, TAG_FMT_B,   0,  76},
    {0x57,     0x02010200, TAG_FMT_B,   0,  19},
    {0x5A,     0x02000200, TAG_FMT_CN,  0,  10},
    {0x5F20,   0x02000200, TAG_FMT_ANS, 0,  27},
    {0x5F24,   0x02000200, TAG_FMT_N,   3,  3},
    {0x5F25,   0x02000400, TAG_FMT_N,   3,  3},
    {0x5F28,   0x02000400, TAG_FMT_B,   2,  2},
    {0x5F2A,   0x01000400, TAG_FMT_N,   2,  2},
    {0x5F2D,   0x02000400, TAG_FMT_AN,  2,  8},
    {0x5F30,   0x02000400, TAG_FMT_N,   2,  2},
    {0x5F34,   0x02000200, TAG_FMT_N,   1,  1},
    {0x5F36,   0x02000400, TAG_FMT_N,   1,  1},
    {0x5F50,   0x02000400, TAG_FMT_ANS, 0,  999},
    {0x5F57,   0x02000400, TAG_FMT_N,   1,  1},
    {0x81,     0x01000400, TAG_FMT_B,   4,  4},
    {0x82,     0x02010200, TAG_FMT_B,   2,  2},
    {0x86,     0x02000400, TAG_FMT_B,   0,  261},
    {0x87,     0x02000400, TAG_FMT_B,   1,  1},
    {0x88,     0x02000400, TAG_FMT_B,   1,  1},
    {0x89,     0x08000400, TAG_FMT_ANS, 6,  6},
    {0x8A,     0x08000400, TAG_FMT_AN,  2,  2},
    {0x8C,     0x02000200, TAG_FMT_B,   0,  252},
    {0x8D,     0x02000400, TAG_FMT_B,   0,  252},
    {0x8E,     0x02000400, TAG_FMT_B,   0,  252},
    {0x8F,     0x02000400, TAG_FMT_B,   1,  1},
    {0x90,     0x02000400, TAG_FMT_B,   0,  999},
    {0x91,     0x08000400, TAG_FMT_B,   8,  16},
    {0x92,     0x02000400, TAG_FMT_B,   0,  999},
    {0x93,     0x02000400, TAG_FMT_B,   0,  999},
    {0x94,     0x02000200, TAG_FMT_B,   0,  256},
    {0x95,     0x01000400, TAG_FMT_B,   5,  5},
    {0x97,     0x02000400, TAG_FMT_B,   0,  252},
    {0x98,     0x02000400, TAG_FMT_B,   20, 20},
    {0x99,     0x02000400, TAG_FMT_B,   0,  999},
    {0x9A,     0x02000400, TAG_FMT_N,   3,  3},
    {0x9B,     0x01000400, TAG_FMT_B,   2,  2},
    {0x9C,     0x01000400, TAG_FMT_N,   1,  1},
    {0x9D,     0x02000400, TAG_FMT_B,   5,  16},
    {0x9F01,   0x02000400, TAG_FMT_N,   6,  6},
    {0x9F02,   0x01000400, TAG_FMT_N,   6,  6},
    {0x9F03,   0x01000400, TAG_FMT_N,   6,  6},
    {0x9F04,   0x01000400, TAG_FMT_B,   4,  4},
    {0x9F05,   0x02000400, TAG_FMT_B,   1,  32},
    {0x9F06,   0x02000400, TAG_FMT_B,   5,  16},
    {0x9F07,   0x02000400, TAG_FMT_B,   2,  2},
    {0x9F08,   0x02000400, TAG_FMT_B,   2,  2},
    {0x9F09,   0x01000400, TAG_FMT_B,   2,  2},
    {0x9F0B,   0x02000400, TAG_FMT_ANS, 0,  46},
    {0x9F0D,   0x02000400, TAG_FMT_B,   5,  5},
    {0x9F0E,   0x02000400, TAG_FMT_B,   5,  5},
    {0x9F0F,   0x02000400, TAG_FMT_B,   5,  5},
    {0x9F10,   0x02010400, TAG_FMT_B,   0,  32},
    {0x9F11,   0x02000400, TAG_FMT_B,   1,  1},
    {0x9F12,   0x02000400, TAG_FMT_ANS, 1,  16},
    {0x9F13,   0x02000400, TAG_FMT_B,   2,  2},
    {0x9F14,   0x02000400, TAG_FMT_B,   1,  1},
    {0x9F15,   0x01000400, TAG_FMT_N,   2,  2},
    {0x9F16,   0x01000400, TAG_FMT_ANS, 15, 15},
    {0x9F17,   0x02000400, TAG_FMT_B,   1,  1},
    {0x9F1A,   0x01000400, TAG_FMT_N,   2,  2},
    {0x9F1B,   0x02000400, TAG_FMT_B,   4,  4},
    {0x9F1C,   0x02000400, TAG_FMT_AN,  8,  8},
    {0x9F1D,   0x02000400, TAG_FMT_B,   1,  8},
    {0x9F1E,   0x02000400, TAG_FMT_AN,  8,  8},
    {0x9F1F,   0x02000400, TAG_FMT_ANS, 0,  999},
    {0x9F21,   0x02000400, TAG_FMT_N,   3,  3},
    {0x9F22,   0x02000400, TAG_FMT_B,   1,  1},
    {0x9F23,   0x02000400, TAG_FMT_B,   1,  1},
    {0x9F26,   0x02010400, TAG_FMT_B,   0,  8},
    {0x9F27,   0x02000400, TAG_FMT_B,   0,  1},
    {0x9F2D,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F2F,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F33,   0x02000400, TAG_FMT_B,   3,  3},
    {0x9F34,   0x01000400, TAG_FMT_B,   3,  3},
    {0x9F35,   0x01000400, TAG_FMT_N,   1,  1},
    {0x9F36,   0x02010400, TAG_FMT_B,   0,  2},
    {0x9F37,   0x01000400, TAG_FMT_B,   4,  4},
    {0x9F38,   0x02010400, TAG_FMT_B,   0,  999},
    {0x9F39,   0x02000400, TAG_FMT_N,   1,  1},
    {0x9F3A,   0x02000400, TAG_FMT_B,   4,  4},
    {0x9F3B,   0x02000400, TAG_FMT_N,   2,  8},
    {0x9F3C,   0x02000400, TAG_FMT_N,   2,  2},
    {0x9F3D,   0x02000400, TAG_FMT_N,   1,  1},
    {0x9F40,   0x01000400, TAG_FMT_B,   5,  5},
    {0x9F41,   0x02000400, TAG_FMT_B,   4,  4},
    {0x9F42,   0x02000400, TAG_FMT_N,   2,  2},
    {0x9F43,   0x02000400, TAG_FMT_N,   1,  4},
    {0x9F44,   0x02000400, TAG_FMT_N,   1,  1},
    {0x9F45,   0x02000400, TAG_FMT_B,   2,  2},
    {0x9F46,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F48,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F49,   0x02000400, TAG_FMT_B,   0,  252},
    {0x9F4A,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F4B,   0x02000400, TAG_FMT_B,   0,  999},
    {0x9F4C,   0x02000400, TAG_FMT_B,   2,  8},
    {0x9F4D,   0x02000400, TAG_FMT_B,   0,  3},
    {0x9F6E,   0x02000200, TAG_FMT_B,   0,  4},
    {0x9F7C,   0x02000200, TAG_FMT_B,   0,  32},
    {0x9F80,   0x02000200, TAG_FMT_B,   3,  3},
};
// clang-format on

static_assert(sizeof gbTagPropreity / sizeof gbTagPropreity[0] == VELK_TAG_PROPERTY_ROWS,
              "the property table has one row per tag the kernel knows");

namespace {

// A tag's bytes from the left of 32 bits: the rows are in the order of
// their tags' bytes (5F57 before 81), which is the order of these keys.
constexpr uint32_t Key(uint32_t tag) {
    return tag << (__builtin_clz(tag | 1) & 24);
}

// The property row of a tag, found by halving the table.
constexpr const TAGPRPPERITY *Row(uint32_t tag) {
    const uint32_t key = Key(tag);
    uint32_t lo = 0;
    uint32_t hi = VELK_TAG_PROPERTY_ROWS;
    while (lo < hi) {
        const uint32_t mid = (lo + hi) / 2;
        const uint32_t at = Key(gbTagPropreity[mid].tag);
        if (at == key) return gbTagPropreity[mid].tag == tag ? &gbTagPropreity[mid] : nullptr;
        if (at < key)
            lo = mid + 1;
        else
            hi = mid;
    }
    return nullptr;
}

constexpr bool RowsInTagOrder() {
    for (uint32_t i = 1; i < VELK_TAG_PROPERTY_ROWS; ++i)
        if (Key(gbTagPropreity[i - 1].tag) >= Key(gbTagPropreity[i].tag)) return false;
    for (const TAGPRPPERITY &row : gbTagPropreity)
        if (Row(row.tag) != &row) return false;
    return true;
}
static_assert(RowsInTagOrder(), "rows in the order of their tags' bytes, each tag once");

constexpr uint32_t CountWith(uint32_t bits) {
    uint32_t n = 0;
    for (const TAGPRPPERITY &row : gbTagPropreity)
        n += (row.property & bits) == bits;
    return n;
}
static_assert(CountWith(TAG_MANDATORY) == 6 && Row(0x57)->property & TAG_MANDATORY &&
                  Row(0x82)->property & TAG_MANDATORY && Row(0x9F10)->property & TAG_MANDATORY &&
                  Row(0x9F26)->property & TAG_MANDATORY && Row(0x9F36)->property & TAG_MANDATORY &&
                  Row(0x9F38)->property & TAG_MANDATORY,
              "mandatory when reading is complete: 57, 82, 9F10, 9F26, 9F36, 9F38");
static_assert(CountWith(TAG_SINGLE) + CountWith(TAG_MULTI) == VELK_TAG_PROPERTY_ROWS,
              "every row is single or multiple");

// ==== The database ==============================================================

constexpr uint32_t kDatabaseTag = 0x7F01;
constexpr uint32_t kErrSingle = 0x31001;
constexpr uint32_t kErrOverwritten = 0x31002;
constexpr uint32_t kErrFull = 0x31003;
constexpr uint32_t kErrAbsent = 0x31004;
constexpr uint32_t kErrTagZero = 0x31005;
// Room the capacity test keeps for a new element's tag and length bytes.
constexpr uint32_t kHeaderReserve = 8;

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

// The children of the 7F01 element, [first, end); first is null when the
// area does not hold a 7F01 of at most 8192 bytes (a block that was never
// initialised): such a database holds nothing and takes nothing.
struct Children {
    uint8_t *first;
    uint8_t *end;
};
__attribute__((always_inline)) inline Children Database() {
    uint8_t *db = G().ucDataBasebuf;
    // The tag 7F01 is exactly these two bytes; the walkers refuse a length
    // field of 84 or above.
    if (db[0] != 0x7F || db[1] != 0x01 || db[2] >= 0x84) return {nullptr, nullptr};
    const uint32_t lenLen = db[2] < 0x80 ? 1 : db[2] - 0x7F;
    uint32_t len = lenLen == 1 ? db[2] : 0;
    for (uint32_t i = 1; i < lenLen; ++i)
        len = (len << 8) | db[2 + i];
    if (2 + lenLen + len > VELK_DATABASE_LEN) return {nullptr, nullptr};
    return {db + 2 + lenLen, db + 2 + lenLen + len};
}

uint8_t *Stored(uint32_t tag) {
    const Children c = Database();
    return c.first == nullptr ? nullptr : velk::FindStoredChild(c.first, c.end, tag);
}

// Value and length of a stored element (written by TLV_New: minimal header).
uint8_t *ValueOf(uint8_t *element, uint32_t *len) {
    uint32_t tag = 0;
    return element + Get_TagAndLen_Ex(element, &tag, len);
}

// The two setters. Capacity: the test uiLen + uiUseBuflen + 8 <=
// 8192, and on top of it velk::AddTagChecked on the 8192-byte area: the 7F01
// element never passes 8192 bytes, even when its own length field grows (the
// 8 reserved bytes count the new element's header only, and uiUseBuflen may
// be stale after VelkDataBase_Init).
//
// A value of another length replaces the old one at the end of the database.
// The new element is appended before the old one is removed, so that a value
// handed in from the database itself (an OBJECT_TAG's pValue) is copied
// before anything moves; the outcome is that of delete-then-append, and
// the capacity test is the same (uiUseBuflen is not lowered by the delete).
// On 0x31003 the old element is removed all the same.
uint32_t Store(uint32_t tag, uint32_t len, const uint8_t *value, uint32_t sameLengthResult) {
    const Children c = Database();
    if (c.first == nullptr) return kErrFull;
    uint8_t *db = G().ucDataBasebuf;
    uint8_t *old = velk::FindStoredChild(c.first, c.end, tag);
    if (old != nullptr) {
        if (VelkCless_Check_IsMultiTagForbidden(tag)) return kErrSingle;
        uint32_t oldLen = 0;
        uint8_t *oldValue = ValueOf(old, &oldLen);
        if (oldLen == len) {
            if (value != nullptr) velk::CopyBytes(oldValue, value, len);
            return sameLengthResult;
        }
    }
    const uint32_t used = G().uiUseBuflen;
    const bool fits = len <= VELK_DATABASE_LEN - kHeaderReserve &&
                      used <= VELK_DATABASE_LEN - kHeaderReserve - len;
    uint32_t total = fits ? velk::AddTagChecked(db, VELK_DATABASE_LEN, tag, value, len) : 0;
    const bool added = total != 0;
    if (old != nullptr) {
        const uint32_t left = velk::DelChild(db, Stored(tag));  // the first: the old one
        if (added) total = left;
    }
    if (!added) return kErrFull;
    G().uiUseBuflen = total;
    return 0;
}

}  // namespace

extern "C" {

uint32_t VelkDataBase_Init(void) {
    TLV_New(G().ucDataBasebuf, kDatabaseTag, nullptr, 0);
    return 0;
}

uint32_t VelkDataBase_Set_TAG(uint32_t uiTAG, uint32_t uiLen, const uint8_t *inData) {
    return Store(uiTAG, uiLen, inData, 0);
}

// The one caller learns from 0x31002 that a same-length value was overwritten.
uint32_t VelkDataBase_SetTAG(const OBJECT_TAG *pObjectTag) {
    if (pObjectTag == nullptr) return kErrFull;
    return Store(pObjectTag->uiTag, pObjectTag->uiLength, pObjectTag->pValue, kErrOverwritten);
}

// Removes the database's own element (a direct child of 7F01), not an element
// of the same tag nested in a stored template. uiUseBuflen stays as it was.
uint32_t VelkDataBase_Del_TAG(uint32_t uiTAG) {
    uint8_t *element = Stored(uiTAG);
    if (element != nullptr) velk::DelChild(G().ucDataBasebuf, element);
    return 0;
}

uint32_t VelkDataBase_Get_TagValue(uint32_t uiTAG, uint32_t *uiLen, uint8_t *pucOutData) {
    uint8_t *element = Stored(uiTAG);
    if (element == nullptr) return kErrAbsent;
    uint32_t len = 0;
    const uint8_t *value = ValueOf(element, &len);
    if (pucOutData != nullptr && len != 0) Memcpy_(pucOutData, value, static_cast<int>(len));
    if (uiLen != nullptr) *uiLen = len;
    return 0;
}

uint32_t VelkDataBase_GetTagValue(uint32_t uiTAG, OBJECT_TAG *pObjectTag) {
    uint8_t *element = Stored(uiTAG);
    if (element == nullptr) return kErrAbsent;
    if (pObjectTag != nullptr) {
        pObjectTag->uiTag = uiTAG;
        pObjectTag->pValue = ValueOf(element, &pObjectTag->uiLength);
    }
    return 0;
}

uint8_t VelkDataBase_Tag_IsPresent(uint32_t uiTag) {
    return Stored(uiTag) != nullptr;
}

uint8_t VelkDataBase_Tag_IsNotPresent(uint32_t uiTag) {
    return Stored(uiTag) == nullptr;
}

uint32_t VelkCless_Get_Tag_Format(uint32_t tag) {
    const TAGPRPPERITY *row = Row(tag);
    return row == nullptr ? 0 : row->format;
}

// An empty value always passes; a tag without a row too.
uint8_t VelkCless_Check_Tag_Length(uint32_t tag, uint32_t uiLen) {
    const TAGPRPPERITY *row = Row(tag);
    if (row == nullptr || uiLen == 0) return 0;
    return uiLen > row->max_len || uiLen < row->min_len;
}

uint8_t VelkCless_Check_IsMultiTagForbidden(uint32_t tag) {
    const TAGPRPPERITY *row = Row(tag);
    return row != nullptr && (row->property & TAG_SINGLE) != 0;
}

uint8_t VelkCless_Check_MandatoryDataIsMissing(void) {
    for (const TAGPRPPERITY &row : gbTagPropreity)
        if ((row.property & TAG_MANDATORY) != 0 && Stored(row.tag) == nullptr) return 1;
    return 0;
}

// Unknown tags are allowed from any source, except the kernel's own tags from
// the card (see velk::KernelOwnTag).
uint8_t VelkCless_Check_DataResoure_NotAllow(uint32_t uiResoureType, uint32_t tag) {
    const TAGPRPPERITY *row = Row(tag);
    if (row == nullptr) return (uiResoureType & TAG_SRC_CARD) != 0 && velk::KernelOwnTag(tag);
    return (uiResoureType & ~(row->property & 0xFF000000u)) != 0;
}

}  // extern "C"

namespace velk {

// The kernel's configuration (from the host's D1 and D3 replies), its
// intermediate results and its outcome tags live in the database beside the
// card's data. None of them has a row in the property table, and a card that
// sent one (a TAC, a limit, the mandatory list, the CDOL1 data a CDA hash
// covers) would rewrite the terminal's own decisions: the card may never set
// them, whatever template carries them.
bool KernelOwnTag(uint32_t tag) {
    if (tag == 0xBF70 || tag == 0xBF71) return true;
    switch (tag >> 8) {
        case 0x9F81:
        case 0x9F82:
        case 0x9F87:
        case 0x9F93:
        case 0xDF81:
        case 0xDF82:
        case 0xDF83:
        case 0xFF81:
            return true;
        default:
            return false;
    }
}

bool CardMaySet(uint32_t tag) {
    return VelkCless_Check_DataResoure_NotAllow(TAG_SRC_CARD, tag) == 0;
}

uint32_t DbGet(uint32_t tag, uint8_t *out, uint32_t cap, uint32_t *len) {
    uint8_t *element = Stored(tag);
    if (element == nullptr) return kErrAbsent;
    uint32_t stored = 0;
    const uint8_t *value = ValueOf(element, &stored);
    const uint32_t n = stored < cap ? stored : cap;
    if (out != nullptr && n != 0) Memcpy_(out, value, static_cast<int>(n));
    if (len != nullptr) *len = out != nullptr ? n : stored;
    return 0;
}

}  // namespace velk

// ==== Data records and output data lists ============================================

extern "C" {

const uint32_t Data_Record_Transaction[34] = {
    0x9F02, 0x9F03, 0x9F24, 0x9F26, 0x82,   0x9F36, 0x9F27, 0x9F10, 0x9F1A, 0x95,   0x5F2A, 0x9A,
    0x9C,   0x9F37, 0x9F35, 0x57,   0x9F34, 0x84,   0x5F34, 0x5A,   0x9F1F, 0x5F20, 0x9F77, 0x9F45,
    0x9F73, 0x9F21, 0x5F24, 0x5F20, 0x5F28, 0x9F4E, 0x9F15, 0x9F06, 0x9F50, 0x50};
const uint32_t Application_Authentication_Transaction_Data[4] = {0x82, 0x95, 0x9F77, 0x84};
const uint32_t DiscretionaryData_Transaction[2] = {0x9F71, 0x9F74};
const uint32_t Error_OutData[3] = {0x95, 0x9B, 0x9F34};

}  // extern "C"

namespace {

constexpr uint32_t kDataRecordTag = 0xFF8105;
constexpr uint32_t kDiscretionaryTag = 0xFF8106;
constexpr uint32_t kHostTagList = 0x9F9311;
constexpr uint32_t kHostAuthTagList = 0x9F9313;
constexpr uint32_t kHostListWorkLen = 256;

enum class Empty : uint8_t { Added, LeftOut };

// Appends the stored element `tag` to the container (an area of cap bytes);
// an element that would pass cap is left out whole.
void AppendStored(uint8_t *container, uint32_t cap, uint32_t tag, Empty empty, uint32_t *len) {
    OBJECT_TAG stored{};
    if (VelkDataBase_GetTagValue(tag, &stored) != 0) return;
    if (empty == Empty::LeftOut && stored.uiLength == 0) return;
    const uint32_t total = velk::AddTagChecked(container, cap, tag, stored.pValue, stored.uiLength);
    if (total != 0 && len != nullptr) *len = total;
}

template <size_t N>
void AppendList(uint8_t *container, uint32_t cap, const uint32_t (&list)[N], Empty empty,
                uint32_t *len, bool (*leaveOut)(uint32_t) = nullptr) {
    for (uint32_t tag : list)
        if (leaveOut == nullptr || !leaveOut(tag)) AppendStored(container, cap, tag, empty, len);
}

// Decodes the next tag of a list of avail bytes with GetTag_xx; 0 when no
// whole tag is left (a tag cut at the end of the list ends the walk). Near
// the end the bytes are decoded from a zeroed copy, so that GetTag_xx never
// reads past the list.
uint32_t NextListTag(const uint8_t *p, uint32_t avail, uint32_t *tag) {
    constexpr uint32_t kLongest = 4;
    uint8_t tail[kLongest] = {};
    const uint8_t *from = p;
    if (avail < kLongest) {
        for (uint32_t i = 0; i < avail; ++i)
            tail[i] = p[i];
        from = tail;
    }
    uint32_t tagLen = 0;
    GetTag_xx(from, tag, &tagLen);
    return tagLen <= avail ? tagLen : 0;
}

// A host list: the elements it names, each once, absent ones with an empty
// value. A 00 byte in the list is filler, not a tag (an element with tag 0
// would be unreadable downstream).
void AppendTagList(const uint8_t *list, uint32_t listLen, uint8_t *container, uint32_t cap,
                   uint32_t *len) {
    if (list == nullptr || container == nullptr) return;
    for (uint32_t at = 0; at < listLen;) {
        uint32_t tag = 0;
        const uint32_t tagLen = NextListTag(list + at, listLen - at, &tag);
        if (tagLen == 0) break;
        at += tagLen;
        if (tag == 0 || TLV_FindTag(container, tag) != nullptr) continue;
        OBJECT_TAG stored{};
        const bool present = VelkDataBase_GetTagValue(tag, &stored) == 0;
        const uint32_t total = velk::AddTagChecked(
            container, cap, tag, present ? stored.pValue : nullptr, present ? stored.uiLength : 0);
        if (total != 0 && len != nullptr) *len = total;
    }
}

// A host list longer than its 256-byte work list is taken up to the 256th
// byte, as the work list holds it; a tag cut there is dropped. The host's
// configuration is at fault, and the data record still carries everything
// the list names within its first 256 bytes.
void AppendHostList(uint32_t listTag, uint8_t *container, uint32_t cap, uint32_t *len) {
    OBJECT_TAG stored{};
    if (VelkDataBase_GetTagValue(listTag, &stored) != 0 || stored.uiLength == 0) return;
    uint8_t work[kHostListWorkLen] = {};
    const uint32_t n = stored.uiLength < kHostListWorkLen ? stored.uiLength : kHostListWorkLen;
    Memcpy_(work, stored.pValue, static_cast<int>(n));
    AppendTagList(work, n, container, cap, len);
}

bool IsCryptogramData(uint32_t tag) {
    return tag == 0x9F36 || tag == 0x9F10 || tag == 0x9F26 || tag == 0x9F27;
}

}  // namespace

namespace velk {

// The cryptogram data is left out: the second GENERATE AC replaces it.
void CreateOnlineRecord(uint8_t *container, uint32_t cap, uint32_t *len) {
    if (container == nullptr) return;
    AppendList(container, cap, Data_Record_Transaction, Empty::Added, len, IsCryptogramData);
}

}  // namespace velk

extern "C" {

// Every container below lives in a work area of VELK_RECORD_WORK_LEN bytes;
// an element that would pass it is left out whole and the next ones are
// still tried.
void VelkCless_Create_DataRecord(uint8_t ucMode, uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen) {
    if (pTlvOutData == nullptr) return;
    if (ucMode != 0)
        velk::NewChecked(pTlvOutData, VELK_RECORD_WORK_LEN, kDataRecordTag, nullptr, 0);
    const bool authentication = VelkCless_Check_ImplementationOption_IsTrue(0x10) &&
                                VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli();
    if (authentication && VelkCless_Kernel_Capabilities_IsTrue(0x340) != 0)
        AppendList(pTlvOutData, VELK_RECORD_WORK_LEN, Application_Authentication_Transaction_Data,
                   Empty::Added, pTlvOutDatalen);
    else
        AppendList(pTlvOutData, VELK_RECORD_WORK_LEN, Data_Record_Transaction, Empty::Added,
                   pTlvOutDatalen);
    AppendHostList(kHostTagList, pTlvOutData, VELK_RECORD_WORK_LEN, pTlvOutDatalen);
    if (authentication)
        AppendHostList(kHostAuthTagList, pTlvOutData, VELK_RECORD_WORK_LEN, pTlvOutDatalen);
}

uint32_t VelkCless_Add_Taglist_Data_To_DataRecord(const uint8_t *pTaglist, uint32_t uiTagListlen,
                                                  uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen) {
    AppendTagList(pTaglist, uiTagListlen, pTlvOutData, VELK_RECORD_WORK_LEN, pTlvOutDatalen);
    return 0;
}

void VelkCless_Create_DiscretionaryData(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen) {
    if (pTlvOutData == nullptr) return;
    velk::NewChecked(pTlvOutData, VELK_RECORD_WORK_LEN, kDiscretionaryTag, nullptr, 0);
    AppendList(pTlvOutData, VELK_RECORD_WORK_LEN, DiscretionaryData_Transaction, Empty::LeftOut,
               pTlvOutDatalen);
}

void VelkCless_Create_ErrorOutData(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen) {
    if (pTlvOutData == nullptr) return;
    velk::NewChecked(pTlvOutData, VELK_RECORD_WORK_LEN, kDataRecordTag, nullptr, 0);
    AppendList(pTlvOutData, VELK_RECORD_WORK_LEN, Error_OutData, Empty::Added, pTlvOutDatalen);
}

void VelkCless_Create_2ndGAC_OnlineData_DataRecord(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen) {
    velk::CreateOnlineRecord(pTlvOutData, VELK_RECORD_WORK_LEN, pTlvOutDatalen);
}

}  // extern "C"

// ==== Queries over the transaction's data ===========================================

namespace {

constexpr uint32_t kKernelCapabilities = 0x9F9301;
constexpr uint32_t kImplementationOptions = 0x9F9302;
constexpr uint32_t kAuthenticationTransactionTypes = 0x9F9309;
constexpr uint32_t kFci = 0x9F8201;
constexpr uint32_t kAuthorisationResponseCode = 0x8A;
constexpr uint32_t kEchoCardIdentifier = 0x9F75;

// A stored value with at least one byte, or null.
const uint8_t *NonEmptyValue(uint32_t tag, uint32_t *len) {
    OBJECT_TAG stored{};
    if (VelkDataBase_GetTagValue(tag, &stored) != 0 || stored.uiLength == 0) return nullptr;
    *len = stored.uiLength;
    return stored.pValue;
}

// The dynamic transaction parameters' 7F01, or null before the kernel start
// has built it (or if its header claims more than the 512-byte area or the
// recorded length).
uint8_t *DynamicParameters() {
    VELK_GLOBALVALUE_STRUCT &g = G();
    uint8_t *dyn = g.ucDynamicTransactionParameters;
    uint32_t tag = 0, len = 0;
    const uint32_t total = Get_TagAndLen_Ex(dyn, &tag, &len) + len;
    const bool ok = tag == kDatabaseTag && total <= sizeof g.ucDynamicTransactionParameters &&
                    total <= g.uiDynamicTransactionParametersLen;
    return ok ? dyn : nullptr;
}

uint8_t *DynamicChild(uint32_t tag) {
    uint8_t *dyn = DynamicParameters();
    return dyn == nullptr ? nullptr : TLV_FindChildTag(dyn, tag);
}

// 9F75 inside an FCI value. The FCI came from a card: its bytes are searched
// only when they start with one well-formed element.
bool EchoIdentifierIn(uint8_t *fci, uint32_t len) {
    return velk::WellFormedLen(fci, len) != 0 && TLV_FindTag(fci, kEchoCardIdentifier) != nullptr;
}

}  // namespace

extern "C" {

uint8_t VelkCless_CheckTagValue_IsZero(uint32_t uiTAG) {
    uint32_t len = 0;
    const uint8_t *value = NonEmptyValue(uiTAG, &len);
    return value != nullptr && value[0] == 0;
}

uint8_t VelkCless_CheckTagValue_IsTrue(uint32_t uiTAG) {
    uint32_t len = 0;
    const uint8_t *value = NonEmptyValue(uiTAG, &len);
    return value != nullptr && value[0] != 0;
}

uint8_t VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(uint32_t uiTag) {
    return DynamicChild(uiTag) != nullptr;
}

uint8_t VelkCless_Check_Tag_isNotPresent_InDynamic_TransactionParam(uint32_t uiTag) {
    return DynamicChild(uiTag) == nullptr;
}

uint8_t VelkCless_Check_ImplementationOption_IsTrue(uint8_t ucOption) {
    uint32_t len = 0;
    const uint8_t *value = NonEmptyValue(kImplementationOptions, &len);
    return value != nullptr && (value[0] & ucOption) != 0;
}

// Byte (CheckOption >> 8), counted from 0, ANDed with the low byte; the AND
// is the result. A byte beyond the stored value reads as 0.
uint8_t VelkCless_Kernel_Capabilities_IsTrue(uint32_t CheckOption) {
    uint32_t len = 0;
    const uint8_t *value = NonEmptyValue(kKernelCapabilities, &len);
    const uint32_t index = CheckOption >> 8;
    if (value == nullptr || index >= len) return 0;
    return static_cast<uint8_t>(value[index] & CheckOption);
}

uint8_t VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli(void) {
    uint32_t len = 0;
    const uint8_t *types = NonEmptyValue(kAuthenticationTransactionTypes, &len);
    for (uint32_t i = 0; types != nullptr && i < len; ++i)
        if (types[i] == G().ucTransationType) return 1;
    return 0;
}

// The FCI of the dynamic transaction parameters if there is one; otherwise,
// on a restart after an online response (8A present), the database's.
uint8_t VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(void) {
    uint32_t len = 0;
    if (uint8_t *fci = DynamicChild(kFci); fci != nullptr) {
        uint8_t *value = ValueOf(fci, &len);
        return EchoIdentifierIn(value, len);
    }
    if (DynamicChild(kAuthorisationResponseCode) == nullptr) return 0;
    OBJECT_TAG stored{};
    if (VelkDataBase_GetTagValue(kFci, &stored) != 0) return 0;
    return EchoIdentifierIn(stored.pValue, stored.uiLength);
}

uint8_t VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(void) {
    uint8_t *fci = DynamicChild(kFci);
    OBJECT_TAG stored{};
    if (fci == nullptr || VelkDataBase_GetTagValue(kFci, &stored) != 0) return 0;
    uint32_t len = 0;
    const uint8_t *value = ValueOf(fci, &len);
    return len == stored.uiLength &&
           (len == 0 || Memcmp_(value, stored.pValue, static_cast<int>(len)) == 0);
}

// Entries are walked as tag and one length byte (Get_TagAndLen_Dol); near the
// end of the DOL they are decoded from a zeroed copy, so that no byte past
// uiDolDataLen is read, and an entry cut by the end stops the walk.
uint8_t VelkCless_TAG_IsPresent_DOL(uint32_t uiTag, const uint8_t *pDolData,
                                    uint32_t uiDolDataLen) {
    if (pDolData == nullptr) return 0;
    constexpr uint32_t kLongestEntry = 8;  // 4 tag bytes and a long-form length read
    for (uint32_t at = 0; at < uiDolDataLen;) {
        const uint32_t avail = uiDolDataLen - at;
        uint8_t tail[kLongestEntry] = {};
        const uint8_t *from = pDolData + at;
        if (avail < kLongestEntry) {
            for (uint32_t i = 0; i < avail; ++i)
                tail[i] = from[i];
            from = tail;
        }
        uint32_t tag = 0, len = 0;
        const uint32_t size = Get_TagAndLen_Dol(from, &tag, &len);
        if (size == 0 || size > avail) return 0;
        if (tag == uiTag) return 1;
        at += size;
    }
    return 0;
}

uint32_t VelkCless_Get_TLV_DataElement(uint8_t *ptlvData, OBJECT_TAG *pTag) {
    uint32_t tag = 0, tagLen = 0, len = 0, lenLen = 0;
    GetTagAndLen(ptlvData, &tag, &tagLen, &len, &lenLen);
    if (tag == 0) return kErrTagZero;
    if (pTag != nullptr) {
        pTag->uiTag = tag;
        pTag->uiLength = len;
        pTag->pValue = ptlvData + tagLen + lenLen;
    }
    return 0;
}

}  // extern "C"
