// SPDX-License-Identifier: Apache-2.0
// TLV tree editing library: in-place edits of a BER-TLV tree that keep every
// enclosing length field correct.
//
// Reading: the root's header is the caller's and is read as it stands; its
// declared length bounds everything below it. Every other node is read only
// when its header and its value lie inside the value of its parent; a node
// that does not is malformed and the operation refuses (null or 0) without
// changing anything. Trees nested deeper than kMaxDepth levels are refused the
// same way (the recursion would otherwise follow hostile nesting down the
// stack).
#include "kn_tlv.h"

#include "reg_std.h"

pu8 p_tlv_src = nullptr;
u32 p_tlv_total_size = 0;
u32 g_composite_v_length = 0;

namespace {

constexpr u32 kLenLimit = 0x1000000;  // lengths from here on have no length form
constexpr u32 kMaxDepth = 48;
constexpr u32 kUnbounded = 0xFFFFFFFFu;

struct Node {
    u32 tag = 0;
    u32 tagLen = 0;
    u32 len = 0;
    u32 lenLen = 0;
    u32 head() const { return tagLen + lenLen; }
    u32 total() const { return tagLen + lenLen + len; }
};

u32 TagSize(u32 tag) {
    return tag >= 0x1000000 ? 4 : tag >= 0x10000 ? 3 : tag >= 0x100 ? 2 : 1;
}

u32 LenFieldSize(u32 len) {
    return len < 0x80 ? 1 : len < 0x100 ? 2 : len < 0x10000 ? 3 : 4;
}

u8 Byte(u32 v, u32 index) {
    return static_cast<u8>(v >> (8 * index));
}

// Tag check by magnitude: the first byte of a multi-byte tag has its low five
// bits set, inner bytes have bit 0x80, the last byte has it clear; a one-byte
// tag is non-zero and not a multi-byte first byte.
bool TagValid(u32 tag) {
    const u32 n = TagSize(tag);
    const u8 first = Byte(tag, n - 1);
    if (n == 1) return tag != 0 && (first & 0x1F) != 0x1F;
    if ((first & 0x1F) != 0x1F || (Byte(tag, 0) & 0x80) != 0) return false;
    for (u32 i = 1; i + 1 < n; ++i)
        if ((Byte(tag, i) & 0x80) == 0) return false;
    return true;
}

u32 PutLen(pu8 d, u32 len) {
    const u32 n = LenFieldSize(len);
    if (n == 1) {
        d[0] = static_cast<u8>(len);
        return 1;
    }
    d[0] = static_cast<u8>(0x80 + n - 1);
    for (u32 i = 1; i < n; ++i)
        d[i] = Byte(len, n - 1 - i);
    return n;
}

// Moves n bytes inside the tree, in the direction that keeps the source.
void Move(pu8 dst, const u8 *src, u32 n) {
    if (dst < src) {
        for (u32 i = 0; i < n; ++i)
            dst[i] = src[i];
    } else if (dst > src) {
        for (u32 i = n; i > 0; --i)
            dst[i - 1] = src[i - 1];
    }
}

// The node at p, reading no byte at or past avail (kUnbounded for the root).
// Tag: 4 bytes when the first byte's low five bits are set and the second and
// third bytes have bit 0x80, 3 when the second has it, 2 when only the low
// five bits are set, else 1. Length: 1 byte below 80, 81/82/83 with 1 to 3
// bytes; 80 and 84 or more read as length 0 with a field of 0 bytes.
bool Parse(const u8 *p, u32 avail, Node &n) {
    if (avail < 1) return false;
    u32 size = 1;
    if ((p[0] & 0x1F) == 0x1F) {
        size = 2;
        if (avail > 1 && (p[1] & 0x80) != 0) size = avail > 2 && (p[2] & 0x80) != 0 ? 4 : 3;
    }
    if (size >= avail) return false;  // the tag and the first length byte
    n.tag = 0;
    for (u32 i = 0; i < size; ++i)
        n.tag = (n.tag << 8) | p[i];
    n.tagLen = TagSize(n.tag);
    const u8 first = p[n.tagLen];
    n.len = 0;
    n.lenLen = 0;
    if (first < 0x80) {
        n.len = first;
        n.lenLen = 1;
    } else if (first >= 0x81 && first <= 0x83) {
        n.lenLen = first - 0x80 + 1u;
        if (n.lenLen > avail - n.tagLen) return false;
        for (u32 i = 1; i < n.lenLen; ++i)
            n.len = (n.len << 8) | p[n.tagLen + i];
    }
    return n.len <= avail - n.head();
}

Node Read(const u8 *p) {
    Node n;
    Parse(p, kUnbounded, n);
    return n;
}

// A child of `parent` at offset `at`, whole inside the parent's value.
bool Child(const u8 *parent, const Node &pn, u32 at, Node &c) {
    return Parse(parent + at, pn.total() - at, c);
}

// ---- Search ------------------------------------------------------------------

enum class Status : u8 { Going, Malformed };

pu8 FindIn(pu8 node, const Node &n, u32 T, u32 depth, Status &status) {
    if (n.tag == T) return node;
    if (!tlv_is_composite_(node) || n.len == 0) return nullptr;
    if (depth >= kMaxDepth) {
        status = Status::Malformed;
        return nullptr;
    }
    for (u32 at = n.head(); at < n.total();) {
        Node c;
        if (!Child(node, n, at, c)) {
            status = Status::Malformed;
            return nullptr;
        }
        pu8 hit = FindIn(node + at, c, T, depth + 1, status);
        if (hit != nullptr || status != Status::Going) return hit;
        at += c.total();
    }
    return nullptr;
}

// Every constructed node below `node` is read whole: its children tile its
// value exactly, down to kMaxDepth levels.
bool WellFormedIn(const u8 *node, const Node &n, u32 depth) {
    if (!tlv_is_composite_(node) || n.len == 0) return true;
    if (depth >= kMaxDepth) return false;
    for (u32 at = n.head(); at < n.total();) {
        Node c;
        if (!Child(node, n, at, c) || !WellFormedIn(node + at, c, depth + 1)) return false;
        at += c.total();
    }
    return true;
}

// Checked before every edit, so that a malformed tree is refused whole and
// nothing in it changes (a search that stops at a bad node must not read as
// "absent" and make a replace append).
bool WellFormed(const u8 *root) {
    return root != nullptr && WellFormedIn(root, Read(root), 1);
}

// ---- Delete ------------------------------------------------------------------

// Removes the first node with tag T below or at `node`; the bytes removed
// from the tree (the node and the length bytes its ancestors saved), 0 when
// not found. p_tlv_total_size follows the root's size.
u32 RemoveIn(pu8 node, const Node &n, u32 T, u32 depth, Status &status) {
    if (n.tag == T) {
        const pu8 end = p_tlv_src + p_tlv_total_size;
        const pu8 after = node + n.total();
        Move(node, after, static_cast<u32>(end - after));
        p_tlv_total_size -= n.total();
        return n.total();
    }
    if (!tlv_is_composite_(node) || n.len == 0) return 0;
    if (depth >= kMaxDepth) {
        status = Status::Malformed;
        return 0;
    }
    for (u32 at = n.head(); at < n.total();) {
        Node c;
        if (!Child(node, n, at, c)) {
            status = Status::Malformed;
            return 0;
        }
        const u32 removed = RemoveIn(node + at, c, T, depth + 1, status);
        if (status != Status::Going) return 0;
        if (removed != 0) {
            const u32 len = n.len - removed;
            const u32 saved = n.lenLen - LenFieldSize(len);
            if (saved != 0) {
                const pu8 value = node + n.head();
                const pu8 end = p_tlv_src + p_tlv_total_size;
                Move(value - saved, value, static_cast<u32>(end - value));
                p_tlv_total_size -= saved;
            }
            PutLen(node + n.tagLen, len);
            return removed + saved;
        }
        at += c.total();
    }
    return 0;
}

// ---- Modify ------------------------------------------------------------------

struct Edit {
    u32 T;
    u32 L;
    const u8 *pV;
    u32 size;  // the root's exact size as the edit goes on
    Status status;
};

// Moves everything from `from` to the root's end by `grow` bytes (negative:
// to the left) and keeps the root's size.
void Shift(Edit &e, pu8 from, int64_t grow) {
    const pu8 end = p_tlv_src + e.size;
    Move(from + grow, from, static_cast<u32>(end - from));
    e.size = static_cast<u32>(static_cast<int64_t>(e.size) + grow);
}

// Rewrites the first node with tag T; the node's new total size, 0 when not
// found or refused.
u32 ModifyIn(pu8 node, const Node &n, Edit &e, u32 depth) {
    if (n.tag == e.T) {
        // Refused before anything moves: a tag or length tlv_new_ would not
        // write, or a tree whose enclosing lengths could pass the 83 form.
        const u32 m = TagSize(e.T) + LenFieldSize(e.L) + e.L;
        const bool writable = TagValid(e.T) && e.L < kLenLimit && (e.pV != nullptr || e.L == 0);
        if (!writable ||
            static_cast<uint64_t>(e.size) - n.total() + m + 3ull * depth >= kLenLimit) {
            e.status = Status::Malformed;
            return 0;
        }
        Shift(e, node + n.total(), static_cast<int64_t>(m) - n.total());
        p_tlv_total_size = e.size;
        return tlv_new_(node, e.T, e.L, e.pV);
    }
    if (!tlv_is_composite_(node) || n.len == 0) return 0;
    if (depth >= kMaxDepth) {
        e.status = Status::Malformed;
        return 0;
    }
    for (u32 at = n.head(); at < n.total();) {
        Node c;
        if (!Child(node, n, at, c)) {
            e.status = Status::Malformed;
            return 0;
        }
        const u32 grown = ModifyIn(node + at, c, e, depth + 1);
        if (e.status != Status::Going) return 0;
        if (grown != 0) {
            const u32 len = n.len - c.total() + grown;
            const u32 field = LenFieldSize(len);
            if (field != n.lenLen)
                Shift(e, node + n.head(), static_cast<int64_t>(field) - n.lenLen);
            PutLen(node + n.tagLen, len);
            return n.tagLen + field + len;
        }
        at += c.total();
    }
    return 0;
}

// The child at `child` and the one after it, for the iteration.
bool Sized(const u8 *child, u32 avail, u32 *size) {
    Node n;
    if (child == nullptr || !Parse(child, avail, n)) return false;
    *size = n.total();
    return true;
}

}  // namespace

