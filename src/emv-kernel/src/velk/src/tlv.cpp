// SPDX-License-Identifier: Apache-2.0
// The kernel's BER-TLV codec: decoding, building, the depth-first walkers,
// child iteration and the checkers, plus the bounded forms of checked.hpp.
//
// Reading rules shared by every walker (finders, iterators, checkers):
// - a header is decoded only when its tag bytes and its length bytes lie
//   inside the element that encloses it (for the checkers: inside the given
//   length), and an element is stepped into only when it ends inside that
//   element too. Anything else is malformed: finders and iterators return
//   null, checkers return 0.
// - a length field whose count byte is 84..FF is malformed for the walkers.
//   The decoders read it as 83 (three length bytes, deliberately), but
//   TLV_GetValue locates the value behind (count & 0x7F) + 1 bytes, so a
//   reader of a buffer that a checker had accepted could be led past the
//   element. Refusing the form keeps every checked buffer readable by all the
//   getters alike.
// - nesting deeper than TLV_MAX_DEPTH open elements (the root counts as one,
//   primitives too) is refused.
// - the root handed to a finder or an iterator is the caller's own element:
//   its header is read as it stands and its declared length is the bound of
//   the walk.
//
// The decoders and the builders stay unbounded: they take no length, their
// callers know their bytes.
#include "tlv.h"

#include <stddef.h>
#include <stdint.h>

#include "checked.hpp"
#include "reg_std.h"

int32_t dataIndex = 0;
uint32_t dataIndexNextChild = 0;
uint32_t dataTotalParentLen = 0;

