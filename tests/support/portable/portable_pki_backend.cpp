// SPDX-License-Identifier: Apache-2.0
// The test PKI over the portable crypto.
#include "portable_pki_backend.hpp"

#include <stdexcept>

#include "portable_crypto.hpp"

namespace velk::test {
namespace {

pki::Bytes Exponentiate(const pki::Bytes &n, const pki::Bytes &exponent, pki::ByteView in) {
    pki::Bytes out(n.size());
    if (portable::RsaModExp(n.data(), static_cast<uint32_t>(n.size()), exponent.data(),
                            static_cast<uint32_t>(exponent.size()), in.data(),
                            static_cast<uint32_t>(in.size()), out.data()) != 0) {
        throw std::runtime_error("pki: RSA operation refused");
    }
    return out;
}

class Portable final : public pki::Backend {
public:
    std::string_view Name() const override { return "portable"; }
    pki::Bytes Sha1(pki::ByteView data) const override {
        pki::Bytes digest(20);
        portable::Sha1(data.data(), static_cast<uint32_t>(data.size()), digest.data());
        return digest;
    }
    pki::Bytes RsaPublic(const pki::RsaKey &key, pki::ByteView in) const override {
        return Exponentiate(key.n, key.e, in);
    }
    pki::Bytes RsaPrivate(const pki::RsaKey &key, pki::ByteView in) const override {
        return Exponentiate(key.n, key.d, in);
    }
};

}  // namespace

const pki::Backend &PortablePkiBackend() {
    static const Portable backend;
    return backend;
}

}  // namespace velk::test
