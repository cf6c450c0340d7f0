// SPDX-License-Identifier: Apache-2.0
// Data object lists (PDOL, CDOL1, CDOL2, DDOL) as a card reads them: a list
// of tags with the lengths the card wants, and the concatenated values the
// terminal sends back.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::card {

using Bytes = velk::host::Bytes;

struct DolEntry {
    uint32_t tag;
    size_t length;
};

class Dol {
public:
    Dol() = default;
    // Throws std::invalid_argument when the bytes are not a list of tag and
    // one-byte length pairs.
    explicit Dol(std::span<const uint8_t> encoded);

    const std::vector<DolEntry> &Entries() const { return entries_; }
    // Length of the related data the terminal must send.
    size_t RelatedLength() const;
    // The value given for a tag in the related data; nullopt when the list
    // does not name it or the data is too short.
    std::optional<Bytes> Value(std::span<const uint8_t> related, uint32_t tag) const;
    bool Names(uint32_t tag) const;

private:
    std::vector<DolEntry> entries_;
};

}  // namespace velk::card