namespace {

constexpr uint32_t kUnbounded = 0xFFFFFFFFu;
// Value lengths the codec encodes faithfully (TLV_GenLen skips zero bytes
// between non-zero ones above this).
constexpr uint32_t kMaxFaithfulLen = 0xFFFFu;
constexpr uint32_t kHighShifts[3] = {24, 16, 8};

constexpr bool IsConstructed(uint8_t first) {
    return (first & 0x20) != 0;
}

void Put(uint32_t *out, uint32_t v) {
    if (out != nullptr) *out = v;
}

// Tag rule of the codec: at most 4 bytes; b1 and b2 continue the tag only
// when their bit 0x80 is set and their low seven bits are not all zero; the
// fourth byte is never tested. Reads no byte at or past `avail`; 0 when the
// tag would run past it.
uint32_t TagAt(const uint8_t *p, uint32_t avail, uint32_t *tag) {
    if (avail < 1) return 0;
    const uint32_t b0 = p[0];
    if ((b0 & 0x1F) != 0x1F) {
        *tag = b0;
        return 1;
    }
    if (avail < 2) return 0;
    const uint32_t b1 = p[1];
    if ((b1 & 0x80) == 0 || (b1 & 0x7F) == 0) {
        *tag = (b0 << 8) | b1;
        return 2;
    }
    if (avail < 3) return 0;
    const uint32_t b2 = p[2];
    if ((b2 & 0x80) == 0 || (b2 & 0x7F) == 0) {
        *tag = (b0 << 16) | (b1 << 8) | b2;
        return 3;
    }
    if (avail < 4) return 0;
    *tag = (b0 << 24) | (b1 << 16) | (b2 << 8) | p[3];
    return 4;
}

// Length field starting at p: below 80 one byte; otherwise (L & 0x7F) + 1
// bytes capped at 4, the bytes after the count read big-endian (80 gives 0).
// Returns the field size, 0 when it would run past `avail`.
uint32_t LenAt(const uint8_t *p, uint32_t avail, uint32_t *len) {
    if (avail < 1) return 0;
    const uint32_t first = p[0];
    if (first < 0x80) {
        *len = first;
        return 1;
    }
    uint32_t size = (first & 0x7F) + 1;
    if (size > 4) size = 4;
    if (avail < size) return 0;
    uint32_t v = 0;
    for (uint32_t i = 1; i < size; ++i)
        v = (v << 8) | p[i];
    *len = v;
    return size;
}

struct Header {
    uint32_t tag = 0;
    uint32_t tagLen = 0;
    uint32_t len = 0;
    uint32_t lenLen = 0;
    uint32_t head() const { return tagLen + lenLen; }
    uint32_t total() const { return tagLen + lenLen + len; }
};

// The codec's decoding, on trusted bytes.
Header Decode(const uint8_t *p) {
    Header h;
    h.tagLen = TagAt(p, kUnbounded, &h.tag);
    h.lenLen = LenAt(p + h.tagLen, kUnbounded, &h.len);
    return h;
}

// The walkers' decoding: the whole element (header and value) within
// `avail` bytes, and no 84..FF length form.
bool Element(const uint8_t *p, uint32_t avail, Header &h) {
    h.tagLen = TagAt(p, avail, &h.tag);
    if (h.tagLen == 0 || h.tagLen >= avail || p[h.tagLen] >= 0x84) return false;
    h.lenLen = LenAt(p + h.tagLen, avail - h.tagLen, &h.len);
    return h.lenLen != 0 && h.len <= avail - h.head();
}

// The caller's root: header read as it stands, its length is the bound.
bool Root(const uint8_t *p, Header &h) {
    if (p == nullptr) return false;
    h = Decode(p);
    return p[h.tagLen] < 0x84;
}

uint32_t SkipPadding(const uint8_t *p, uint32_t pos, uint32_t end) {
    while (pos < end && p[pos] == 0xFF)
        ++pos;
    while (pos < end && p[pos] == 0x00)
        ++pos;
    return pos;
}

uint32_t PutTag(uint8_t *d, uint32_t tag) {
    uint32_t n = 0;
    for (uint32_t shift : kHighShifts) {
        const uint8_t b = static_cast<uint8_t>(tag >> shift);
        if (b != 0) d[n++] = b;
    }
    d[n++] = static_cast<uint8_t>(tag);
    return n;
}

// A length written in exactly `size` bytes (long form when size > 1); used
// when a parent's field is longer than its new length needs.
void PutLenIn(uint8_t *d, uint32_t len, uint32_t size) {
    if (size == 1) {
        d[0] = static_cast<uint8_t>(len);
        return;
    }
    d[0] = static_cast<uint8_t>(0x80 + size - 1);
    for (uint32_t i = size - 1; i >= 1; --i, len >>= 8)
        d[i] = static_cast<uint8_t>(len);
}

// ---- The depth-first walk ----------------------------------------------------

enum class Pad : uint8_t { None, AfterStart, Everywhere };
enum class Stop : uint8_t { Found, Done, Malformed };
struct WalkResult {
    Stop stop;
    uint32_t pos;
};

// How a walk treats its first element and malformed insides.
enum WalkFlags : uint8_t {
    kSkipFirst = 1,  // the element at 0 is not compared
    kTolerant = 2,   // a malformed element inside another ends only that one
};

// Walks the elements of p[0, end) depth-first with a stack of open elements:
// the finders over their root's extent, the checkers over the given length.
// Padding (a run of FF, then a run of 00) is skipped where `pad` says. With
// `find`, stops at the first element whose tag is `tag`. Tolerant, an
// element that is malformed inside an enclosing one ends only that enclosing
// element: the walk goes on behind it.
WalkResult Walk(const uint8_t *p, uint32_t end, Pad pad, bool find, uint32_t tag, uint8_t flags) {
    TLVStackStruct g_TagStack[TLV_MAX_DEPTH];
    uint32_t depth = 0;
    uint32_t pos = 0;
    auto innermostEnd = [&]() { return g_TagStack[depth - 1].nPos + g_TagStack[depth - 1].nLen; };
    for (;;) {
        if (pos >= end) return {Stop::Done, pos};
        if (pad == Pad::Everywhere || (pad == Pad::AfterStart && pos != 0)) {
            pos = SkipPadding(p, pos, end);
            if (pos >= end) return {Stop::Done, pos};
        }
        if (depth > 0 && pos >= innermostEnd()) {
            --depth;
            continue;
        }
        const uint32_t limit = depth > 0 ? innermostEnd() : end;
        Header h;
        if (!Element(p + pos, limit - pos, h) || depth == TLV_MAX_DEPTH) {
            if ((flags & kTolerant) == 0 || depth == 0) return {Stop::Malformed, pos};
            pos = innermostEnd();
            --depth;
            continue;
        }
        g_TagStack[depth].nPos = pos;
        g_TagStack[depth].nLen = h.total();
        ++depth;
        if (find && h.tag == tag && !((flags & kSkipFirst) != 0 && pos == 0))
            return {Stop::Found, pos};
        if (IsConstructed(p[pos])) {
            pos += h.head();
            continue;
        }
        --depth;
        pos += h.total();
        if (depth > 0 && pos >= innermostEnd()) --depth;
    }
}

uint8_t *FindFrom(uint8_t *root, uint32_t tag, Pad pad, bool skipRoot) {
    Header h;
    if (!Root(root, h)) return nullptr;
    const WalkResult r = Walk(root, h.total(), pad, true, tag, skipRoot ? kSkipFirst : 0);
    return r.stop == Stop::Found ? root + r.pos : nullptr;
}

uint8_t CheckWalk(const uint8_t *p, uint32_t len, Pad pad) {
    if (p == nullptr) return 0;
    const WalkResult r = Walk(p, len, pad, false, 0, 0);
    return r.stop == Stop::Done && r.pos == len;
}

// TLV_Check_Format2's recursion; depth counts like the walk's stack.
uint8_t CheckTree(const uint8_t *p, uint32_t len, uint32_t depth) {
    Header h;
    if (depth > TLV_MAX_DEPTH || !Element(p, len, h) || h.total() != len) return 0;
    if (!IsConstructed(p[0])) return 1;
    uint32_t pos = h.head();
    while (pos < len) {
        pos = SkipPadding(p, pos, len);
        if (pos >= len) return 1;
        Header c;
        if (depth == TLV_MAX_DEPTH || !Element(p + pos, len - pos, c)) return 0;
        if (IsConstructed(p[pos]) && !CheckTree(p + pos, c.total(), depth + 1)) return 0;
        pos += c.total();
    }
    return pos == len;
}

// ---- Child iteration -----------------------------------------------------------
//
// A child that is malformed within its parent (header or value past the
// parent's end) ends the iteration: null, and the state is moved to the
// parent's end so that the next call returns null as well.

uint8_t *FirstChild(uint8_t *parent, bool skip) {
    dataIndex = 0;
    Header h;
    if (parent == nullptr || !IsConstructed(parent[0]) || !Root(parent, h)) return nullptr;
    dataTotalParentLen = h.total();
    dataIndex = static_cast<int32_t>(h.head());
    // Until a first child is found the next-child position is the end, so a
    // TLV_GetNextChildTag after an empty parent finds nothing either.
    dataIndexNextChild = dataTotalParentLen;
    if (h.len == 0) return nullptr;
    uint32_t at = h.head();
    if (skip) at = SkipPadding(parent, at, dataTotalParentLen);
    dataIndex = static_cast<int32_t>(at);
    Header c;
    if (at >= dataTotalParentLen || !Element(parent + at, dataTotalParentLen - at, c))
        return nullptr;
    dataIndexNextChild = at + c.total();
    return parent + at;
}

uint8_t *NextChild(uint8_t *parent, bool skip) {
    Header h;
    if (parent == nullptr || dataIndexNextChild >= dataTotalParentLen || !Root(parent, h))
        return nullptr;
    // Bounded by the parent's own extent as well as by the saved total: a
    // state restored for another parent cannot lead out of this one.
    const uint32_t end = h.total() < dataTotalParentLen ? h.total() : dataTotalParentLen;
    uint32_t at = dataIndexNextChild;
    if (skip) at = SkipPadding(parent, at, end);
    dataIndexNextChild = at;
    if (at >= dataTotalParentLen) return nullptr;
    Header c;
    if (at < h.head() || at >= end || !Element(parent + at, end - at, c)) {
        dataIndexNextChild = dataTotalParentLen;
        return nullptr;
    }
    dataIndexNextChild = at + c.total();
    return parent + at;
}

// The sibling style knows its parent only through the state: the current
// child lies dataIndex bytes into a parent of dataTotalParentLen bytes.
uint8_t *NextSibling(uint8_t *current, bool skip) {
    if (current == nullptr) return nullptr;
    const uint32_t index = static_cast<uint32_t>(dataIndex);
    if (index >= dataTotalParentLen) return nullptr;
    const uint32_t room = dataTotalParentLen - index;
    Header c;
    if (!Element(current, room, c)) {
        dataIndex = static_cast<int32_t>(dataTotalParentLen);
        return nullptr;
    }
    uint32_t step = c.total();
    if (step >= room) return nullptr;
    if (skip) step = SkipPadding(current, step, room);
    dataIndex = static_cast<int32_t>(index + step);
    Header n;
    if (step >= room) return nullptr;
    if (!Element(current + step, room - step, n)) {
        dataIndex = static_cast<int32_t>(dataTotalParentLen);
        return nullptr;
    }
    return current + step;
}

// ---- Removal -------------------------------------------------------------------

// Removes `size` bytes at offset `at` of the parent and rewrites only the
// parent's own length (minimal form, the value moved back when the field
// shrinks). The parent's new total length.
uint32_t RemoveAt(uint8_t *parent, const Header &h, uint32_t at, uint32_t size) {
    const uint32_t end = h.total();
    velk::CopyBytes(parent + at, parent + at + size, end - at - size);
    const uint32_t v = h.len - size;
    uint8_t field[5];
    const uint32_t f = TLV_GenLen(v, field);
    for (uint32_t i = 0; i < f; ++i)
        parent[h.tagLen + i] = field[i];
    if (f < h.lenLen) velk::CopyBytes(parent + h.tagLen + f, parent + h.head(), v);
    return TLV_GetTlvTotalLen(parent);
}

// The parent's total length after `added` bytes of children are appended,
// following TLV_AddTag's header rule (the field grows, never shrinks).
bool GrownTotal(const Header &h, uint32_t lenLen, uint32_t added, uint32_t *total) {
    const uint32_t v = h.len + added;
    if (added > kMaxFaithfulLen || v > kMaxFaithfulLen) return false;
    const uint32_t f = velk::LenSize(v) > lenLen ? velk::LenSize(v) : lenLen;
    *total = h.tagLen + f + v;
    return true;
}

}  // namespace

