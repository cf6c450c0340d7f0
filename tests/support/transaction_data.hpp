// Data of a plain first tap shared by the transaction tests: the reader's
// configuration as the host answers D1, the transaction's data elements, and
// the selected application's FCI.
#pragma once

#include <string_view>
#include <vector>

#include "scripted_host.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {

// One primitive element from hex.
inline Bytes T(uint32_t tag, std::string_view hex) {
    return velk::host::Tlv(tag, velk::host::FromHex(hex));
}

inline const Bytes kAid = velk::host::FromHex("A0000000031010");

// The reader answers D1 with its kernel capabilities (9F9301), its
// implementation options (9F9302) and the terminal country code.
inline std::vector<Bytes> ReaderIcs(std::string_view capabilities = "000000000000",
                                    std::string_view options = "00") {
    return {T(0x9F9301, capabilities), T(0x9F9302, options), T(0x9F1A, "0978")};
}

// The children of 7F11 for a purchase of `amount` (n12).
inline std::vector<Bytes> PurchaseParams(std::string_view amount = "000000000100") {
    return {T(0x9F02, amount), T(0x5F2A, "0978"), T(0x9A, "250101"), T(0x9C, "00")};
}

// A host set up for a plain first tap whose FCI arrives as an A0 signal.
inline void ConfigureFirstTap(ScriptedHost &host) {
    host.ics = ReaderIcs();
    host.aidParams = {T(0x9F9307, "1E")};
    host.Post(VELK_SIGNAL_FCI, With9000(Fci(kAid, {T(0x50, "56454C4B")})));
}

}  // namespace velk::test
