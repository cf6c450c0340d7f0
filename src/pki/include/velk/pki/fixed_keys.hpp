// SPDX-License-Identifier: Apache-2.0
// Fixed RSA keys of the bundled virtual cards and of the PKI that signs for
// them, named by role, length in bits and exponent.
//
// Sizes are chosen so that every certificate case exists (NCA, NI, NIC are
// the CA, issuer and ICC modulus lengths in bytes; an issuer key fits its
// certificate up to NCA - 36 bytes, an ICC key up to NI - 42):
//   CA 1152 (144 bytes): Issuer744 and Issuer864 fit (864: exactly NCA - 36),
//                        Issuer1024 needs a 20-byte remainder.
//   CA 1024 (128 bytes): Issuer744 needs a 1-byte remainder, Issuer864 16,
//                        Issuer1024 36.
//   Issuer1024 (NI 128): Icc688 fits exactly (NI - 42), Icc768 needs 10, Icc1024 42.
//   Issuer864  (NI 108): Icc688 needs 20, Icc768 30, Icc1024 62.
//   Issuer744  (NI 93):  every ICC key needs a remainder.
// All are small enough for private operations under qemu.
#pragma once

#include "velk/pki/pki.hpp"

namespace velk::pki::fixed_keys {

const RsaKey &Ca1152();      // e = 3
const RsaKey &Ca1024();      // e = 65537
const RsaKey &Issuer1024();  // e = 3
const RsaKey &Issuer864();   // e = 65537
const RsaKey &Issuer744();   // e = 3
const RsaKey &Icc1024();     // e = 65537
const RsaKey &Icc768();      // e = 3
const RsaKey &Icc688();      // e = 65537

}  // namespace velk::pki::fixed_keys