extern "C" {

// ---- Decoding ------------------------------------------------------------------

uint32_t GetLen(const uint8_t *pTLVData, uint32_t *lenLen, uint32_t *len) {
    if (pTLVData == nullptr) return 0;
    uint32_t v = 0;
    const uint32_t size = LenAt(pTLVData, kUnbounded, &v);
    Put(lenLen, size);
    Put(len, v);
    return v;
}

void GetTagAndLen(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurTagLen,
                  uint32_t *pnCurLen, uint32_t *pnCurLenLen) {
    if (pTLVData == nullptr) return;
    const Header h = Decode(pTLVData);
    Put(pnCurTag, h.tag);
    Put(pnCurTagLen, h.tagLen);
    Put(pnCurLen, h.len);
    Put(pnCurLenLen, h.lenLen);
}

uint32_t Get_TagAndLen_Ex(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurLen) {
    if (pTLVData == nullptr) return 0;
    if (pTLVData[0] == 0x00) {  // padding: no header
        Put(pnCurTag, 0);
        Put(pnCurLen, 0);
        return 0;
    }
    const Header h = Decode(pTLVData);
    Put(pnCurTag, h.tag);
    Put(pnCurLen, h.len);
    return h.head();
}

uint32_t Get_TagAndLen_Dol(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurLen) {
    if (pTLVData == nullptr) return 0;
    if (pTLVData[0] == 0x00) {  // a zero byte is stepped over
        Put(pnCurTag, 0);
        Put(pnCurLen, 0);
        return 1;
    }
    uint32_t tag = 0;
    const uint32_t tagLen = TagAt(pTLVData, kUnbounded, &tag);
    uint32_t len = pTLVData[tagLen];
    // Kept as it is: behind a 4-byte tag a length byte of 80 or more is read
    // in long form, while the entry still counts one length byte.
    if (tagLen == 4 && len >= 0x80) LenAt(pTLVData + tagLen, kUnbounded, &len);
    Put(pnCurTag, tag);
    Put(pnCurLen, len);
    return tagLen + 1;
}

void GetTag_xx(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurTagLen) {
    if (pTLVData == nullptr) return;
    uint32_t tag = 0;
    const uint32_t tagLen = TagAt(pTLVData, kUnbounded, &tag);
    Put(pnCurTag, tag);
    Put(pnCurTagLen, tagLen);
}

// Full BER tag rule without a limit: the caller must know that the whole tag
// lies in its buffer. Tags longer than 4 bytes keep their last 4 bytes.
uint32_t TLV_ReadTag(const uint8_t *Buffer, uint32_t *Tag) {
    if (Buffer == nullptr) return 0;
    uint32_t tag = Buffer[0];
    uint32_t n = 1;
    if ((tag & 0x1F) == 0x1F) {
        uint8_t b;
        do {
            b = Buffer[n++];
            tag = (tag << 8) | b;
        } while ((b & 0x80) != 0);
    }
    Put(Tag, tag);
    return n;
}

uint32_t TLV_GetTag(const uint8_t *pTLVData) {
    return pTLVData == nullptr ? 0 : Decode(pTLVData).tag;
}

uint32_t TLV_GetLen(const uint8_t *pTLVData) {
    return pTLVData == nullptr ? 0 : Decode(pTLVData).len;
}

// The value behind (L & 0x7F) + 1 length bytes, without the decoders' cap of
// 4: kept as it is (the walkers refuse the forms where the two differ).
uint8_t *TLV_GetValue(uint8_t *pTLVData) {
    if (pTLVData == nullptr) return nullptr;
    uint32_t tag = 0;
    const uint32_t tagLen = TagAt(pTLVData, kUnbounded, &tag);
    const uint32_t first = pTLVData[tagLen];
    return pTLVData + tagLen + (first < 0x80 ? 1u : (first & 0x7Fu) + 1u);
}

uint32_t TLV_GetTlvTotalLen(const uint8_t *pTLVData) {
    return pTLVData == nullptr ? 0 : Decode(pTLVData).total();
}

uint32_t TLV_Get_Tag_Len(uint32_t uiTag, uint8_t *Tag_buffer) {
    const uint32_t n = uiTag >= 0x1000000u ? 4 : uiTag > 0xFFFFu ? 3 : uiTag > 0xFFu ? 2 : 1;
    if (Tag_buffer != nullptr)
        for (uint32_t i = 0; i < n; ++i)
            Tag_buffer[i] = static_cast<uint8_t>(uiTag >> (8 * (n - 1 - i)));
    return n;
}

uint8_t *TLV_Init(uint8_t *data, uint32_t dataLen) {
    (void)dataLen;
    return data;
}

// ---- Building --------------------------------------------------------------------

uint32_t TLV_GenLen(uint32_t len, uint8_t *buffer) {
    uint8_t field[5];
    uint32_t n = 0;
    if (len <= 0x7F) {
        field[n++] = static_cast<uint8_t>(len);
    } else {
        field[n++] = 0x80;
        for (uint32_t shift : kHighShifts) {
            const uint8_t b = static_cast<uint8_t>(len >> shift);
            if (b != 0) field[n++] = b;  // a zero byte between non-zero ones is skipped
        }
        field[n++] = static_cast<uint8_t>(len);
        field[0] = static_cast<uint8_t>(0x80 + n - 1);
    }
    if (buffer != nullptr)
        for (uint32_t i = 0; i < n; ++i)
            buffer[i] = field[i];
    return n;
}

// A null value with a non-zero length writes that many zero bytes.
uint32_t TLV_New(uint8_t *pTLVData, uint32_t tag, const uint8_t *value, uint32_t len) {
    if (pTLVData == nullptr) return 0;
    uint32_t n = PutTag(pTLVData, tag);
    n += TLV_GenLen(len, pTLVData + n);
    if (value != nullptr)
        velk::CopyBytes(pTLVData + n, value, len);
    else if (len != 0)
        Memset_(pTLVData + n, 0, static_cast<int>(len));
    return n + len;
}

uint32_t TLV_AddTag(uint8_t *pTLVData, uint32_t tag, const uint8_t *value, uint32_t len) {
    if (pTLVData == nullptr || !IsConstructed(pTLVData[0])) return 0;
    const Header h = Decode(pTLVData);
    const uint32_t added = TLV_New(pTLVData + h.total(), tag, value, len);
    const uint32_t v = h.len + added;
    uint8_t field[5];
    const uint32_t f = TLV_GenLen(v, field);
    if (f < h.lenLen) {
        // A parent whose field is longer than needed keeps its size.
        PutLenIn(pTLVData + h.tagLen, v, h.lenLen);
    } else {
        // The children move from the last byte backwards to make room.
        if (f > h.lenLen) velk::CopyBytes(pTLVData + h.tagLen + f, pTLVData + h.head(), v);
        for (uint32_t i = 0; i < f; ++i)
            pTLVData[h.tagLen + i] = field[i];
    }
    return TLV_GetTlvTotalLen(pTLVData);
}

uint32_t TLV_AddTag_TLV(uint8_t *pTLVData, const uint8_t *pNewTLVData) {
    if (pNewTLVData == nullptr) return 0;
    const Header h = Decode(pNewTLVData);
    return TLV_AddTag(pTLVData, h.tag, pNewTLVData + h.head(), h.len);
}

uint32_t TLV_AddTag_UpDataMode(uint8_t *pTLVData, uint32_t tag, const uint8_t *value,
                               uint32_t len) {
    uint8_t *found = TLV_FindTag(pTLVData, tag);
    if (found == nullptr) return TLV_AddTag(pTLVData, tag, value, len);
    const Header e = Decode(found);
    if (e.len == len) {
        if (value != nullptr) velk::CopyBytes(found + e.head(), value, len);
        return TLV_GetTlvTotalLen(pTLVData);
    }
    TLV_DelTag(pTLVData, tag);
    return TLV_AddTag(pTLVData, tag, value, len);
}

// The parent is never removed from itself: the search starts below it. A
// match inside a nested child leaves that child's own length as it was (only
// the parent's length is rewritten); the kernel deletes direct children of
// flat lists only, and the database goes through velk::DelChild.
uint32_t TLV_DelTag(uint8_t *pTLVData, uint32_t tag) {
    if (pTLVData == nullptr || !IsConstructed(pTLVData[0])) return 0;
    uint8_t *found = FindFrom(pTLVData, tag, Pad::None, true);
    if (found == nullptr) return TLV_GetTlvTotalLen(pTLVData);
    const Header h = Decode(pTLVData);
    const uint32_t at = static_cast<uint32_t>(found - pTLVData);
    return RemoveAt(pTLVData, h, at, Decode(found).total());
}

// ---- Searching and iterating -------------------------------------------------------

uint8_t *TLV_FindTag(uint8_t *pTLVData, uint32_t nTag) {
    return FindFrom(pTLVData, nTag, Pad::None, false);
}

uint8_t *TLV_FindTag_Ex(uint8_t *pTLVData, uint32_t nTag) {
    return FindFrom(pTLVData, nTag, Pad::AfterStart, false);
}

uint8_t *TLV_FindChildTag(uint8_t *pTLVData, uint32_t nTag) {
    Header h;
    if (!Root(pTLVData, h)) return nullptr;
    const uint32_t end = h.total();
    for (uint32_t pos = h.head(); pos < end;) {
        Header c;
        if (!Element(pTLVData + pos, end - pos, c)) return nullptr;
        if (c.tag == nTag) return pTLVData + pos;
        pos += c.total();
    }
    return nullptr;
}

uint8_t *TLV_GetFirstChildTag(uint8_t *pTLVData) {
    return FirstChild(pTLVData, true);
}
uint8_t *TLV_GetNextChildTag(uint8_t *pTLVData) {
    return NextChild(pTLVData, true);
}
uint8_t *TLV_GetNextTagSibling(uint8_t *pTLVData) {
    return NextSibling(pTLVData, true);
}
uint8_t *TLV_GetFirstChildTag_Ex(uint8_t *pTLVData) {
    return FirstChild(pTLVData, false);
}
uint8_t *TLV_GetNextChildTag_Ex(uint8_t *pTLVData) {
    return NextChild(pTLVData, false);
}
uint8_t *TLV_GetNextTagSibling_Ex(uint8_t *pTLVData) {
    return NextSibling(pTLVData, false);
}

// The saved state covers the next-child style only; dataIndex (the sibling
// style) is not part of it.
uint32_t TLV_GetNextChlidTagPosition(TLV_GetNextChildTagPosition *pGetNextChildPosition) {
    if (pGetNextChildPosition != nullptr) {
        pGetNextChildPosition->uiCurrentChildPosition = dataIndexNextChild;
        pGetNextChildPosition->uiTLVTotalPosition = dataTotalParentLen;
    }
    return 0;
}

uint32_t TLV_SetNextChlidTagPosition(const TLV_GetNextChildTagPosition *pGetNextChildPosition) {
    if (pGetNextChildPosition != nullptr) {
        dataIndexNextChild = pGetNextChildPosition->uiCurrentChildPosition;
        dataTotalParentLen = pGetNextChildPosition->uiTLVTotalPosition;
    }
    return 0;
}

// ---- Checking ----------------------------------------------------------------------

uint8_t TLV_Check_Format(const uint8_t *pTLVData, const uint32_t *pTLVDataLen) {
    return pTLVDataLen == nullptr ? 0 : CheckWalk(pTLVData, *pTLVDataLen, Pad::Everywhere);
}

uint8_t TLV_Check_Format2(const uint8_t *pTLVData, const uint32_t *pTLVDataLen) {
    if (pTLVData == nullptr || pTLVDataLen == nullptr) return 0;
    return CheckTree(pTLVData, *pTLVDataLen, 1);
}

uint8_t Parse_TLV_buffer(const uint8_t *pTLVData, uint32_t nTLVDataLen) {
    return CheckWalk(pTLVData, nTLVDataLen, Pad::AfterStart);
}

}  // extern "C"

