// SPDX-License-Identifier: Apache-2.0
// Drivers of tree.data that the generic call cannot express: the module
// state after a delete or modify, iteration, malformed and deep trees. A tree
// sits in a buffer with 512 spare bytes of EE behind it; "after" is the root
// as its length field now reads.
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
    return Bytes(b.begin(), b.begin() + static_cast<long>(
                                            std::min<size_t>(tlv_get_node_l_(b.data()), b.size())));
}

// big_length: a value of 65536 bytes takes the 83 form
VELK_DRIVER(tree_big_length) {
    Buf big(0x10000 + 5, 0);
    tlv_new_(big.data(), 0x5A, 0x10000, big.data() + 5);
    row.Eq("header", host::FromHex("5A 83 01 00 00"), Bytes(big.begin(), big.begin() + 5));
    row.Eq("length", 0x10000u, tlv_get_l_(big.data()));
    row.Eq("tlv_get_t_ of null", 0u, tlv_get_t_(nullptr));
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
    row.Eq("result", row.U(3),
           tlv_modify_(b.data(), row.U(1), static_cast<uint32_t>(v.size()),
                       row.Arg(2) == "-" ? nullptr : v.data()));
    row.Eq("after", row.Hex(4), Root(b));
    row.Eq("total", row.U(5), tlv_get_node_l_(b.data()));
    row.Eq("p_tlv_src cleared", true, p_tlv_src == nullptr);
    row.Eq("p_tlv_total_size cleared", 0u, p_tlv_total_size);
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
