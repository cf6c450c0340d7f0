// SPDX-License-Identifier: Apache-2.0
#include "velk/card/emv_crypto.hpp"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "velk/host/crypto.hpp"

#include <memory>
#include <stdexcept>

namespace velk::card {

namespace {

namespace crypto = velk::host::crypto;

struct MacFree {
    void operator()(EVP_MAC *m) const { EVP_MAC_free(m); }
};
struct MacCtxFree {
    void operator()(EVP_MAC_CTX *c) const { EVP_MAC_CTX_free(c); }
};

[[noreturn]] void Fail(const char *what) {
    throw std::runtime_error(std::string("OpenSSL: ") + what);
}

// DES with an 8-byte key, 3DES with a 16-byte one; ECB over whole blocks.
Bytes Des(std::span<const uint8_t> key, std::span<const uint8_t> block, bool encrypt) {
    Bytes out(block.size());
    if (!crypto::Des(encrypt ? crypto::Direction::kEncrypt : crypto::Direction::kDecrypt, key, {},
                     block, out))
        Fail("DES failed");
    return out;
}

Bytes Tdes(std::span<const uint8_t> key16, std::span<const uint8_t> in) {
    return Des(key16, in, true);
}

Bytes Aes(std::span<const uint8_t> key, std::span<const uint8_t> in) {
    Bytes out(in.size());
    if (!crypto::Aes(crypto::Direction::kEncrypt, key, in, out)) Fail("AES failed");
    return out;
}

void CheckKey(const CardKey &key) {
    if (key.algorithm == CryptoAlgorithm::kTdes && key.master_key.size() != 16)
        throw std::invalid_argument("3DES master key must be 16 bytes");
    if (key.algorithm == CryptoAlgorithm::kAes && key.master_key.size() != 16 &&
        key.master_key.size() != 24 && key.master_key.size() != 32)
        throw std::invalid_argument("AES master key must be 16, 24 or 32 bytes");
}

Bytes Diversifier(uint16_t atc, uint8_t marker, size_t block) {
    Bytes d(block, 0x00);
    d[0] = static_cast<uint8_t>(atc >> 8);
    d[1] = static_cast<uint8_t>(atc);
    d[2] = marker;
    return d;
}

}  // namespace

Bytes AesCmac(std::span<const uint8_t> key, std::span<const uint8_t> data) {
    std::unique_ptr<EVP_MAC, MacFree> mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr));
    if (!mac) Fail("no CMAC");
    std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx(EVP_MAC_CTX_new(mac.get()));
    const char *cipher = key.size() == 16   ? "AES-128-CBC"
                         : key.size() == 24 ? "AES-192-CBC"
                                            : "AES-256-CBC";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char *>(cipher), 0),
        OSSL_PARAM_construct_end()};
    Bytes out(16);
    size_t n = 0;
    if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1 ||
        EVP_MAC_update(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_MAC_final(ctx.get(), out.data(), &n, out.size()) != 1)
        Fail("CMAC failed");
    out.resize(n);
    return out;
}

Bytes RetailMac(std::span<const uint8_t> key16, std::span<const uint8_t> data) {
    if (key16.size() != 16) throw std::invalid_argument("MAC key must be 16 bytes");
    Bytes padded(data.begin(), data.end());
    padded.push_back(0x80);
    while (padded.size() % 8 != 0)
        padded.push_back(0x00);
    const auto left = key16.first(8), right = key16.subspan(8);
    Bytes h(8, 0x00);
    for (size_t off = 0; off < padded.size(); off += 8) {
        for (size_t i = 0; i < 8; ++i)
            h[i] ^= padded[off + i];
        h = Des(left, h, true);
    }
    return Des(left, Des(right, h, false), true);
}

Bytes SessionKey(const CardKey &key, uint16_t atc) {
    CheckKey(key);
    if (key.algorithm == CryptoAlgorithm::kAes) {
        Bytes sk = Aes(key.master_key, Diversifier(atc, 0xF0, 16));
        if (key.master_key.size() > 16) {
            const Bytes more = Aes(key.master_key, Diversifier(atc, 0x0F, 16));
            sk.insert(sk.end(), more.begin(), more.end());
            sk.resize(key.master_key.size());
        }
        return sk;
    }
    Bytes sk = Tdes(key.master_key, Diversifier(atc, 0xF0, 8));
    const Bytes right = Tdes(key.master_key, Diversifier(atc, 0x0F, 8));
    sk.insert(sk.end(), right.begin(), right.end());
    return sk;
}

Bytes ApplicationCryptogram(const CardKey &key, uint16_t atc, std::span<const uint8_t> data) {
    const Bytes sk = SessionKey(key, atc);
    if (key.algorithm == CryptoAlgorithm::kAes) {
        Bytes mac = AesCmac(sk, data);
        mac.resize(8);
        return mac;
    }
    return RetailMac(sk, data);
}

Bytes Arpc(const CardKey &key, uint16_t atc, std::span<const uint8_t> arqc,
           std::span<const uint8_t> arc) {
    if (arqc.size() != 8 || arc.size() != 2)
        throw std::invalid_argument("ARPC needs an 8-byte ARQC and a 2-byte response code");
    const Bytes sk = SessionKey(key, atc);
    const size_t block = key.algorithm == CryptoAlgorithm::kAes ? 16 : 8;
    Bytes x(block, 0x00);
    for (size_t i = 0; i < 8; ++i)
        x[i] = arqc[i];
    x[0] ^= arc[0];
    x[1] ^= arc[1];
    Bytes out = key.algorithm == CryptoAlgorithm::kAes ? Aes(sk, x) : Tdes(sk, x);
    out.resize(8);
    return out;
}

}  // namespace velk::card