// ---- Bounded forms (checked.hpp) -------------------------------------------------------

namespace velk {

void CopyBytes(uint8_t *dst, const uint8_t *src, uint32_t n) {
    if (n == 0 || dst == src) return;
    const uintptr_t d = reinterpret_cast<uintptr_t>(dst);
    const uintptr_t s = reinterpret_cast<uintptr_t>(src);
    if (d + n <= s || s + n <= d) {
        Memcpy_(dst, src, static_cast<int>(n));
    } else if (d < s) {
        for (uint32_t i = 0; i < n; ++i)
            dst[i] = src[i];
    } else {
        for (uint32_t i = n; i > 0; --i)
            dst[i - 1] = src[i - 1];
    }
}

uint32_t NewChecked(uint8_t *dst, uint32_t cap, uint32_t tag, const uint8_t *value, uint32_t len) {
    if (dst == nullptr || len > kMaxFaithfulLen || ElementSize(tag, len) > cap) return 0;
    return TLV_New(dst, tag, value, len);
}

uint32_t AddTagChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                       uint32_t len) {
    Header h;
    uint32_t total = 0;
    if (parent == nullptr || cap == 0 || !IsConstructed(parent[0]) || !Element(parent, cap, h) ||
        len > kMaxFaithfulLen || !GrownTotal(h, h.lenLen, ElementSize(tag, len), &total) ||
        total > cap)
        return 0;
    return TLV_AddTag(parent, tag, value, len);
}

