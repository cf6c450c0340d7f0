// Builders for data element retrieval and update: the host's BF71 and BF70
// templates, the GET DATA and PUT DATA commands the card expects, and the
// discretionary data of an outcome packet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scripted_host.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {

// BF71 { 9F70 gddol }.
inline Bytes Bf71(std::string_view gddol) {
    return host::Tlv(0xBF71, {host::Tlv(0x9F70, host::FromHex(gddol))});
}
// BF70 { entries }.
inline Bytes Bf70(const std::vector<Bytes> &entries) {
    Bytes value;
    for (const Bytes &e : entries)
        value.insert(value.end(), e.begin(), e.end());
    return host::Tlv(0xBF70, value);
}
// An update entry (A2, A3 or A4): the element to write, then 85 with the
// setting byte when given.
inline Bytes Entry(uint32_t kind, std::string_view element, std::optional<uint8_t> setting = {}) {
    Bytes value = host::FromHex(element);
    if (setting) value.insert(value.end(), {0x85, 0x01, *setting});
    return host::Tlv(kind, value);
}
// 80 CA P1 P2 00.
inline Bytes GetData(uint16_t tag) {
    return {0x80, 0xCA, static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag), 0x00};
}
inline CardExchange Answer9000(std::string_view capdu) {
    return Respond(host::FromHex(capdu), host::FromHex("9000"));
}

// The value of a child of FF8106 in hex; "absent" without it.
inline std::string Discretionary(const OutcomePacket &p, uint32_t tag) {
    if (!p.discretionary) return "absent";
    const host::TlvNode *n = host::Find(*p.discretionary, tag);
    return n == nullptr ? "absent" : host::ToHex(n->value);
}

}  // namespace velk::test
