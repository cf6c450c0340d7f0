// SPDX-License-Identifier: Apache-2.0
// Host-side BER-TLV and hex helpers on std::vector, shared by the tests, the
// example hosts and velk-term. Full BER tags (up to 4 bytes here) and the
// length forms up to 83 xx xx xx. Malformed input throws std::invalid_argument.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velk::host {

using Bytes = std::vector<uint8_t>;

// "9F 02 06" or "9f0206" -> bytes; spaces, colons and line breaks are ignored.
Bytes FromHex(std::string_view hex);
std::string ToHex(std::span<const uint8_t> bytes, bool spaced = false);

bool IsConstructed(uint32_t tag);
Bytes EncodeTag(uint32_t tag);
Bytes EncodeLength(size_t len);

// One element.
Bytes Tlv(uint32_t tag, std::span<const uint8_t> value);
// A constructed element whose value is the concatenation of the children.
Bytes Tlv(uint32_t tag, std::initializer_list<Bytes> children);
// Concatenation.
Bytes Cat(std::initializer_list<Bytes> parts);

struct TlvNode {
    uint32_t tag = 0;
    Bytes value;                    // the value bytes (constructed: the children's encoding)
    std::vector<TlvNode> children;  // parsed when the tag is constructed
    size_t offset = 0;              // offset of the tag's first byte in the parsed buffer
    size_t size = 0;                // total length: tag + length field + value
};

// Constructed elements nested deeper than this are refused by ParseTlv.
inline constexpr size_t kMaxTlvDepth = 32;

// Parses a sequence of elements filling the whole span. 0x00 and 0xFF bytes
// between elements are skipped when skip_padding is true. Constructed
// elements are parsed recursively, at most kMaxTlvDepth levels.
std::vector<TlvNode> ParseTlv(std::span<const uint8_t> data, bool skip_padding = true);

// Depth-first search, elements before their children.
const TlvNode *Find(const std::vector<TlvNode> &nodes, uint32_t tag);
const TlvNode *Find(const TlvNode &node, uint32_t tag);

}  // namespace velk::host
