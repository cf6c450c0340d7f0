// SPDX-License-Identifier: Apache-2.0
#include "velk/card/dol.hpp"

#include <stdexcept>

namespace velk::card {

Dol::Dol(std::span<const uint8_t> encoded) {
    size_t pos = 0;
    while (pos < encoded.size()) {
        uint32_t tag = encoded[pos++];
        if ((tag & 0x1F) == 0x1F) {
            for (int i = 0;; ++i) {
                if (pos >= encoded.size() || i == 3)
                    throw std::invalid_argument("DOL: tag runs past the list");
                const uint8_t b = encoded[pos++];
                tag = tag << 8 | b;
                if ((b & 0x80) == 0) break;
            }
        }
        if (pos >= encoded.size()) throw std::invalid_argument("DOL: entry without a length");
        entries_.push_back({tag, encoded[pos++]});
    }
}

size_t Dol::RelatedLength() const {
    size_t n = 0;
    for (const DolEntry &e : entries_)
        n += e.length;
    return n;
}

std::optional<Bytes> Dol::Value(std::span<const uint8_t> related, uint32_t tag) const {
    size_t off = 0;
    for (const DolEntry &e : entries_) {
        if (e.tag == tag) {
            if (off + e.length > related.size()) return std::nullopt;
            return Bytes(related.begin() + static_cast<std::ptrdiff_t>(off),
                         related.begin() + static_cast<std::ptrdiff_t>(off + e.length));
        }
        off += e.length;
    }
    return std::nullopt;
}

bool Dol::Names(uint32_t tag) const {
    for (const DolEntry &e : entries_)
        if (e.tag == tag) return true;
    return false;
}

}  // namespace velk::card
