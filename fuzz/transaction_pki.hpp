// SPDX-License-Identifier: Apache-2.0
// The fuzz host's test PKI, switched on for one input by a 'Y' record at the
// top of its script. The host then answers the CA key request with the test
// CA key and, beside it, the issuer and ICC certificates and the signed
// static data made over what the card actually returned (the records kept for
// offline authentication, the AIP, the PAN); the kernel stores every element
// of that answer. INTERNAL AUTHENTICATE and GENERATE AC responses (80 or 77
// templates) get their 9F4B signed over the command the kernel sent. So
// certificate recovery and the signature checks pass, and the steps after
// them run with valid signatures as well as broken ones.
//
// 'Y' data: [0] bits 0-1 the key set, bit 2 keep the card's 92, bit 3 its
// 9F48, bit 4 its 93; then for each signed object (issuer certificate, ICC
// certificate, signed static data, DDA signature, CDA signature) a position
// and an XOR mask applied to its block before signing (mask 0: valid).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include "transaction_script.hpp"

#include "checked.hpp"
#include "database.h"
#include "global.h"
#include "tlv.h"
#include "velk/host/tlv.hpp"
#include "velk/pki/openssl_backend.hpp"
#include "velk/pki/fixed_keys.hpp"

namespace velk::fuzz {

using host::Bytes;
using pki::RsaKey;

constexpr uint8_t kSign = 'Y';

enum Signed : uint8_t {
    kIssuerCert,
    kIccCert,
    kStaticData,
    kDdaSignature,
    kCdaSignature,
    kObjects
};

// OpenSSL with the record's spoiling applied to each block before signing,
// and a cache: most inputs sign what an earlier one signed.
class FuzzSigner final : public pki::Backend {
public:
    std::string_view Name() const override { return "fuzz"; }
    Bytes Sha1(pki::ByteView d) const override { return Inner().Sha1(d); }
    Bytes RsaPublic(const RsaKey &k, pki::ByteView in) const override {
        return Inner().RsaPublic(k, in);
    }
    Bytes RsaPrivate(const RsaKey &k, pki::ByteView in) const override {
        Bytes block(in.begin(), in.end());
        if (!block.empty()) block[pos % block.size()] ^= mask;
        Bytes key = host::Cat({k.n, block});
        if (auto it = cache_.find(key); it != cache_.end()) return it->second;
        Bytes out;
        try {
            out = Inner().RsaPrivate(k, block);
        } catch (const std::exception &) {  // spoilt to a block above the modulus
            out = Inner().RsaPrivate(k, in);
            out.back() ^= mask;
        }
        if (cache_.size() >= 4096) cache_.clear();
        return cache_.emplace(std::move(key), out).first->second;
    }
    uint8_t pos = 0, mask = 0;

private:
    static const pki::Backend &Inner() { return pki::OpenSslBackend(); }
    mutable std::map<Bytes, Bytes> cache_;
};

class FuzzPki {
public:
    void Reset() { on_ = false; }
    void Configure(const Record &r) {
        on_ = true;
        std::memset(control_, 0, sizeof control_);
        if (r.size != 0) std::memcpy(control_, r.data, std::min(r.size, sizeof control_));
    }
    bool On() const { return on_; }

    // The whole answer to a CA key request, written into the exchange buffer.
    void AnswerCaKey(uint8_t *buffer, uint32_t *len) {
        Bytes out = host::Cat({host::Tlv(0xDF8201, Ca().n), host::Tlv(0xDF8202, Ca().e)});
        try {
            const std::string pan = PanDigits();
            const Bytes aip = Db(0x9F4A).empty() ? Bytes{} : Db(0x82);
            const G &g = *pgbVelkGlobalValue;
            const Bytes data =
                host::Cat({Bytes(g.ODA_AuthData, g.ODA_AuthData + g.ODA_AuthData_len), aip});
            pki::IssuerCertificateRequest ir;
            ir.issuer_identifier = pan.substr(0, std::min<size_t>(pan.size(), 6));
            AddCertificate(out, pki::MakeIssuerCertificate(Spoil(kIssuerCert), Ca(), Issuer(), ir),
                           {0x90, 0x92, 0x9F32}, 0x04);
            pki::IccCertificateRequest cr;
            cr.pan = pan;
            cr.static_data = data;
            AddCertificate(out, pki::MakeIccCertificate(Spoil(kIccCert), Issuer(), Icc(), cr),
                           {0x9F46, 0x9F48, 0x9F47}, 0x08);
            pki::StaticDataRequest sr;
            sr.static_data = data;
            if ((control_[0] & 0x10) == 0)
                Add(out, 0x93, pki::SignStaticData(Spoil(kStaticData), Issuer(), sr));
        } catch (const std::exception &) {  // no PAN to certify: the key alone
        }
        *len = NewChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0x7F01, out.data(),
                          static_cast<uint32_t>(out.size()));
    }

