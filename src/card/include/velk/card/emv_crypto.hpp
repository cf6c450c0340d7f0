// SPDX-License-Identifier: Apache-2.0
// Symmetric cryptography shared by the virtual card and the simulated
// issuer: the session key of one transaction, the application cryptogram and
// the issuer's response cryptogram (ARPC).
//
// The choices are those of a common issuer set-up:
//   - session key: the master key enciphers the ATC diversification blocks
//     ATC || F0 || 00.. and ATC || 0F || 00.. (3DES: the two 8-byte halves of
//     a double-length key; AES: ATC || F0 || 00.. gives the whole key);
//   - application cryptogram: ISO/IEC 9797-1 MAC algorithm 3 with padding
//     method 2 over the data (3DES), or AES-CMAC cut to 8 bytes (AES);
//   - ARPC method 1: the session key enciphers ARQC XOR (ARC || 00..).
#pragma once

#include <cstdint>
#include <span>

#include "velk/host/tlv.hpp"

namespace velk::card {

using Bytes = velk::host::Bytes;

enum class CryptoAlgorithm { kTdes, kAes };

struct CardKey {
    CryptoAlgorithm algorithm = CryptoAlgorithm::kTdes;
    Bytes master_key;  // 16 bytes (3DES, double length) or 16/24/32 bytes (AES)
};

Bytes SessionKey(const CardKey &key, uint16_t atc);
// 8 bytes.
Bytes ApplicationCryptogram(const CardKey &key, uint16_t atc, std::span<const uint8_t> data);
// 8 bytes; arc is the 2-byte authorisation response code.
Bytes Arpc(const CardKey &key, uint16_t atc, std::span<const uint8_t> arqc,
           std::span<const uint8_t> arc);

// The two MACs underneath, exposed for their known-answer tests: ISO/IEC
// 9797-1 MAC algorithm 3 (padding method 2) with a double-length key, and
// AES-CMAC (16 bytes).
Bytes RetailMac(std::span<const uint8_t> key16, std::span<const uint8_t> data);
Bytes AesCmac(std::span<const uint8_t> key, std::span<const uint8_t> data);

}  // namespace velk::card
