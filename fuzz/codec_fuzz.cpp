// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes into the codec. Every bounded entry point takes them as
// they come; what TLV_Check_Format accepts is then walked with every finder
// and iterator, and every element they hand out must lie inside its root and
// be readable by the single-field getters. The number and text conversions
// take the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_input.hpp"

#include "checked.hpp"
#include "global.h"
#include "kn_common.h"
#include "tlv.h"

namespace {

using velk::fuzz::Require;

struct Root {
    uint8_t *begin;
    uint8_t *end;
    bool Holds(const uint8_t *e) const {
        if (e == nullptr) return true;
        if (e < begin || e >= end) return false;
        const uint32_t total = TLV_GetTlvTotalLen(e);
        return total <= static_cast<uint32_t>(end - e) &&
               TLV_GetValue(const_cast<uint8_t *>(e)) + TLV_GetLen(e) <= e + total;
    }
};

// Iterates the children of `parent` in both styles, recursing with the
// next-child state saved around the inner iteration.
void Iterate(const Root &r, uint8_t *parent, uint32_t depth) {
    if (depth > 64) return;
    for (uint8_t *c = TLV_GetFirstChildTag(parent); c != nullptr; c = TLV_GetNextChildTag(parent)) {
        Require(r.Holds(c));
        if ((c[0] & 0x20) != 0) {
            TLV_GetNextChildTagPosition saved{};
            TLV_GetNextChlidTagPosition(&saved);
            Iterate(r, c, depth + 1);
            TLV_SetNextChlidTagPosition(&saved);
        }
    }
    for (uint8_t *c = TLV_GetFirstChildTag(parent); c != nullptr; c = TLV_GetNextTagSibling(c))
        Require(r.Holds(c));
    for (uint8_t *c = TLV_GetFirstChildTag_Ex(parent); c != nullptr;
         c = TLV_GetNextChildTag_Ex(parent))
        Require(r.Holds(c));
    for (uint8_t *c = TLV_GetFirstChildTag_Ex(parent); c != nullptr;
         c = TLV_GetNextTagSibling_Ex(c))
        Require(r.Holds(c));
}

// Whether the header at p (as the codec reads it) and the element's declared
// length lie within n bytes: such an element may be handed to the finders
// and iterators as a root, well formed or not.
bool RootWithin(const uint8_t *p, uint32_t n, uint32_t *total) {
    if (n < 1) return false;
    uint32_t t = 1;
    if ((p[0] & 0x1F) == 0x1F) {
        if (n < 2) return false;
        t = 2;
        if ((p[1] & 0x80) != 0 && (p[1] & 0x7F) != 0) {
            if (n < 3) return false;
            t = 3;
            if ((p[2] & 0x80) != 0 && (p[2] & 0x7F) != 0) t = 4;
        }
    }
    if (n < t + 1) return false;
    const uint32_t first = p[t];
    const uint32_t f = first < 0x80 ? 1 : ((first & 0x7F) + 1 > 4 ? 4 : (first & 0x7F) + 1);
    if (n < t + f) return false;
    *total = TLV_GetTlvTotalLen(p);
    return *total <= n;
}

// Every finder and iterator on the root at e: whatever they hand out lies
// inside the root's declared extent and reads consistently.
void WalkRoot(uint8_t *e, uint32_t total, uint32_t tag) {
    const Root r{e, e + total};
    Require(r.Holds(TLV_FindTag(e, tag)));
    Require(r.Holds(TLV_FindTag_Ex(e, tag)));
    Require(r.Holds(TLV_FindChildTag(e, tag)));
    const uint8_t *self = TLV_FindTag(e, TLV_GetTag(e));
    Require(self == nullptr || self == e);
    if ((e[0] & 0x20) != 0) Iterate(r, e, 1);
}

// The bounded builders on bytes nobody checked: a copy with room behind it.
void BuildUnchecked(const uint8_t *data, uint32_t size, uint32_t tag) {
    const uint32_t cap = size + 40;
    std::vector<uint8_t> buf(data, data + size);
    buf.resize(cap, 0);
    const uint8_t value[32] = {1, 2, 3};
    const uint32_t len = size > 0 ? data[0] % 33 : 0;
    const uint32_t total = velk::AddTagChecked(buf.data(), cap, tag, value, len);
    Require(total <= cap);
    if (total != 0) Require(TLV_GetTlvTotalLen(buf.data()) == total);
    const uint32_t updated = velk::AddTagUpdateChecked(buf.data(), cap, tag, value, len / 2);
    Require(updated <= cap);
    Require(velk::NewChecked(buf.data(), cap / 2, tag, value, len) <= cap / 2);
}

// The number and text conversions and the trace dumps on the same bytes,
// each output exactly as large as its contract says.
void Convert(const uint8_t *data, uint32_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const size_t n = std::strlen(text.c_str());
    std::vector<uint8_t> bytes((n + 1) / 2 + 1);
    uint32_t whole = 0;
    Require(Asc_To_Hex(text.c_str(), bytes.data(), &whole) == 0 && whole == n / 2);
    std::vector<char> hex(2 * size + 1);
    Require(Hex_To_Asc(data, size, hex.data()) == 2 * size && hex[2 * size] == '\0');
    const uint32_t value = Hex_To_Long(data, size) ^ Bcd_To_Long(data, 2 * size);
    std::vector<uint8_t> out(size % 8);
    Long_to_Hex(out.data(), static_cast<uint32_t>(out.size()), &value);
    if (out.size() >= 4)
        Require(Hex_To_Long(out.data(), static_cast<uint32_t>(out.size())) == value);
    Long_To_Bcd(out.data(), static_cast<uint32_t>(out.size()), &value);
    Velk_trace_value(data, size);
    Velk_trace_data(data, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    std::vector<uint8_t> buf(data, data + size);  // exact size: a read past it is caught
    uint8_t *p = buf.empty() ? nullptr : buf.data();
    const uint32_t len = static_cast<uint32_t>(size);
    uint32_t tag = 0;
    for (size_t i = 0; i < size && i < 3; ++i)
        tag = (tag << 8) | data[size - 1 - i];

    const uint8_t ok = TLV_Check_Format(p, &len);
    (void)TLV_Check_Format2(p, &len);
    (void)Parse_TLV_buffer(p, len);
    const uint32_t first = velk::WellFormedLen(p, len);
    Require(first <= len);
    Require(velk::FindInSequence(p, len, tag) == nullptr || ok);
    // Roots at the first offsets, checked or not.
    for (uint32_t at = 0; at < len && at < 24; ++at) {
        uint32_t total = 0;
        if (RootWithin(p + at, len - at, &total)) WalkRoot(p + at, total, tag);
    }
    if (ok && p != nullptr) {
        uint8_t *found = velk::FindInSequence(p, len, tag);
        Require(found == nullptr || (found >= p && found < p + len));
    }
    if (ok && p != nullptr && first != 0) {
        // The accepted element as a parent with room: appending keeps it well formed.
        std::vector<uint8_t> grow(p, p + first);
        grow.resize(first + 64, 0);
        const uint8_t v[8] = {};
        const uint32_t total = velk::AddTagChecked(grow.data(), first + 64, 0x9F36, v, 2);
        if (total != 0) Require(velk::WellFormedLen(grow.data(), first + 64) == total);
        const uint32_t shrunk = TLV_DelTag(grow.data(), 0x9F36);
        Require(shrunk <= first + 64);
    }
    BuildUnchecked(data, len, tag | 0x20);
    Convert(data, len);
    return 0;
}
