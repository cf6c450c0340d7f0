// SPDX-License-Identifier: Apache-2.0
// SHA-1 and RSA modular exponentiation in plain C++ for test builds without
// OpenSSL. They exist only because the armhf test build has no OpenSSL: the
// portable pemv_kn_glb publishes them, and the test PKI signs with them there.
// Not constant-time; never use them for real keys.
#pragma once

#include <cstdint>

namespace velk::portable {

// Largest modulus the exponentiation takes: 2048 bits.
inline constexpr uint32_t kMaxModulusBytes = 256;

// Shaped like the platform table's members so that they can be published as
// they are. Results: 0 success, non-zero failure.

// out = in ^ exp mod n, exactly nLen bytes, left-padded. Fails, with out
// zeroed, when the modulus is longer than kMaxModulusBytes, even or below 3,
// the exponent is zero, or the input is longer than the modulus or
// numerically not below it. Serves the public and the private exponent alike.
int RsaModExp(const uint8_t *n, uint32_t nLen, const uint8_t *exp, uint32_t expLen,
              const uint8_t *in, uint32_t inLen, uint8_t *out);

// 20-byte digest.
int Sha1(const uint8_t *in, uint32_t inLen, uint8_t *digest);

}  // namespace velk::portable
