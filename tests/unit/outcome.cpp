// SPDX-License-Identifier: Apache-2.0
// Drivers of outcome.data: the outcome packet as it reaches the host.
//
//   packet:capacity:children   builds the packet (capacity "-": the whole
//                              io buffer through the step's own entry) and
//                              compares the tags of 7F01's children in order
//   packet_value:tag:bytes     a child's value ("-": absent)
//   packet_tags:tag:tags       the tags of a child's own children
//   packet_cut:tag:children    rebuilt into the full size less that child's
#include "baseKernel.h"
#include "checked.hpp"
#include "emv_kernel.h"
#include "rows.hpp"

namespace velk::test {
namespace {

Bytes last_;

Bytes Build(uint32_t cap) {
    Bytes io(VELK_IO_BUFFER_MIN_LEN, 0xEE);
    uint32_t len = 0;
    if (cap == VELK_IO_BUFFER_MIN_LEN)
        VelkCless_Transaction_FinalOutcome_Packet(io.data(), &len);
    else
        velk::BuildOutcomePacket(io.data(), cap, &len);
    return Bytes(io.begin(), io.begin() + std::min<uint32_t>(len, cap));
}

std::vector<host::TlvNode> Children(const Bytes &packet) {
    const auto nodes = host::ParseTlv(packet, false);
    return nodes.size() == 1 && nodes[0].tag == 0x7F01 ? nodes[0].children
                                                       : std::vector<host::TlvNode>{};
}

std::string Tags(const std::vector<host::TlvNode> &nodes) {
    std::string s;
    for (const auto &n : nodes)
        s += (s.empty() ? "" : " ") + host::ToHex(host::EncodeTag(n.tag));
    return s;
}

VELK_DRIVER(packet) {
    last_ = Build(row.Arg(0) == "-" ? VELK_IO_BUFFER_MIN_LEN : row.U(0));
    row.Eq("children", row.Arg(1), last_.empty() ? "" : Tags(Children(last_)));
}

VELK_DRIVER(packet_value) {
    const auto nodes = Children(last_);
    const host::TlvNode *n = host::Find(nodes, row.U(0));
    if (row.Arg(1) == "-" || n == nullptr)
        row.Eq(row.Arg(0), row.Arg(1), n == nullptr ? "-" : "present");
    else
        row.Matches(row.Arg(0), row.Arg(1), n->value);
}

VELK_DRIVER(packet_tags) {
    const auto nodes = Children(last_);
    const host::TlvNode *n = host::Find(nodes, row.U(0));
    row.Eq(row.Arg(0), row.Arg(1), n == nullptr ? "-" : Tags(n->children));
}

VELK_DRIVER(packet_cut) {
    const Bytes full = Build(VELK_IO_BUFFER_MIN_LEN);
    const auto nodes = Children(full);
    const host::TlvNode *n = host::Find(nodes, row.U(0));
    row.Eq("child present", true, n != nullptr);
    if (n != nullptr)
        row.Eq("children", row.Arg(1),
               Tags(Children(Build(static_cast<uint32_t>(full.size() - n->size)))));
}

}  // namespace
}  // namespace velk::test
