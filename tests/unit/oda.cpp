// SPDX-License-Identifier: Apache-2.0
// Offline data authentication rows: certificates and signatures signed at run
// time with the test PKI's fixed keys (Ca1024, Ca1152, Issuer744, Issuer864,
// Issuer1024, Icc688, Icc768, Icc1024), laid out by hand so that a row can
// spoil one field.
//
//   certificate:issuer:Ca1024:Issuer864:changes[:remainder length]
//     the issuer certificate with the CA key, 90, 92 and 9F32 stored; "icc"
//     for the ICC certificate (issuer key in 9F8232/9F32, 9F46, 9F47, 9F48,
//     82 = 5900, 9F4A = 82), signed over the ODA data and the AIP; without
//     changes it must equal the test PKI's own certificate
//   seal:tag:key:body:extra:changes   6A body BB.. SHA-1(body BB.. extra) BC,
//                                     signed with the key, stored at tag
//   public_key:n tag:e tag:key        the key's modulus and exponent stored
//   modulus:tag:key                   the tag holds the key's modulus
//   rsa_count, rsa_calls:N            the kernel's RSA calls since rsa_count
//
// Changes: header=6B, trailer=BD, append=00 (a byte after the block), hash=wrong, format=04,
// identity=541334FF, expiry=1224, hashalg=02, keyalg=02, remainder=missing|short|long,
// certificate=short.
#include <cstring>
#include <stdexcept>

#include "emv_kernel_global.h"
#include "global.h"
#include "portable_pki_backend.hpp"
#include "state.hpp"
#include "velk/pki/fixed_keys.hpp"

