// SPDX-License-Identifier: Apache-2.0
// Offline data authentication material of a virtual card: the certificates
// and exponents its records carry (computed when the profile is loaded, with
// the test PKI, from the fixed test keys the profile names) and the dynamic
// signatures it makes at run time with its own key.
#pragma once

#include <span>
#include <string>

#include "velk/card/card_profile.hpp"
#include "velk/pki/pki.hpp"

namespace velk::card {

struct OdaKeys {
    velk::pki::RsaKey icc;
};

// Names a record value may use as "@name".
bool IsComputedItemName(const std::string &name);
std::string ComputedItemNames();
// Names of the test PKI's fixed keys ("ca1152", "issuer1024", "icc768", ...).
std::string TestKeyNames();
// The public part of a test key by name; nullptr when the name is unknown.
const velk::pki::RsaKey *TestKey(const std::string &name);

// Loads the keys that the application's OdaSetup names and fills every
// computed record item. Throws std::runtime_error with the reason when a key
// is unknown, an item is computed without an OdaSetup, or a record signed for
// offline data authentication would have to contain its own signature.
void ResolveComputedItems(Application &app);

// Signed Dynamic Application Data (9F4B) for INTERNAL AUTHENTICATE.
Bytes SignDda(const OdaKeys &keys, std::span<const uint8_t> icc_dynamic_number,
              std::span<const uint8_t> ddol_data);
// Signed Dynamic Application Data (9F4B) for a GENERATE AC with CDA.
Bytes SignCda(const OdaKeys &keys, const velk::pki::CdaRequest &request);

}  // namespace velk::card