uint32_t AddTagUpdateChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                             uint32_t len) {
    Header h;
    if (parent == nullptr || cap == 0 || !Element(parent, cap, h) || len > kMaxFaithfulLen)
        return 0;
    uint8_t *found = TLV_FindTag(parent, tag);
    if (found == nullptr) return AddTagChecked(parent, cap, tag, value, len);
    if (Decode(found).len == len) return TLV_AddTag_UpDataMode(parent, tag, value, len);
    if (!IsConstructed(parent[0])) return 0;
    // Another length: TLV_DelTag then TLV_AddTag. The size after both is
    // known before anything moves, so a refused update loses nothing.
    const uint8_t *gone = FindFrom(parent, tag, Pad::None, true);
    Header after = h;
    uint32_t lenLen = h.lenLen;
    if (gone != nullptr) {
        after.len -= Decode(gone).total();
        lenLen = LenSize(after.len);
    }
    uint32_t total = 0;
    if (!GrownTotal(after, lenLen, ElementSize(tag, len), &total) || total > cap) return 0;
    return TLV_AddTag_UpDataMode(parent, tag, value, len);
}

uint32_t ReplaceChildChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                             uint32_t len) {
    Header h;
    if (parent == nullptr || cap == 0 || !IsConstructed(parent[0]) || !Element(parent, cap, h) ||
        len > kMaxFaithfulLen)
        return 0;
    uint8_t *old = TLV_FindChildTag(parent, tag);
    if (old == nullptr) return AddTagChecked(parent, cap, tag, value, len);
    const Header o = Decode(old);
    if (o.len == len) {
        if (value != nullptr) CopyBytes(old + o.head(), value, len);
        return h.total();
    }
    Header after = h;
    after.len -= o.total();
    uint32_t total = 0;
    if (!GrownTotal(after, LenSize(after.len), ElementSize(tag, len), &total) || total > cap)
        return 0;
    (void)RemoveAt(parent, h, static_cast<uint32_t>(old - parent), o.total());
    return TLV_AddTag(parent, tag, value, len);
}