namespace velk::test {
namespace {

const pki::RsaKey &Key(const std::string &name) {
    namespace k = pki::fixed_keys;
    for (const auto &[n, f] : {std::pair{"Ca1024", &k::Ca1024},
                               {"Ca1152", &k::Ca1152},
                               {"Issuer744", &k::Issuer744},
                               {"Issuer864", &k::Issuer864},
                               {"Issuer1024", &k::Issuer1024},
                               {"Icc688", &k::Icc688},
                               {"Icc768", &k::Icc768},
                               {"Icc1024", &k::Icc1024}})
        if (name == n) return f();
    throw std::invalid_argument("no key " + name);
}

void Store(Row &row, uint32_t tag, const Bytes &v) {
    VelkDataBase_Del_TAG(tag);
    row.Eq("storing", 0u, VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(v.size()), v.data()));
}

std::string Change(const std::string &changes, const std::string &key) {
    std::string found;
    ForEachItem(changes, [&](const std::string &k, const std::string &v) {
        if (k == key) found = v;
    });
    return found;
}
uint8_t ChangeByte(const std::string &changes, const std::string &key, uint8_t otherwise) {
    const std::string v = Change(changes, key);
    return v.empty() ? otherwise : static_cast<uint8_t>(std::stoul(v, nullptr, 16));
}

Bytes Seal(const pki::RsaKey &signer, const Bytes &body, const Bytes &extra,
           const std::string &changes) {
    const pki::Backend &backend = TestPkiBackend();
    const size_t hashAt = signer.Size() - 21;
    Bytes block{ChangeByte(changes, "header", 0x6A)};
    block.insert(block.end(), body.begin(), body.end());
    if (block.size() > hashAt) throw std::invalid_argument("body too long for the key");
    block.resize(hashAt, 0xBB);
    Bytes input(block.begin() + 1, block.end());
    input.insert(input.end(), extra.begin(), extra.end());
    Bytes hash = backend.Sha1(input);
    if (Change(changes, "hash") == "wrong") hash[0] ^= 0x01;
    block.insert(block.end(), hash.begin(), hash.end());
    block.push_back(ChangeByte(changes, "trailer", 0xBC));
    return backend.RsaPrivate(signer, block);
}

VELK_DRIVER(certificate) {
    const bool icc = row.Arg(0) == "icc";
    const pki::RsaKey &signer = Key(row.Arg(1));
    const pki::RsaKey &subject = Key(row.Arg(2));
    const std::string &changes = row.Arg(3);
    Bytes body{ChangeByte(changes, "format", icc ? 0x04 : 0x02)};
    const std::string identity = Change(changes, "identity");
    const Bytes id = !identity.empty() ? Row::ParseHex(identity)
                     : icc             ? pki::PadDigits("5413330089601040", 10)
                                       : host::FromHex("541333FF");
    const std::string expiry = Change(changes, "expiry");
    for (const Bytes &b :
         {id, pki::ExpiryDate(expiry.empty() ? "1249" : expiry), host::FromHex("000001")})
        body.insert(body.end(), b.begin(), b.end());
    body.push_back(ChangeByte(changes, "hashalg", 0x01));
    body.push_back(ChangeByte(changes, "keyalg", 0x01));
    body.push_back(static_cast<uint8_t>(subject.Size()));
    body.push_back(static_cast<uint8_t>(subject.e.size()));
    // Header, hash and trailer take 22 bytes of the block, the fields the
    // rest but the key's room.
    const size_t inCertificate = std::min(signer.Size() - 22 - body.size(), subject.Size());
    body.insert(body.end(), subject.n.begin(), subject.n.begin() + long(inCertificate));
    Bytes remainder(subject.n.begin() + long(inCertificate), subject.n.end());
    const auto *g = pgbVelkGlobalValue;
    const Bytes staticData =
        icc ? host::Cat({Bytes(g->ODA_AuthData, g->ODA_AuthData + g->ODA_AuthData_len),
                         host::FromHex("5900")})
            : Bytes{};
    const Bytes extra = host::Cat({remainder, subject.e, staticData});
    if (!row.Arg(4).empty()) row.Eq("remainder length", row.U(4), remainder.size());
    Bytes cert = Seal(signer, body, extra, changes);
    if (changes.empty()) {
        // Unchanged: the test PKI's own certificate, which must be the same.
        pki::IccCertificateRequest request;
        request.pan = "5413330089601040";
        request.serial = {0x00, 0x00, 0x01};
        request.static_data = staticData;
        const pki::KeyCertificate made =
            icc ? pki::MakeIccCertificate(TestPkiBackend(), signer, subject, request)
                : pki::MakeIssuerCertificate(TestPkiBackend(), signer, subject);
        row.Eq("the test PKI's certificate", made.certificate, cert);
        row.Eq("the test PKI's remainder", made.remainder, remainder);
    }
    const std::string r = Change(changes, "remainder");
    if (r == "missing") remainder.clear();
    if (r == "short") remainder.pop_back();
    if (r == "long") remainder.push_back(0);
    if (Change(changes, "certificate") == "short") cert.pop_back();
    Store(row, icc ? 0x9F8232 : 0xDF8201, signer.n);
    Store(row, icc ? 0x9F32 : 0xDF8202, signer.e);
    Store(row, icc ? 0x9F47 : 0x9F32, subject.e);
    Store(row, icc ? 0x9F46 : 0x90, cert);
    VelkDataBase_Del_TAG(icc ? 0x9F48 : 0x92);
    if (!remainder.empty()) Store(row, icc ? 0x9F48 : 0x92, remainder);
    if (!icc) return;
    Store(row, 0x82, host::FromHex("5900"));
    Store(row, 0x9F4A, host::FromHex("82"));
}

VELK_DRIVER(seal) {
    const Bytes block = Seal(Key(row.Arg(1)), row.Hex(2), row.Hex(3), row.Arg(4));
    Store(row, row.U(0), host::Cat({block, Row::ParseHex(Change(row.Arg(4), "append"))}));
}

VELK_DRIVER(public_key) {
    const pki::RsaKey &key = Key(row.Arg(2));
    Store(row, row.U(0), key.n);
    Store(row, row.U(1), key.e);
}

VELK_DRIVER(modulus) {
    row.Eq("modulus", host::ToHex(Key(row.Arg(1)).n), StateValue(row.Arg(0)));
}

// The RSA entry of the service table, wrapped once to count its calls.
using RsaFn = decltype(emv_kn_glb_t{}.opt_alg.opt_rsa_encrypt);
RsaFn realRsa = nullptr;
uint32_t rsaCalls = 0;
int CountingRsa(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen, const uint8_t *in,
                uint32_t inLen, uint8_t *out) {
    ++rsaCalls;
    return realRsa(n, nLen, e, eLen, in, inLen, out);
}
VELK_DRIVER(rsa_count) {
    if (pemv_kn_glb->opt_alg.opt_rsa_encrypt != &CountingRsa) {
        realRsa = pemv_kn_glb->opt_alg.opt_rsa_encrypt;
        pemv_kn_glb->opt_alg.opt_rsa_encrypt = &CountingRsa;
    }
    rsaCalls = 0;
}
VELK_DRIVER(rsa_calls) {
    row.Eq("RSA calls", row.U(0), rsaCalls);
}

}  // namespace
}  // namespace velk::test
