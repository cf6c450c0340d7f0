// SPDX-License-Identifier: Apache-2.0
// OpenSSL 3 primitives of the host side: raw RSA, SHA-1, DES/3DES and AES in
// the shapes the kernel's service table and the test PKI need. None of these
// throws except GenerateRsaKey; each reports failure by its result and writes
// nothing it was not asked to.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "velk/host/tlv.hpp"

namespace velk::host::crypto {

using ByteView = std::span<const uint8_t>;
using Sha1Digest = std::array<uint8_t, 20>;

// out = in ^ exponent mod n, written to out (exactly n.size() bytes, left-padded
// with zeros). Fails, with out zeroed, when the modulus is not a usable RSA
// modulus (even, or below 3), the exponent is zero, the input is longer than
// the modulus or numerically not below it, or out has the wrong size.
// secret_exponent selects OpenSSL's constant-time exponentiation.
bool RsaRaw(ByteView n, ByteView exponent, ByteView in, std::span<uint8_t> out,
            bool secret_exponent) noexcept;

bool Sha1(ByteView in, std::span<uint8_t, 20> digest) noexcept;
Sha1Digest Sha1(ByteView in);

enum class Direction { kEncrypt, kDecrypt };

// Single DES (8-byte key), 2-key 3DES (16) or 3-key 3DES (24); ECB when iv is
// empty, CBC with an 8-byte iv otherwise; no padding, so the input must be a
// whole number of blocks. out must be as long as in. Nothing is written on
// failure.
bool Des(Direction direction, ByteView key, ByteView iv, ByteView in,
         std::span<uint8_t> out) noexcept;

// AES-128/192/256 in ECB without padding; out must be as long as in.
bool Aes(Direction direction, ByteView key, ByteView in, std::span<uint8_t> out) noexcept;

struct RsaKeyParts {
    Bytes n, e, d;
};

// A fresh key of exactly `bits` bits (n's top bit set) with public exponent e.
// Throws std::runtime_error when OpenSSL refuses (e.g. fewer than 512 bits).
RsaKeyParts GenerateRsaKey(unsigned bits, uint32_t e);

}  // namespace velk::host::crypto