extern "C" {

u32 tlv_new_(pu8 pTlvData, u32 T, u32 L, const u8 *pV) {
    if (pTlvData == nullptr || !TagValid(T) || L >= kLenLimit || (pV == nullptr && L != 0))
        return 0;
    const u32 tagLen = TagSize(T);
    for (u32 i = 0; i < tagLen; ++i)
        pTlvData[i] = Byte(T, tagLen - 1 - i);
    const u32 head = tagLen + PutLen(pTlvData + tagLen, L);
    if (L != 0) Move(pTlvData + head, pV, L);
    return head + L;
}

u32 tlv_get_t_(const u8 *pTlvData) {
    if (pTlvData == nullptr || pTlvData[0] == 0x00) return 0;
    return Read(pTlvData).tag;
}

u32 tlv_get_t_len_(const u8 *pTlvData) {
    return TagSize(tlv_get_t_(pTlvData));
}

u32 tlv_get_l_(const u8 *pTlvData) {
    return pTlvData == nullptr ? 0 : Read(pTlvData).len;
}

u32 tlv_get_l_len_(const u8 *pTlvData) {
    return pTlvData == nullptr ? 0 : Read(pTlvData).lenLen;
}

pu8 tlv_get_v_(pu8 pTlvData) {
    return pTlvData == nullptr ? nullptr : pTlvData + Read(pTlvData).head();
}

u32 tlv_get_node_l_(const u8 *pTlvData) {
    return pTlvData == nullptr ? 0 : Read(pTlvData).total();
}

u8 tlv_is_composite_(const u8 *pTlvData) {
    return pTlvData != nullptr && (pTlvData[0] & 0x20) != 0;
}

// The move of the value takes the byte after it along: the caller keeps one
// spare byte behind the room it reserved for the growth.
u32 tlv_add_child_(pu8 pTlvData, u32 T, u32 L, const u8 *pV) {
    if (pTlvData == nullptr || (pV == nullptr && L != 0) || !tlv_is_composite_(pTlvData) ||
        !WellFormed(pTlvData))
        return 0;
    const Node n = Read(pTlvData);
    const u32 written = tlv_new_(pTlvData + n.total(), T, L, pV);
    const u32 len = n.len + written;
    if (len >= kLenLimit) return 0;
    const u32 field = LenFieldSize(len);
    if (field != n.lenLen) {
        const pu8 value = pTlvData + n.head();
        Move(pTlvData + n.tagLen + field, value, len + 1);
    }
    PutLen(pTlvData + n.tagLen, len);
    return tlv_get_node_l_(pTlvData);
}

pu8 tlv_find_(pu8 pTlvData, u32 T) {
    if (pTlvData == nullptr) return nullptr;
    Status status = Status::Going;
    return FindIn(pTlvData, Read(pTlvData), T, 1, status);
}

u32 tlv_delete_(pu8 pTlvData, u32 T) {
    if (pTlvData == nullptr) return 0;
    const Node root = Read(pTlvData);
    if (!WellFormed(pTlvData)) return root.total();
    p_tlv_src = pTlvData;
    p_tlv_total_size = root.total();
    Status status = Status::Going;
    const u32 removed = RemoveIn(pTlvData, root, T, 1, status);
    p_tlv_src = nullptr;
    return root.total() - removed;
}

// The result is the root's size as it stood when the node was rewritten: the
// growth or shrinkage of the enclosing length fields is not in it (kept as it
// is; the tree is exact, tlv_get_node_l_ gives its size).
u32 tlv_modify_(pu8 pTlvData, u32 T, u32 L, const u8 *pV) {
    if (!WellFormed(pTlvData)) return 0;
    const Node root = Read(pTlvData);
    p_tlv_src = pTlvData;
    p_tlv_total_size = 0;
    Edit e{T, L, pV, root.total(), Status::Going};
    const u32 done = ModifyIn(pTlvData, root, e, 1);
    const u32 result = done != 0 ? p_tlv_total_size : 0;
    p_tlv_src = nullptr;
    p_tlv_total_size = 0;
    return result;
}

u32 tlv_replace_(pu8 pTlvData, u32 T, u32 L, const u8 *pV) {
    if (!WellFormed(pTlvData)) return 0;
    if (tlv_find_(pTlvData, T) != nullptr)
        tlv_modify_(pTlvData, T, L, pV);
    else
        tlv_add_child_(pTlvData, T, L, pV);
    return 0;
}

// Source and destination are distinct trees. A malformed source or
// destination copies nothing, like an absent tag (1).
u32 tlv_move_(pu8 pTlvData, pu8 pTlvDstData, u32 T) {
    if (!WellFormed(pTlvData) || !WellFormed(pTlvDstData)) return 1;
    pu8 node = tlv_find_(pTlvData, T);
    if (node == nullptr) return 1;
    tlv_replace_(pTlvDstData, T, tlv_get_l_(node), tlv_get_v_(node));
    return 0;
}

pu8 tlv_get_first_child_(pu8 pTlvData) {
    if (!tlv_is_composite_(pTlvData)) return nullptr;
    const Node n = Read(pTlvData);
    u32 size = 0;
    if (n.len == 0 || !Sized(pTlvData + n.head(), n.len, &size)) return nullptr;
    g_composite_v_length = n.len;
    return pTlvData + n.head();
}

pu8 tlv_get_next_child_(pu8 pTlvData) {
    u32 size = 0;
    if (!Sized(pTlvData, g_composite_v_length, &size)) return nullptr;
    g_composite_v_length -= size;
    if (g_composite_v_length == 0) return nullptr;
    pu8 next = pTlvData + size;
    u32 nextSize = 0;
    if (!Sized(next, g_composite_v_length, &nextSize)) {
        g_composite_v_length = 0;
        return nullptr;
    }
    return next;
}

u32 tlv_batch_move_(pu8 pTlvData, pu8 pTlvDstData) {
    if (!tlv_is_composite_(pTlvData) || !tlv_is_composite_(pTlvDstData) || !WellFormed(pTlvData) ||
        !WellFormed(pTlvDstData))
        return 0;
    for (pu8 child = tlv_get_first_child_(pTlvData); child != nullptr;
         child = tlv_get_next_child_(child))
        tlv_move_(pTlvData, pTlvDstData, tlv_get_t_(child));
    return tlv_get_node_l_(pTlvDstData);
}

}  // extern "C"