bool Writer::put(const uint8_t *src, uint32_t n) {
    if (!fits(n)) return false;
    if (n != 0) Memcpy_(buf_ + len_, src, static_cast<int>(n));
    len_ += n;
    return true;
}

bool Writer::zeros(uint32_t n) {
    if (!fits(n)) return false;
    if (n != 0) Memset_(buf_ + len_, 0, static_cast<int>(n));
    len_ += n;
    return true;
}

// The database's lookup, run for nearly every data element a step reads:
// TLV_FindChildTag's walk in a tight loop. The database is written only by
// TLV_New, TLV_AddTag and the removals here, so its children are whole and
// minimally encoded; the loop decodes each header in place and compares
// the tag's bytes in place. No byte at or past `end` is read: headers are
// decoded in place only while 8 bytes (the longest header) are left, and
// Element decodes the last few. A child whose header or value would pass
// `end` ends the search with null, as in TLV_FindChildTag.
uint8_t *FindStoredChild(uint8_t *first, const uint8_t *end, uint32_t tag) {
    constexpr uint32_t kLongestHeader = 8;
    // A child carries the tag when its first tagLen bytes, read big-endian,
    // are the tag: the child's first four bytes shifted right by `shift`.
    uint32_t tagLen = 1;
    for (uint32_t rest = tag; rest > 0xFF; rest >>= 8)
        ++tagLen;
    const uint32_t shift = 32 - 8 * tagLen;
    uint8_t *e = first;
    // In place while 8 bytes are left: the next child's address is tested
    // once against that bound, and a child that leaves less (or whose value
    // would pass the end) is taken again by the checked loop below.
    const uintptr_t roomy = reinterpret_cast<uintptr_t>(end) - kLongestHeader;
    if (end - e >= static_cast<ptrdiff_t>(kLongestHeader)) {
        for (;;) {
            // p: the length byte, behind the tag (TagAt's rule).
            const uint32_t b0 = e[0];
            uint8_t *p = e + 1;
            if ((b0 & 0x1F) == 0x1F) {
                p = e + 2;
                if (e[1] > 0x80) {
                    p = e + 3;
                    if (e[2] > 0x80) p = e + 4;
                }
            }
            uint8_t *value = p + 1;
            uint32_t len = *p;
            if (len >= 0x80) {
                if (len >= 0x84) return nullptr;
                const uint8_t *const stop = value + (len - 0x80);
                for (len = 0; value < stop; ++value)
                    len = (len << 8) | *value;
            }
            const uint32_t head = b0 << 24 | uint32_t{e[1]} << 16 | uint32_t{e[2]} << 8 | e[3];
            if (head >> shift == tag && p - e == static_cast<ptrdiff_t>(tagLen) &&
                len <= static_cast<uint32_t>(end - value))
                return e;
            const uintptr_t next = reinterpret_cast<uintptr_t>(value) + len;
            if (next > roomy) break;
            e = value + len;
        }
    }
    while (e < end) {
        Header c;
        if (!Element(e, static_cast<uint32_t>(end - e), c)) return nullptr;
        if (c.tag == tag) return e;
        e += c.total();
    }
    return nullptr;
}