    // Signs the 9F4B of the card's answer to INTERNAL AUTHENTICATE or
    // GENERATE AC (`command`, the C-APDU) in place.
    void SignResponse(uint8_t *buffer, uint32_t *len, const Bytes &command) {
        if (command.size() < 5 || (command[1] != 0x88 && command[1] != 0xAE)) return;
        if (WellFormedLen(buffer, *len) != *len) return;
        const uint8_t *df03 = TLV_FindTag(buffer, 0xDF03);
        if (df03 == nullptr || TLV_GetLen(const_cast<uint8_t *>(df03)) < 2) return;
        const uint8_t *v = TLV_GetValue(const_cast<uint8_t *>(df03));
        const Bytes rapdu(v, v + TLV_GetLen(const_cast<uint8_t *>(df03)));
        const Bytes sw(rapdu.end() - 2, rapdu.end());
        const Bytes terminal(command.begin() + 5,
                             command.begin() + std::min<size_t>(command.size(), 5u + command[4]));
        try {
            const auto nodes = host::ParseTlv(pki::ByteView(rapdu).first(rapdu.size() - 2), false);
            if (nodes.size() != 1) return;
            const host::TlvNode &t = nodes[0];
            Bytes body;
            if (command[1] == 0x88 && t.tag == 0x80) {
                body = host::Tlv(0x80, DdaSignature(terminal));
            } else if (t.tag == 0x77) {
                Bytes others;
                for (const host::TlvNode &c : t.children)
                    if (c.tag != 0x9F4B) others = host::Cat({others, host::Tlv(c.tag, c.value)});
                const Bytes sdad =
                    command[1] == 0x88 ? DdaSignature(terminal) : CdaSignature(t, others, terminal);
                body = host::Tlv(0x77, host::Cat({others, host::Tlv(0x9F4B, sdad)}));
            } else {
                return;
            }
            body = host::Cat({body, sw});
            NewChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0x7F01, nullptr, 0);
            *len = AddTagChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0xDF03, body.data(),
                                 static_cast<uint32_t>(body.size()));
        } catch (const std::exception &) {  // not a template the host can re-sign
        }
    }

private:
    using G = VELK_GLOBALVALUE_STRUCT;

    // CA, issuer and ICC keys: every remainder case among the four sets.
    const RsaKey &Ca() const {
        return (control_[0] & 1) != 0 ? pki::fixed_keys::Ca1024() : pki::fixed_keys::Ca1152();
    }
    const RsaKey &Issuer() const {
        static const RsaKey &(*const keys[])() = {
            pki::fixed_keys::Issuer864, pki::fixed_keys::Issuer1024, pki::fixed_keys::Issuer1024,
            pki::fixed_keys::Issuer744};
        return keys[control_[0] & 3]();
    }
    const RsaKey &Icc() const {
        static const RsaKey &(*const keys[])() = {pki::fixed_keys::Icc688, pki::fixed_keys::Icc768,
                                                  pki::fixed_keys::Icc688, pki::fixed_keys::Icc1024};
        return keys[control_[0] & 3]();
    }

    const pki::Backend &Spoil(Signed object) {
        signer_.pos = control_[1 + 2 * object];
        signer_.mask = control_[2 + 2 * object];
        return signer_;
    }

    static Bytes Db(uint32_t tag) {
        OBJECT_TAG o{};
        if (VelkDataBase_GetTagValue(tag, &o) != 0 || o.pValue == nullptr) return {};
        return Bytes(o.pValue, o.pValue + o.uiLength);
    }
    static void Add(Bytes &out, uint32_t tag, const Bytes &value) {
        out = host::Cat({out, host::Tlv(tag, value)});
    }
    // Certificate, remainder (unless the control byte keeps the card's) and
    // exponent under `tags`.
    void AddCertificate(Bytes &out, const pki::KeyCertificate &c, const uint32_t (&tags)[3],
                        uint8_t keepCards) {
        Add(out, tags[0], c.certificate);
        if (!c.remainder.empty() && (control_[0] & keepCards) == 0) Add(out, tags[1], c.remainder);
        Add(out, tags[2], c.exponent);
    }

    // The PAN's digits as the kernel reads them: 5A, else 57 up to its separator.
    static std::string PanDigits() {
        Bytes source = Db(0x5A);
        if (source.empty()) source = Db(0x57);
        std::string digits;
        for (uint8_t b : source)
            for (const int nibble : {b >> 4, b & 0x0F}) {
                if (nibble > 9) return digits;
                digits.push_back(static_cast<char>('0' + nibble));
            }
        return digits;
    }

    Bytes DdaSignature(const Bytes &terminal) {
        return pki::SignDynamicData(Spoil(kDdaSignature), Icc(),
                                    pki::DdaDynamicData(kDynamicNumber), terminal);
    }

    // Over the kernel's PDOL and CDOL1 related data and the response's other
    // data objects, with the response's CID and cryptogram.
    Bytes CdaSignature(const host::TlvNode &t, const Bytes &others, const Bytes &command) {
        pki::CdaRequest r;
        r.icc_dynamic_number = Bytes(std::begin(kDynamicNumber), std::end(kDynamicNumber));
        const host::TlvNode *cid = host::Find(t, 0x9F27);
        r.cid = cid != nullptr && !cid->value.empty() ? cid->value[0] : 0x80;
        const host::TlvNode *ac = host::Find(t, 0x9F26);
        r.application_cryptogram = ac != nullptr && ac->value.size() == 8 ? ac->value : Bytes(8, 0);
        r.unpredictable_number = Db(0x9F37);
        r.pdol_data = Db(0x9F8210);
        r.cdol1_data = Db(0x9F8211).empty() ? command : Db(0x9F8211);
        r.gac_data = others;
        return pki::SignCdaData(Spoil(kCdaSignature), Icc(), r);
    }

    static constexpr uint8_t kDynamicNumber[4] = {0x12, 0x34, 0x56, 0x78};
    bool on_ = false;
    uint8_t control_[1 + 2 * kObjects] = {};
    FuzzSigner signer_;
};

}  // namespace velk::fuzz
