// The tree library on a buffer with reserved room. One tree is built only by
// the library itself and must stay exact (its size as the root says, every
// enclosing length right); another starts as raw input and may be malformed:
// the library must refuse what it cannot read, never reach past the buffer.
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

// Room the caller reserves before an edit that may grow the tree by `grow`
// bytes: the growth, 3 more length bytes per level, and the spare byte.
bool Room(const std::vector<uint8_t> &b, u32 grow) {
    return tlv_get_node_l_(b.data()) + grow + 3 * 48 + 8 < b.size();
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
    switch (op % 8) {
        case 0:
            if (Room(tree, len + 8)) tlv_add_child_(tree.data(), tag, len, value.data());
            break;
        case 1:
            (void)tlv_find_(tree.data(), tag);
            break;
        case 2:
            tlv_delete_(tree.data(), tag);
            break;
        case 3:
            if (Room(tree, len + 8)) tlv_modify_(tree.data(), tag, len, value.data());
            break;
        case 4:
            if (Room(tree, len + 8)) tlv_replace_(tree.data(), tag, len, value.data());
            break;
        case 5:
            if (Room(other, tlv_get_node_l_(tree.data())))
                tlv_move_(tree.data(), other.data(), tag);
            break;
        case 6:
            if (Room(other, tlv_get_node_l_(tree.data()) * 2))
                tlv_batch_move_(tree.data(), other.data());
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