uint32_t DelChild(uint8_t *parent, uint8_t *child) {
    Header h;
    if (!Root(parent, h) || child < parent + h.head() || child >= parent + h.total()) return 0;
    const uint32_t at = static_cast<uint32_t>(child - parent);
    Header c;
    if (!Element(child, h.total() - at, c)) return 0;
    return RemoveAt(parent, h, at, c.total());
}

// The check is TLV_Check_Format's walk except at the element's first byte,
// which is its tag and not padding: TLV_Check_Format would skip the FF of an
// FF8105 there and refuse the element.
uint32_t WellFormedLen(const uint8_t *p, uint32_t n) {
    Header h;
    if (p == nullptr || !Element(p, n, h)) return 0;
    return Parse_TLV_buffer(p, h.total()) ? h.total() : 0;
}

bool SequenceFits(const uint8_t *p, uint32_t len) {
    if (p == nullptr) return false;
    for (uint32_t pos = SkipPadding(p, 0, len); pos < len; pos = SkipPadding(p, pos, len)) {
        Header h;
        if (!Element(p + pos, len - pos, h)) return false;
        pos += h.total();
    }
    return true;
}

uint32_t OuterLen(const uint8_t *p, uint32_t n) {
    Header h;
    if (p == nullptr || !Element(p, n, h)) return 0;
    if (IsConstructed(p[0]) && !SequenceFits(p + h.head(), h.len)) return 0;
    return h.total();
}

uint8_t *FindInInput(uint8_t *p, uint32_t len, uint32_t tag, bool padding) {
    if (p == nullptr) return nullptr;
    const WalkResult r = Walk(p, len, padding ? Pad::Everywhere : Pad::None, true, tag, kTolerant);
    return r.stop == Stop::Found ? p + r.pos : nullptr;
}

// Padding is skipped before every element, the first one included (as
// TLV_Check_Format accepted it), and inside the elements as TLV_FindTag_Ex
// skips it.
uint8_t *FindInSequence(uint8_t *p, uint32_t len, uint32_t tag) {
    if (p == nullptr || !TLV_Check_Format(p, &len)) return nullptr;
    const WalkResult r = Walk(p, len, Pad::Everywhere, true, tag, 0);
    return r.stop == Stop::Found ? p + r.pos : nullptr;
}

}  // namespace velk
