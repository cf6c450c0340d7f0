// Drivers of tree.data: the TLV tree editing library. A tree sits in a buffer
// with 512 spare bytes of EE behind it; "after" is the root as its length
// field now reads.
#include <vector>

#include "kn_tlv.h"
#include "rows.hpp"

namespace velk::test {
namespace {

using Buf = std::vector<uint8_t>;

Buf Tree(const Bytes &t, size_t room = 512) {
    Buf b(t.begin(), t.end());
    b.resize(t.size() + room, 0xEE);
    return b;
}
Bytes Root(const Buf &b) {
    return Bytes(b.begin(), b.begin() + static_cast<long>(std::min<size_t>(tlv_get_node_l_(b.data()), b.size())));
}
const uint8_t *ValueOrNull(const Bytes &v, const std::string &arg) {
    return arg == "-" ? nullptr : v.data();
}

// new:tag:value:result:bytes (tlv_new_; value "-" a null pointer)
VELK_DRIVER(tree_new) {
    uint8_t b[32] = {};
    const Bytes v = row.Arg(1) == "-" ? Bytes{} : row.Hex(1);
    const uint32_t len = row.Arg(1) == "-" ? 2 : static_cast<uint32_t>(v.size());
    const uint32_t n = tlv_new_(b, row.U(0), len, ValueOrNull(v, row.Arg(1)));
    row.Eq("result", row.U(2), n);
    row.Eq("bytes", row.Hex(3), Bytes(b, b + n));
    if (n == 0) row.Eq("untouched", 0u, b[0]);
}

// new_refused: a null destination and a length past the 83 form
VELK_DRIVER(tree_new_refused) {
    uint8_t b[8] = {};
    const uint8_t v[2] = {1, 2};
    row.Eq("null destination", 0u, tlv_new_(nullptr, 0x9F02, 2, v));
    row.Eq("length 1000000", 0u, tlv_new_(b, 0x9F02, 0x1000000, v));
}

// read:element:tag:tag size:length:length-field size:total (the getters)
VELK_DRIVER(tree_read) {
    Buf b = Tree(row.Hex(0), 8);
    row.Eq("tlv_get_t_", row.U(1), tlv_get_t_(b.data()));
    row.Eq("tlv_get_t_len_", row.U(2), tlv_get_t_len_(b.data()));
    row.Eq("tlv_get_l_", row.U(3), tlv_get_l_(b.data()));
    row.Eq("tlv_get_l_len_", row.U(4), tlv_get_l_len_(b.data()));
    row.Eq("tlv_get_node_l_", row.U(5), tlv_get_node_l_(b.data()));
    row.Eq("tlv_is_composite_", (b[0] & 0x20) != 0, tlv_is_composite_(b.data()) != 0);
    if (row.U(4) != 0)
        row.Eq("value offset", row.U(2) + row.U(4), static_cast<uint32_t>(tlv_get_v_(b.data()) - b.data()));
}

// big_length: a value of 65536 bytes takes the 83 form
VELK_DRIVER(tree_big_length) {
    Buf big(0x10000 + 5, 0);
    tlv_new_(big.data(), 0x5A, 0x10000, big.data() + 5);
    row.Eq("header", host::FromHex("5A 83 01 00 00"), Bytes(big.begin(), big.begin() + 5));
    row.Eq("length", 0x10000u, tlv_get_l_(big.data()));
    row.Eq("tlv_get_t_ of null", 0u, tlv_get_t_(nullptr));
}

// add:tree:tag:value:result:after (tlv_add_child_; value "-" a null pointer
// of length 3)
VELK_DRIVER(tree_add) {
    Buf b = Tree(row.Hex(0));
    const Bytes v = row.Arg(2) == "-" ? Bytes(3) : row.Hex(2);
    row.Eq("result", row.U(3), tlv_add_child_(b.data(), row.U(1), static_cast<uint32_t>(v.size()), ValueOrNull(v, row.Arg(2))));
    row.Eq("after", row.Hex(4), Root(b));
}

// delete:tree:tag:result:after (tlv_delete_)
VELK_DRIVER(tree_delete) {
    Buf b = Tree(row.Hex(0));
    row.Eq("result", row.U(2), tlv_delete_(b.data(), row.U(1)));
    row.Eq("after", row.Hex(3), Root(b));
    row.Eq("p_tlv_src cleared", true, p_tlv_src == nullptr);
}

// modify:tree:tag:value:result:after:total (tlv_modify_; the result is the
// size at the match, the total what the root's field then reads)
VELK_DRIVER(tree_modify) {
    Buf b = Tree(row.Hex(0));
    const Bytes v = row.Arg(2) == "-" ? Bytes(2) : row.Hex(2);
    row.Eq("result", row.U(3), tlv_modify_(b.data(), row.U(1), static_cast<uint32_t>(v.size()), ValueOrNull(v, row.Arg(2))));
    row.Eq("after", row.Hex(4), Root(b));
    row.Eq("total", row.U(5), tlv_get_node_l_(b.data()));
    row.Eq("p_tlv_src cleared", true, p_tlv_src == nullptr);
    row.Eq("p_tlv_total_size cleared", 0u, p_tlv_total_size);
}

// replace:tree:tag:value:after (tlv_replace_)
VELK_DRIVER(tree_replace) {
    Buf b = Tree(row.Hex(0));
    const Bytes v = row.Hex(2);
    row.Eq("result", 0u, tlv_replace_(b.data(), row.U(1), static_cast<uint32_t>(v.size()), v.data()));
    row.Eq("after", row.Hex(3), Root(b));
}

// move:source:destination:tag:result:destination after (tlv_move_; the
// source never changes)
VELK_DRIVER(tree_move) {
    Buf src = Tree(row.Hex(0)), dst = Tree(row.Hex(1));
    row.Eq("result", row.U(3), tlv_move_(src.data(), dst.data(), row.U(2)));
    row.Eq("destination", row.Hex(4), Root(dst));
    row.Eq("source", row.Hex(0), Root(src));
}

// batch:source:destination:result:destination after (tlv_batch_move_)
VELK_DRIVER(tree_batch) {
    Buf src = Tree(row.Hex(0)), dst = Tree(row.Hex(1));
    row.Eq("result", row.U(2), tlv_batch_move_(src.data(), dst.data()));
    if (row.U(2) != 0) row.Eq("destination", row.Hex(3), Root(dst));
}

// children:tree:tags (tlv_get_first_child_ then tlv_get_next_child_)
VELK_DRIVER(tree_children) {
    Buf b = Tree(row.Hex(0));
    std::string tags;
    for (pu8 c = tlv_get_first_child_(b.data()); c != nullptr; c = tlv_get_next_child_(c))
        tags += (tags.empty() ? "" : " ") + host::ToHex(host::EncodeTag(tlv_get_t_(c)));
    row.Eq("children", row.Arg(1), tags);
}

// hostile:tree (a child past its parent: 9F36 is neither found, deleted nor
// modified, nothing changes, and iteration stays inside the root)
VELK_DRIVER(tree_hostile) {
    const Bytes src = row.Hex(0);
    const size_t root = 2u + src[1];
    Buf b(src.begin(), src.end());
    row.Eq("tlv_find_", true, tlv_find_(b.data(), 0x9F36) == nullptr);
    row.Eq("tlv_delete_", root, tlv_delete_(b.data(), 0x9F36));
    row.Eq("tlv_modify_", 0u, tlv_modify_(b.data(), 0x9F36, 0, nullptr));
    row.Eq("unchanged", src, Bytes(b.begin(), b.end()));
    for (pu8 c = tlv_get_first_child_(b.data()); c != nullptr; c = tlv_get_next_child_(c))
        row.Eq("child inside the root", true, c + tlv_get_node_l_(c) <= b.data() + root);
}

// depth:levels:accepted (5A 01 12 that deep in E1)
VELK_DRIVER(tree_depth) {
    Bytes t = host::FromHex("5A 01 12");
    for (unsigned long i = 1; i < std::stoul(row.Arg(0)); ++i)
        t = host::Tlv(0xE1, {t});
    Buf b = Tree(t, 8);
    const bool ok = row.U(1) != 0;
    const uint8_t v = 0x34;
    row.Eq("found", ok, tlv_find_(b.data(), 0x5A) != nullptr);
    row.Eq("delete of an absent tag", t.size(), tlv_delete_(b.data(), 0x9F02));
    row.Eq("modified", ok, tlv_modify_(b.data(), 0x5A, 1, &v) != 0);
}

}  // namespace
}  // namespace velk::test
