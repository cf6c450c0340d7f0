// SPDX-License-Identifier: Apache-2.0
// The tree library on a buffer with reserved room. One tree is built only by
// the library itself and must stay exact (its size as the root says, every
// enclosing length right); another starts as raw input and may be malformed:
// the library must refuse what it cannot read, never reach past the buffer.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <vector>

#include "fuzz_input.hpp"

#include "kn_tlv.h"
#include "velk/host/tlv.hpp"

namespace {

using velk::fuzz::Input;
using velk::fuzz::Require;

constexpr u32 kTags[] = {0x5A, 0x9F02, 0x9F36, 0xDF8129, 0xDF818203, 0xE1, 0xE2,
                         0xA5, 0xBF0C, 0x70,   0x1F,     0x9F80,     0x00, 0xFF8105};
constexpr uint32_t kCapacity = 6000;
constexpr uint32_t kValueMax = 300;

// The tree as the host's own parser reads it: it must parse whole, and the
// root's size must be what the library reports.
void RequireExact(const std::vector<uint8_t> &b) {
    const u32 total = tlv_get_node_l_(b.data());
    Require(total <= b.size());
    try {
        const auto nodes = velk::host::ParseTlv(std::span(b.data(), total), false);
        Require(nodes.size() == 1 && nodes[0].size == total);
    } catch (const std::exception &) {
        Require(false);
    }
}

// The growth each editing operation may cause at most, as kn_tlv.h states it.
constexpr uint64_t kModifyGrowth = 145;  // + L
constexpr uint64_t kMoveGrowth = 142;    // + the copied element's size

uint64_t MoveGrowth(pu8 src, u32 tag) {
    const pu8 node = tlv_find_(src, tag);
    return node == nullptr ? 0 : tlv_get_node_l_(node) + kMoveGrowth;
}

uint64_t BatchGrowth(pu8 src) {
    uint64_t grow = 0;
    for (pu8 c = tlv_get_first_child_(src); c != nullptr; c = tlv_get_next_child_(c))
        grow += MoveGrowth(src, tlv_get_t_(c));
    return grow;
}

// Runs an edit on a copy of the tree in a heap buffer of exactly its size, the
// stated growth and the spare byte, so that AddressSanitizer sees any write
// past what the caller reserved; the tree must not grow by more than stated.
template <typename Edit>
void Reserved(std::vector<uint8_t> &b, uint64_t grow, Edit edit) {
    const u32 size = tlv_get_node_l_(b.data());
    if (size + grow + 1 > b.size()) return;
    std::vector<uint8_t> room(b.begin(), b.begin() + size);
    room.resize(size + grow + 1, 0);
    edit(room.data());
    Require(tlv_get_node_l_(room.data()) <= size + grow);
    std::copy(room.begin(), room.end(), b.begin());
}

void Operate(std::vector<uint8_t> &tree, std::vector<uint8_t> &other, Input &in, bool exact) {
    const uint8_t op = in.Byte();
    const u32 tag = kTags[in.Byte() % (sizeof kTags / sizeof kTags[0])];
    const u32 len = (static_cast<u32>(in.Byte()) * 3) % kValueMax;
    std::vector<uint8_t> value(len);
    for (u32 i = 0; i < len && in.n > 0; ++i)
        value[i] = in.Byte();
    // A constructed value must read as children of its own to keep a tree exact.
    const u32 first = tag >= 0x1000000 ? tag >> 24
                      : tag >= 0x10000 ? tag >> 16
                      : tag >= 0x100   ? tag >> 8
                                       : tag;
    const bool constructed = (first & 0x20) != 0;
    if (exact && constructed && len != 0) return;
    const u8 *v = value.data();
    switch (op % 8) {
        case 0:
            Reserved(tree, len + 12, [&](pu8 t) { tlv_add_child_(t, tag, len, v); });
            break;
        case 1:
            (void)tlv_find_(tree.data(), tag);
            break;
        case 2:
            tlv_delete_(tree.data(), tag);
            break;
        case 3:
            Reserved(tree, len + kModifyGrowth, [&](pu8 t) { tlv_modify_(t, tag, len, v); });
            break;
        case 4:
            Reserved(tree, len + kModifyGrowth, [&](pu8 t) { tlv_replace_(t, tag, len, v); });
            break;
        case 5:
            Reserved(other, MoveGrowth(tree.data(), tag),
                     [&](pu8 o) { tlv_move_(tree.data(), o, tag); });
            break;
        case 6:
            Reserved(other, BatchGrowth(tree.data()),
                     [&](pu8 o) { tlv_batch_move_(tree.data(), o); });
            break;
        default: {
            const u8 *end = tree.data() + tlv_get_node_l_(tree.data());
            for (pu8 c = tlv_get_first_child_(tree.data()); c != nullptr;
                 c = tlv_get_next_child_(c))
                Require(c + tlv_get_node_l_(c) <= end);
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    // The raw tree: the input's first bytes, kept only if the root's declared
    // size fits the buffer (the root is the caller's own element).
    const size_t rawLen = in.Byte();
    std::vector<uint8_t> raw(kCapacity, 0);
    for (size_t i = 0; i < rawLen && in.n > 0; ++i)
        raw[i] = in.Byte();
    raw[0] |= 0x20;
    const bool rawUsable = tlv_get_node_l_(raw.data()) + 512 < kCapacity;

    std::vector<uint8_t> built(kCapacity, 0);
    std::vector<uint8_t> other(kCapacity, 0);
    std::vector<uint8_t> rawOther(kCapacity, 0);
    tlv_new_(rawOther.data(), 0xE2, 0, nullptr);
    tlv_new_(built.data(), 0xE1, 0, nullptr);
    tlv_new_(other.data(), 0xE2, 0, nullptr);
    while (in.n > 0) {
        Operate(built, other, in, true);
        RequireExact(built);
        RequireExact(other);
        if (rawUsable) Operate(raw, rawOther, in, false);
    }
    return 0;
}
