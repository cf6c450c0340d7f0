// SPDX-License-Identifier: Apache-2.0
// OpenSSL 3 primitives behind the host framework and the test PKI.
#include "velk/host/crypto.hpp"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>

namespace velk::host::crypto {
namespace {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T *p) const noexcept {
        Free(p);
    }
};
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Deleter<BN_CTX_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;

// Never hand OpenSSL a null pointer, even for an empty range.
const uint8_t *DataOrDummy(ByteView v) {
    static constexpr uint8_t kDummy = 0;
    return v.empty() ? &kDummy : v.data();
}

BnPtr ToBn(ByteView v) {
    if (v.size() > INT_MAX) return nullptr;
    return BnPtr(BN_bin2bn(DataOrDummy(v), static_cast<int>(v.size()), nullptr));
}

Bytes FromBn(const BIGNUM *bn) {
    Bytes out(static_cast<size_t>(BN_num_bytes(bn)));
    if (!out.empty()) BN_bn2bin(bn, out.data());
    return out;
}

// One pass of a block cipher without padding; the caller has checked that the
// input is a whole number of blocks and that out is as long as in.
bool RunCipher(const EVP_CIPHER *cipher, bool encrypt, const uint8_t *key, const uint8_t *iv,
               ByteView in, std::span<uint8_t> out) {
    if (in.size() > INT_MAX) return false;
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_CipherInit_ex2(ctx.get(), cipher, key, iv, encrypt ? 1 : 0, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
        return false;
    }
    int written = 0;
    int tail = 0;
    if (!in.empty() && EVP_CipherUpdate(ctx.get(), out.data(), &written, in.data(),
                                        static_cast<int>(in.size())) != 1) {
        return false;
    }
    return EVP_CipherFinal_ex(ctx.get(), out.data() + written, &tail) == 1 &&
           static_cast<size_t>(written + tail) == in.size();
}

}  // namespace

bool RsaRaw(ByteView n, ByteView exponent, ByteView in, std::span<uint8_t> out,
            bool secret_exponent) noexcept {
    std::fill(out.begin(), out.end(), uint8_t{0});
    if (n.empty() || out.size() != n.size() || in.size() > n.size()) return false;

    BnCtxPtr ctx(BN_CTX_new());
    BnPtr modulus = ToBn(n), exp = ToBn(exponent), base = ToBn(in), result(BN_new());
    if (!ctx || !modulus || !exp || !base || !result) return false;
    // An even modulus or one below 3 is no RSA key; both platforms refuse it
    // rather than compute something no card could have signed.
    if (!BN_is_odd(modulus.get()) || BN_num_bits(modulus.get()) < 2) return false;
    if (BN_is_zero(exp.get()) || BN_cmp(base.get(), modulus.get()) >= 0) return false;
    if (secret_exponent) BN_set_flags(exp.get(), BN_FLG_CONSTTIME);

    if (BN_mod_exp(result.get(), base.get(), exp.get(), modulus.get(), ctx.get()) != 1) {
        return false;
    }
    if (BN_bn2binpad(result.get(), out.data(), static_cast<int>(out.size())) < 0) {
        std::fill(out.begin(), out.end(), uint8_t{0});
        return false;
    }
    return true;
}

bool Sha1(ByteView in, std::span<uint8_t, 20> digest) noexcept {
    unsigned int len = 0;
    return EVP_Digest(DataOrDummy(in), in.size(), digest.data(), &len, EVP_sha1(), nullptr) == 1 &&
           len == digest.size();
}

Sha1Digest Sha1(ByteView in) {
    Sha1Digest digest{};
    if (!Sha1(in, std::span<uint8_t, 20>(digest))) throw std::runtime_error("SHA-1 failed");
    return digest;
}

bool Des(Direction direction, ByteView key, ByteView iv, ByteView in,
         std::span<uint8_t> out) noexcept {
    if (in.size() % 8 != 0 || out.size() != in.size()) return false;
    if (!iv.empty() && iv.size() != 8) return false;
    // Every key length runs as 3-key EDE: K,K,K is single DES and K1,K2,K1 is
    // 2-key 3DES. This keeps single DES working without OpenSSL's legacy
    // provider.
    uint8_t full[24];
    switch (key.size()) {
        case 8:
            for (size_t i = 0; i < 3; ++i)
                std::copy(key.begin(), key.end(), full + 8 * i);
            break;
        case 16:
            std::copy(key.begin(), key.end(), full);
            std::copy(key.begin(), key.begin() + 8, full + 16);
            break;
        case 24:
            std::copy(key.begin(), key.end(), full);
            break;
        default:
            return false;
    }
    const EVP_CIPHER *cipher = iv.empty() ? EVP_des_ede3_ecb() : EVP_des_ede3_cbc();
    const bool ok = RunCipher(cipher, direction == Direction::kEncrypt, full,
                              iv.empty() ? nullptr : iv.data(), in, out);
    OPENSSL_cleanse(full, sizeof full);
    return ok;
}

bool Aes(Direction direction, ByteView key, ByteView in, std::span<uint8_t> out) noexcept {
    if (in.size() % 16 != 0 || out.size() != in.size()) return false;
    const EVP_CIPHER *cipher = nullptr;
    switch (key.size()) {
        case 16:
            cipher = EVP_aes_128_ecb();
            break;
        case 24:
            cipher = EVP_aes_192_ecb();
            break;
        case 32:
            cipher = EVP_aes_256_ecb();
            break;
        default:
            return false;
    }
    return RunCipher(cipher, direction == Direction::kEncrypt, key.data(), nullptr, in, out);
}

RsaKeyParts GenerateRsaKey(unsigned bits, uint32_t e) {
    BnPtr pub(BN_new());
    if (!pub || BN_set_word(pub.get(), e) != 1) throw std::runtime_error("RSA exponent");
    // OpenSSL may hand back a modulus one bit short for some sizes; such a key
    // would not have the length asked for, so try again.
    for (int attempt = 0; attempt < 8; ++attempt) {
        PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
        EVP_PKEY *raw = nullptr;
        if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
            EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(bits)) != 1 ||
            EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), pub.get()) != 1 ||
            EVP_PKEY_generate(ctx.get(), &raw) != 1) {
            throw std::runtime_error("RSA key generation refused for " + std::to_string(bits) +
                                     " bits");
        }
        PkeyPtr key(raw);
        BIGNUM *n = nullptr, *d = nullptr;
        const bool got = EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
                         EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_D, &d) == 1;
        BnPtr owned_n(n), owned_d(d);
        if (!got) throw std::runtime_error("RSA key parameters unavailable");
        if (BN_num_bits(owned_n.get()) != static_cast<int>(bits)) continue;
        return RsaKeyParts{FromBn(owned_n.get()), FromBn(pub.get()), FromBn(owned_d.get())};
    }
    throw std::runtime_error("RSA key generation gave no key of the exact length");
}

}  // namespace velk::host::crypto
