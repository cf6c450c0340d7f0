// Offline data authentication material of a virtual card: the certificates
// and exponents its records carry (computed when the profile is loaded, from
// the test PKI's fixed keys that the profile names) and the dynamic
// signatures it makes at run time with its own key.
#pragma once

#include <span>
#include <string>

#include "velk/card/card_profile.hpp"

namespace velk::card {

// Names a record value may use as "@name".
bool IsComputedItemName(const std::string &name);
std::string ComputedItemNames();

// Loads the keys that the application's OdaSpec names and fills every
// computed record item. Throws std::runtime_error with the reason when a key
// is unknown, an item is computed without an OdaSpec, or the data that the
// signed static data covers would have to include the item itself.
void ResolveComputedItems(Application &app);

// The Signed Dynamic Application Data (9F4B) over the ICC dynamic data;
// hash_extra follows the signed fields in the hashed data (the DDOL related
// data for DDA, the unpredictable number for CDA).
Bytes SignDynamicData(const OdaKeys &keys, std::span<const uint8_t> icc_dynamic_data,
                      std::span<const uint8_t> hash_extra);

}  // namespace velk::card
