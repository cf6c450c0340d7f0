// SPDX-License-Identifier: Apache-2.0
#include "velk/host/tlv.hpp"

#include <stdexcept>

namespace velk::host {

namespace {

int Nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

uint32_t ReadTag(std::span<const uint8_t> d, size_t &pos) {
    if (pos >= d.size()) throw std::invalid_argument("TLV: tag past the end");
    uint32_t tag = d[pos++];
    if ((tag & 0x1F) != 0x1F) return tag;
    for (int i = 0; i < 3; ++i) {
        if (pos >= d.size()) throw std::invalid_argument("TLV: tag past the end");
        const uint8_t b = d[pos++];
        tag = (tag << 8) | b;
        if ((b & 0x80) == 0) return tag;
    }
    throw std::invalid_argument("TLV: tag longer than 4 bytes");
}

size_t ReadLength(std::span<const uint8_t> d, size_t &pos) {
    if (pos >= d.size()) throw std::invalid_argument("TLV: length past the end");
    const uint8_t first = d[pos++];
    if (first < 0x80) return first;
    const size_t count = first & 0x7F;
    if (count == 0 || count > 3) throw std::invalid_argument("TLV: unsupported length form");
    size_t len = 0;
    for (size_t i = 0; i < count; ++i) {
        if (pos >= d.size()) throw std::invalid_argument("TLV: length past the end");
        len = (len << 8) | d[pos++];
    }
    return len;
}

std::vector<TlvNode> Parse(std::span<const uint8_t> data, size_t base, bool skip_padding,
                           size_t depth) {
    // Each level holds a copy of its value: the bound keeps both the stack
    // and the copies (depth times the input) small.
    if (depth > kMaxTlvDepth)
        throw std::invalid_argument("TLV: nested more than " + std::to_string(kMaxTlvDepth) +
                                    " levels deep");
    std::vector<TlvNode> nodes;
    size_t pos = 0;
    while (pos < data.size()) {
        if (skip_padding && (data[pos] == 0x00 || data[pos] == 0xFF)) {
            ++pos;
            continue;
        }
        TlvNode node;
        node.offset = base + pos;
        const size_t start = pos;
        node.tag = ReadTag(data, pos);
        const size_t len = ReadLength(data, pos);
        if (len > data.size() - pos) throw std::invalid_argument("TLV: value past the end");
        node.value.assign(data.begin() + static_cast<std::ptrdiff_t>(pos),
                          data.begin() + static_cast<std::ptrdiff_t>(pos + len));
        if (IsConstructed(node.tag))
            node.children =
                Parse(std::span(data).subspan(pos, len), base + pos, skip_padding, depth + 1);
        pos += len;
        node.size = pos - start;
        nodes.push_back(std::move(node));
    }
    return nodes;
}

}  // namespace

Bytes FromHex(std::string_view hex) {
    Bytes out;
    int high = -1;
    for (char c : hex) {
        if (c == ' ' || c == ':' || c == '\n' || c == '\r' || c == '\t') continue;
        const int v = Nibble(c);
        if (v < 0) {
            // Only printable ASCII is quoted as it stands: messages stay text.
            const auto u = static_cast<uint8_t>(c);
            throw std::invalid_argument(u >= 0x20 && u < 0x7F
                                            ? std::string("hex: bad character '") + c + "'"
                                            : "hex: bad byte 0x" + ToHex(std::span(&u, 1)));
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("hex: odd number of digits");
    return out;
}

std::string ToHex(std::span<const uint8_t> bytes, bool spaced) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(bytes.size() * 3);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (spaced && i != 0) s += ' ';
        s += kDigits[bytes[i] >> 4];
        s += kDigits[bytes[i] & 0x0F];
    }
    return s;
}

bool IsConstructed(uint32_t tag) {
    uint32_t first = tag;
    while (first > 0xFF)
        first >>= 8;
    return (first & 0x20) != 0;
}

Bytes EncodeTag(uint32_t tag) {
    Bytes out;
    bool started = false;
    for (int shift = 24; shift > 0; shift -= 8) {
        const uint8_t b = static_cast<uint8_t>(tag >> shift);
        if (b != 0 || started) {
            out.push_back(b);
            started = true;
        }
    }
    out.push_back(static_cast<uint8_t>(tag));
    return out;
}

Bytes EncodeLength(size_t len) {
    if (len < 0x80) return {static_cast<uint8_t>(len)};
    if (len <= 0xFF) return {0x81, static_cast<uint8_t>(len)};
    if (len <= 0xFFFF) return {0x82, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
    if (len <= 0xFFFFFF)
        return {0x83, static_cast<uint8_t>(len >> 16), static_cast<uint8_t>(len >> 8),
                static_cast<uint8_t>(len)};
    throw std::invalid_argument("TLV: length too large");
}

Bytes Tlv(uint32_t tag, std::span<const uint8_t> value) {
    Bytes out = EncodeTag(tag);
    const Bytes len = EncodeLength(value.size());
    out.insert(out.end(), len.begin(), len.end());
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes Tlv(uint32_t tag, std::initializer_list<Bytes> children) {
    return Tlv(tag, Cat(children));
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::vector<TlvNode> ParseTlv(std::span<const uint8_t> data, bool skip_padding) {
    return Parse(data, 0, skip_padding, 1);
}

const TlvNode *Find(const TlvNode &node, uint32_t tag) {
    if (node.tag == tag) return &node;
    return Find(node.children, tag);
}

const TlvNode *Find(const std::vector<TlvNode> &nodes, uint32_t tag) {
    for (const TlvNode &n : nodes)
        if (const TlvNode *hit = Find(n, tag)) return hit;
    return nullptr;
}

}  // namespace velk::host
