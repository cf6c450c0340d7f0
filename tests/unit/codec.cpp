// SPDX-License-Identifier: Apache-2.0
// Drivers of codec.data that the generic call cannot express: out
// parameters, several functions over one input, iteration. Buffers are
// exact-size heap copies unless room is asked for, so that a read past the
// end shows under ASan.
#include <cstdint>
#include <vector>

#include "checked.hpp"
#include "rows.hpp"
#include "tlv.h"

namespace velk::test {
namespace {

using Buf = std::vector<uint8_t>;

Buf WithRoom(const Bytes &b, size_t room) {
    Buf v(b.begin(), b.end());
    v.resize(b.size() + room, 0xEE);
    return v;
}
// A pointer result as an offset into the buffer, "-" for null.
std::string At(const uint8_t *p, const uint8_t *base) {
    return p == nullptr ? "-" : std::to_string(p - base);
}

// header:element:tag:tag length:length:length-field size
VELK_DRIVER(header) {
    Buf b = WithRoom(row.Hex(0), 8);
    uint32_t tag = 0, tagLen = 0, len = 0, lenLen = 0;
    GetTagAndLen(b.data(), &tag, &tagLen, &len, &lenLen);
    row.Eq("tag", row.U(1), tag);
    row.Eq("tag length", row.U(2), tagLen);
    row.Eq("length", row.U(3), len);
    row.Eq("length field", row.U(4), lenLen);
    row.Eq("TLV_GetTag", row.U(1), TLV_GetTag(b.data()));
    row.Eq("TLV_GetLen", row.U(3), TLV_GetLen(b.data()));
    row.Eq("TLV_GetTlvTotalLen", tagLen + lenLen + len, TLV_GetTlvTotalLen(b.data()));
    uint32_t t2 = 0, l2 = 0;
    row.Eq("Get_TagAndLen_Ex", tagLen + lenLen, Get_TagAndLen_Ex(b.data(), &t2, &l2));
    row.Eq("Get_TagAndLen_Ex tag", row.U(1), t2);
    GetTag_xx(b.data(), &t2, &l2);
    row.Eq("GetTag_xx", tagLen, l2);
}

// header_ex:element:result:tag:length (Get_TagAndLen_Ex; "-" a null pointer)
VELK_DRIVER(header_ex) {
    Buf b = WithRoom(row.Arg(0) == "-" ? Bytes{} : row.Hex(0), 8);
    uint32_t tag = 7, len = 7;
    row.Eq("result", row.U(1),
           Get_TagAndLen_Ex(row.Arg(0) == "-" ? nullptr : b.data(), &tag, &len));
    row.Eq("tag", row.U(2), tag);
    row.Eq("length", row.U(3), len);
}

// null_getters: every getter with a null pointer
VELK_DRIVER(null_getters) {
    row.Eq("TLV_GetTag", 0u, TLV_GetTag(nullptr));
    row.Eq("TLV_GetLen", 0u, TLV_GetLen(nullptr));
    row.Eq("TLV_GetValue", "-", At(TLV_GetValue(nullptr), nullptr));
    uint32_t tag = 9;
    GetTagAndLen(nullptr, &tag, nullptr, nullptr, nullptr);
    row.Eq("GetTagAndLen writes nothing", 9u, tag);
    row.Eq("Get_TagAndLen_Dol", 0u, Get_TagAndLen_Dol(nullptr, &tag, nullptr));
    row.Eq("TLV_New", 0u, TLV_New(nullptr, 0x5A, nullptr, 0));
    uint8_t d[4];
    row.Eq("TLV_Init", "0", At(TLV_Init(d, 4), d));
}

// dol_entry:entry:size:tag:length (Get_TagAndLen_Dol)
VELK_DRIVER(dol_entry) {
    Buf b = WithRoom(row.Hex(0), 4);
    uint32_t tag = 7, len = 7;
    row.Eq("size", row.U(1), Get_TagAndLen_Dol(b.data(), &tag, &len));
    row.Eq("tag", row.U(2), tag);
    row.Eq("length", row.U(3), len);
}

// read_tag:bytes:count:tag (TLV_ReadTag)
VELK_DRIVER(read_tag) {
    Buf b = WithRoom(row.Hex(0), 4);
    uint32_t tag = 0;
    row.Eq("count", row.U(1), TLV_ReadTag(b.data(), &tag));
    row.Eq("tag", row.U(2), tag);
}

// hostile:element (a malformed tree: no finder or iterator finds 9F02 in it)
VELK_DRIVER(hostile) {
    Buf b = WithRoom(row.Hex(0), 0);
    row.Eq("TLV_FindTag", "-", At(TLV_FindTag(b.data(), 0x9F02), b.data()));
    row.Eq("TLV_FindTag_Ex", "-", At(TLV_FindTag_Ex(b.data(), 0x9F02), b.data()));
    row.Eq("TLV_FindChildTag", "-", At(TLV_FindChildTag(b.data(), 0x9F02), b.data()));
    row.Eq("TLV_GetFirstChildTag", "-", At(TLV_GetFirstChildTag(b.data()), b.data()));
    row.Eq("TLV_GetNextChildTag", "-", At(TLV_GetNextChildTag(b.data()), b.data()));
    row.Eq("TLV_GetFirstChildTag_Ex", "-", At(TLV_GetFirstChildTag_Ex(b.data()), b.data()));
    row.Eq("FindInSequence", "-",
           At(velk::FindInSequence(b.data(), static_cast<uint32_t>(b.size()), 0x9F02), b.data()));
}

// check:bytes:TLV_Check_Format:TLV_Check_Format2:Parse_TLV_buffer:WellFormedLen
VELK_DRIVER(check) {
    Buf b = WithRoom(row.Hex(0), 0);
    const uint32_t len = static_cast<uint32_t>(b.size());
    row.Eq("TLV_Check_Format", row.U(1), TLV_Check_Format(b.data(), &len));
    if (!row.Arg(2).empty())
        row.Eq("TLV_Check_Format2", row.U(2), TLV_Check_Format2(b.data(), &len));
    if (!row.Arg(3).empty()) row.Eq("Parse_TLV_buffer", row.U(3), Parse_TLV_buffer(b.data(), len));
    if (!row.Arg(4).empty()) row.Eq("WellFormedLen", row.U(4), velk::WellFormedLen(b.data(), len));
}

// empty_checks
VELK_DRIVER(empty_checks) {
    const uint8_t b[1] = {0x5A};
    const uint32_t zero = 0;
    row.Eq("TLV_Check_Format", 1u, TLV_Check_Format(b, &zero));
    row.Eq("Parse_TLV_buffer", 1u, Parse_TLV_buffer(b, 0));
    row.Eq("TLV_Check_Format2", 0u, TLV_Check_Format2(b, &zero));
    row.Eq("TLV_Check_Format of null", 0u, TLV_Check_Format(nullptr, &zero));
    row.Eq("WellFormedLen", 0u, velk::WellFormedLen(b, 0));
}

// nested:levels:accepted (E1 nested that deep around an empty E1, then 5A
// at that depth)
VELK_DRIVER(nested) {
    const int levels = static_cast<int>(std::stoul(row.Arg(0)));
    const bool ok = row.U(1) != 0;
    Bytes t = host::FromHex("E1 00"), leaf = host::FromHex("5A 01 12");
    for (int i = 1; i < levels; ++i)
        t = host::Tlv(0xE1, {t}), leaf = host::Tlv(0xE1, {leaf});
    Buf b = WithRoom(t, 0);
    const uint32_t len = static_cast<uint32_t>(b.size());
    row.Eq("TLV_Check_Format", ok, TLV_Check_Format(b.data(), &len));
    row.Eq("TLV_Check_Format2", ok, TLV_Check_Format2(b.data(), &len));
    row.Eq("Parse_TLV_buffer", ok, Parse_TLV_buffer(b.data(), len));
    row.Eq("WellFormedLen", ok ? len : 0u, velk::WellFormedLen(b.data(), len));
    row.Eq("root found", "0", At(TLV_FindTag(b.data(), 0xE1), b.data()));
    row.Eq("past the bottom", "-", At(TLV_FindTag(b.data(), 0x5A), b.data()));
    Buf l = WithRoom(leaf, 0);
    row.Eq("leaf found", ok, TLV_FindTag(l.data(), 0x5A) != nullptr);
    row.Eq("leaf found (Ex)", ok, TLV_FindTag_Ex(l.data(), 0x5A) != nullptr);
}

// children:parent:style:offsets. Styles: next (GetFirst then GetNext),
// next_ex, sibling, sibling_ex; nested (GetNext with the save and restore
// pair around each constructed child's own iteration, listing tags) and
// nested_unsaved (the same without the pair).
VELK_DRIVER(children) {
    Buf b = WithRoom(row.Hex(0), 0);
    const std::string style = row.Arg(1);
    std::string seen;
    auto note = [&](const std::string &s) { seen += (seen.empty() ? "" : " ") + s; };
    const bool ex = style.ends_with("_ex");
    uint8_t *c = ex ? TLV_GetFirstChildTag_Ex(b.data()) : TLV_GetFirstChildTag(b.data());
    for (; c != nullptr;) {
        if (style.starts_with("nested")) {
            note(host::ToHex(host::EncodeTag(TLV_GetTag(c))));
            if ((c[0] & 0x20) != 0) {
                TLV_GetNextChildTagPosition saved{};
                if (style == "nested") TLV_GetNextChlidTagPosition(&saved);
                for (uint8_t *g = TLV_GetFirstChildTag(c); g != nullptr; g = TLV_GetNextChildTag(c))
                    note(host::ToHex(host::EncodeTag(TLV_GetTag(g))));
                if (style == "nested") TLV_SetNextChlidTagPosition(&saved);
            }
        } else {
            note(At(c, b.data()));
        }
        if (style.starts_with("sibling"))
            c = ex ? TLV_GetNextTagSibling_Ex(c) : TLV_GetNextTagSibling(c);
        else
            c = ex ? TLV_GetNextChildTag_Ex(b.data()) : TLV_GetNextChildTag(b.data());
    }
    row.Eq("children", row.Arg(2), seen);
}

// restored_bigger: a next-child state restored from a larger parent cannot
// lead out of a smaller one
VELK_DRIVER(restored_bigger) {
    const TLV_GetNextChildTagPosition big{2, 4000};
    TLV_SetNextChlidTagPosition(&big);
    Buf s = WithRoom(host::FromHex("70 03 5A 01 12"), 0);
    row.Eq("first", "2", At(TLV_GetNextChildTag(s.data()), s.data()));
    row.Eq("second", "-", At(TLV_GetNextChildTag(s.data()), s.data()));
}

// copy:bytes:to:from:count:after (CopyBytes within one buffer)
VELK_DRIVER(copy) {
    Buf b = WithRoom(row.Hex(0), 0);
    velk::CopyBytes(b.data() + row.U(1), b.data() + row.U(2), row.U(3));
    row.Eq("after", row.Hex(4), Bytes(b.begin(), b.end()));
}

}  // namespace
}  // namespace velk::test
