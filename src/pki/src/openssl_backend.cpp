// SPDX-License-Identifier: Apache-2.0
// The test PKI over OpenSSL.
#include "velk/pki/openssl_backend.hpp"

#include <stdexcept>

#include "velk/host/crypto.hpp"

namespace velk::pki {
namespace {

namespace crypto = host::crypto;

Bytes Exponentiate(const Bytes &n, const Bytes &exponent, ByteView in, bool secret) {
    Bytes out(n.size());
    if (!crypto::RsaRaw(n, exponent, in, out, secret)) {
        throw std::runtime_error("pki: RSA operation refused");
    }
    return out;
}

class OpenSsl final : public Backend {
public:
    std::string_view Name() const override { return "openssl"; }
    Bytes Sha1(ByteView data) const override {
        const crypto::Sha1Digest digest = crypto::Sha1(data);
        return Bytes(digest.begin(), digest.end());
    }
    Bytes RsaPublic(const RsaKey &key, ByteView in) const override {
        return Exponentiate(key.n, key.e, in, false);
    }
    Bytes RsaPrivate(const RsaKey &key, ByteView in) const override {
        return Exponentiate(key.n, key.d, in, true);
    }
    RsaKey GenerateKey(unsigned bits, uint32_t e) const override {
        crypto::RsaKeyParts parts = crypto::GenerateRsaKey(bits, e);
        return RsaKey{std::move(parts.n), std::move(parts.e), std::move(parts.d)};
    }
};

}  // namespace

const Backend &OpenSslBackend() {
    static const OpenSsl backend;
    return backend;
}

}  // namespace velk::pki
