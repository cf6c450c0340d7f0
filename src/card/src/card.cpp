// SPDX-License-Identifier: Apache-2.0
#include "velk/card/card.hpp"

#include <algorithm>

namespace velk::card {

Command ParseCommand(std::span<const uint8_t> apdu) {
    if (apdu.size() < 4) throw std::invalid_argument("APDU shorter than 4 bytes");
    Command c{apdu[0], apdu[1], apdu[2], apdu[3], {}, false, 0};
    if (apdu.size() == 4) return c;
    if (apdu.size() == 5) {
        c.has_le = true;
        c.le = apdu[4];
        return c;
    }
    const size_t lc = apdu[4];
    // Extended lengths (Lc = 00 followed by two bytes) are not used by the kernel.
    if (lc == 0 || (apdu.size() != 5 + lc && apdu.size() != 6 + lc))
        throw std::invalid_argument("APDU length does not match its Lc");
    c.data.assign(apdu.begin() + 5, apdu.begin() + 5 + static_cast<std::ptrdiff_t>(lc));
    if (apdu.size() == 6 + lc) {
        c.has_le = true;
        c.le = apdu.back();
    }
    return c;
}

uint16_t StatusWord(std::span<const uint8_t> response) {
    if (response.size() < 2) return 0;
    return static_cast<uint16_t>(response[response.size() - 2] << 8 | response.back());
}

Bytes WithStatus(Bytes data, uint16_t sw) {
    data.push_back(static_cast<uint8_t>(sw >> 8));
    data.push_back(static_cast<uint8_t>(sw));
    return data;
}

std::span<const uint8_t> ResponseData(std::span<const uint8_t> response) {
    return response.size() < 2 ? response.first(0) : response.first(response.size() - 2);
}

CommandKind Classify(std::span<const uint8_t> apdu) {
    if (apdu.size() < 4) return CommandKind::kOther;
    const uint8_t cla = apdu[0], ins = apdu[1];
    if ((cla & 0x0C) != 0) return CommandKind::kScript;  // secure messaging
    switch (ins) {
        case 0xA4: {
            const std::span<const uint8_t> name =
                apdu.size() > 5 ? apdu.subspan(5, std::min<size_t>(apdu[4], apdu.size() - 5))
                                : apdu.first(0);
            return std::equal(name.begin(), name.end(), kPpseName.begin(), kPpseName.end())
                       ? CommandKind::kSelectPpse
                       : CommandKind::kSelect;
        }
        case 0xA8:
            return CommandKind::kGpo;
        case 0xB2:
            return CommandKind::kReadRecord;
        case 0xCA:
            return CommandKind::kGetData;
        case 0xDA:
            return CommandKind::kPutData;
        case 0x88:
            return CommandKind::kInternalAuthenticate;
        case 0xAE:
            return CommandKind::kGenerateAc;
        case 0xDF:
            return CommandKind::kEcho;
        default:
            return CommandKind::kOther;
    }
}

const char *KindName(CommandKind kind) {
    switch (kind) {
        case CommandKind::kSelectPpse:
            return "select-ppse";
        case CommandKind::kSelect:
            return "select";
        case CommandKind::kGpo:
            return "gpo";
        case CommandKind::kReadRecord:
            return "read-record";
        case CommandKind::kGetData:
            return "get-data";
        case CommandKind::kPutData:
            return "put-data";
        case CommandKind::kInternalAuthenticate:
            return "internal-authenticate";
        case CommandKind::kGenerateAc:
            return "gac";
        case CommandKind::kEcho:
            return "echo";
        case CommandKind::kScript:
            return "script";
        case CommandKind::kOther:
            break;
    }
    return "other";
}

std::vector<velk::host::TlvNode> ParseTlvData(std::span<const uint8_t> data) {
    try {
        return velk::host::ParseTlv(data, false);
    } catch (const std::invalid_argument &) {
        return velk::host::ParseTlv(data, true);
    }
}

Bytes SelectCommand(std::span<const uint8_t> name) {
    Bytes c(name.size() + 6, 0x00);
    c[1] = 0xA4;
    c[2] = 0x04;
    c[4] = static_cast<uint8_t>(name.size());
    std::copy(name.begin(), name.end(), c.begin() + 5);
    return c;
}

}  // namespace velk::card
