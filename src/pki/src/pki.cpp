// SPDX-License-Identifier: Apache-2.0
// Layouts of the EMV offline data authentication objects (see pki.hpp).
#include "velk/pki/pki.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace velk::pki {
namespace {

constexpr uint8_t kHeader = 0x6A;
constexpr uint8_t kTrailer = 0xBC;
constexpr uint8_t kPad = 0xBB;
constexpr size_t kHashLength = 20;
// Header, hash and trailer: what every block carries besides its body.
constexpr size_t kOverhead = 1 + kHashLength + 1;

constexpr uint8_t kIssuerCertificateFormat = 0x02;
constexpr uint8_t kStaticDataFormat = 0x03;
constexpr uint8_t kIccCertificateFormat = 0x04;
constexpr uint8_t kDynamicDataFormat = 0x05;

constexpr size_t kIssuerIdentifierLength = 4;
constexpr size_t kPanLength = 10;
constexpr size_t kMaxPanDigits = 19;
constexpr size_t kCryptogramLength = 8;

[[noreturn]] void Refuse(const std::string &why) {
    throw std::invalid_argument("pki: " + why);
}

void Append(Bytes &to, ByteView from) {
    to.insert(to.end(), from.begin(), from.end());
}

Bytes Join(std::initializer_list<ByteView> parts) {
    Bytes out;
    for (ByteView p : parts)
        Append(out, p);
    return out;
}

uint8_t LengthByte(size_t length, const char *what) {
    if (length > 0xFF) Refuse(std::string(what) + " longer than 255 bytes");
    return static_cast<uint8_t>(length);
}

// Positions 1 .. size - 22 of a block followed by the data authenticated
// beside it: the input of every hash in these layouts.
Bytes HashInput(ByteView block, ByteView extra) {
    return Join({block.subspan(1, block.size() - kOverhead), extra});
}

// Lays out a block as long as the signer's modulus (header, body padded with
// BB, hash, trailer) and signs it.
Bytes Seal(const Backend &backend, const RsaKey &signer, ByteView body, ByteView extra) {
    const size_t size = signer.Size();
    if (size < kOverhead + body.size()) {
        Refuse("a " + std::to_string(size) + "-byte key cannot carry " +
               std::to_string(body.size()) + " bytes of signed data");
    }
    Bytes block{kHeader};
    Append(block, body);
    block.resize(size, kPad);
    const Bytes hash = backend.Sha1(HashInput(block, extra));
    std::copy(hash.begin(), hash.end(), block.end() - kHashLength - 1);
    block.back() = kTrailer;
    return backend.RsaPrivate(signer, block);
}

Recovered Open(const Backend &backend, const RsaKey &signer, ByteView signature) {
    if (signature.size() != signer.Size() || signer.Size() < kOverhead) {
        Refuse("signature of " + std::to_string(signature.size()) + " bytes for a " +
               std::to_string(signer.Size()) + "-byte key");
    }
    Recovered r;
    r.block = backend.RsaPublic(signer, signature);
    r.header = r.block[0];
    r.format = r.block[1];
    r.hash = r.At(r.block.size() - kHashLength - 1, kHashLength);
    r.trailer = r.block.back();
    return r;
}

void CheckHash(const Backend &backend, Recovered &r, ByteView extra) {
    r.hash_matches = backend.Sha1(HashInput(r.block, extra)) == r.hash;
}

// Issuer and ICC certificates share one layout and differ in the format and
// in the identity field (issuer identifier or PAN):
//   format | identity | expiry (2) | serial (3) | hash alg | key alg |
//   key length | exponent length | key or its leftmost digits
struct KeyCertificateLayout {
    uint8_t format;
    size_t identity_length;

    // Positions 1 up to the key field.
    size_t FixedLength() const { return 1 + identity_length + 2 + 3 + 4; }
    size_t KeyArea(size_t signer_size) const { return signer_size - kOverhead - FixedLength(); }
};

constexpr KeyCertificateLayout kIssuerLayout{kIssuerCertificateFormat, kIssuerIdentifierLength};
constexpr KeyCertificateLayout kIccLayout{kIccCertificateFormat, kPanLength};

struct KeyCertificateFields {
    Bytes identity;
    std::string_view expiry;
    const std::array<uint8_t, 3> &serial;
    uint8_t hash_algorithm, key_algorithm;
};

KeyCertificate MakeKeyCertificate(const Backend &backend, const KeyCertificateLayout &layout,
                                  const RsaKey &signer, const RsaKey &subject,
                                  const KeyCertificateFields &fields, ByteView signed_beside) {
    if (signer.Size() < kOverhead + layout.FixedLength()) Refuse("signing key too short");
    Bytes body{layout.format};
    Append(body, fields.identity);
    Append(body, ExpiryDate(fields.expiry));
    Append(body, fields.serial);
    body.push_back(fields.hash_algorithm);
    body.push_back(fields.key_algorithm);
    body.push_back(LengthByte(subject.Size(), "certified modulus"));
    body.push_back(LengthByte(subject.e.size(), "certified exponent"));

    KeyCertificate out;
    const size_t area = layout.KeyArea(signer.Size());
    const ByteView modulus(subject.n);
    Append(body, modulus.first(std::min(area, modulus.size())));
    if (modulus.size() > area) out.remainder.assign(modulus.begin() + area, modulus.end());
    out.exponent = subject.e;
    out.certificate =
        Seal(backend, signer, body, Join({out.remainder, out.exponent, signed_beside}));
    return out;
}

RecoveredKey OpenKeyCertificate(const Backend &backend, const KeyCertificateLayout &layout,
                                const RsaKey &signer, const KeyCertificate &certificate,
                                ByteView signed_beside) {
    if (signer.Size() < kOverhead + layout.FixedLength()) Refuse("signing key too short");
    RecoveredKey out;
    Recovered &r = out.recovered;
    r = Open(backend, signer, certificate.certificate);
    size_t pos = 2;
    const auto take = [&r, &pos](size_t length) {
        Bytes field = r.At(pos, length);
        pos += length;
        return field;
    };
    out.identity = take(layout.identity_length);
    out.expiry = take(2);
    out.serial = take(3);
    out.hash_algorithm = r.block[pos++];
    out.key_algorithm = r.block[pos++];
    out.key_length = r.block[pos++];
    out.exponent_length = r.block[pos++];

    // As the kernel reads it: the remainder counts (and is hashed) only when
    // the key is longer than the certificate's key field.
    const size_t area = layout.KeyArea(signer.Size());
    ByteView remainder;
    if (out.key_length > area) {
        remainder = certificate.remainder;
        if (remainder.size() != out.key_length - area) Refuse("remainder of the wrong length");
        out.key.n = Join({ByteView(r.block).subspan(pos, area), remainder});
    } else {
        out.key.n = r.At(pos, out.key_length);
    }
    out.key.e = certificate.exponent;
    CheckHash(backend, r, Join({remainder, certificate.exponent, signed_beside}));
    return out;
}

}  // namespace

RsaKey Backend::GenerateKey(unsigned, uint32_t) const {
    throw std::logic_error("pki: backend " + std::string(Name()) + " cannot generate keys");
}

Bytes Recovered::At(size_t pos, size_t length) const {
    if (pos > block.size() || length > block.size() - pos) Refuse("field past the block");
    return Bytes(block.begin() + static_cast<std::ptrdiff_t>(pos),
                 block.begin() + static_cast<std::ptrdiff_t>(pos + length));
}

Bytes PadDigits(std::string_view digits, size_t bytes) {
    if (digits.size() > 2 * bytes) Refuse("more than " + std::to_string(2 * bytes) + " digits");
    Bytes out(bytes, 0xFF);
    for (size_t i = 0; i < digits.size(); ++i) {
        const char c = digits[i];
        if (c < '0' || c > '9') Refuse(std::string("not a digit: '") + c + "'");
        const auto digit = static_cast<uint8_t>(c - '0');
        out[i / 2] = i % 2 == 0 ? static_cast<uint8_t>(digit << 4 | 0x0F)
                                : static_cast<uint8_t>((out[i / 2] & 0xF0) | digit);
    }
    return out;
}

Bytes ExpiryDate(std::string_view mmyy) {
    if (mmyy.size() != 4) Refuse("expiry date must be MMYY");
    return PadDigits(mmyy, 2);
}

IssuerCertificate MakeIssuerCertificate(const Backend &backend, const RsaKey &ca,
                                        const RsaKey &issuer,
                                        const IssuerCertificateRequest &request) {
    return MakeKeyCertificate(
        backend, kIssuerLayout, ca, issuer,
        {PadDigits(request.issuer_identifier, kIssuerIdentifierLength), request.expiry,
         request.serial, request.hash_algorithm, request.key_algorithm},
        {});
}

IccCertificate MakeIccCertificate(const Backend &backend, const RsaKey &issuer, const RsaKey &icc,
                                  const IccCertificateRequest &request) {
    // Ten bytes would hold 20 digits, but no PAN is that long.
    if (request.pan.size() > kMaxPanDigits) Refuse("PAN longer than 19 digits");
    return MakeKeyCertificate(backend, kIccLayout, issuer, icc,
                              {PadDigits(request.pan, kPanLength), request.expiry, request.serial,
                               request.hash_algorithm, request.key_algorithm},
                              request.static_data);
}

Bytes OdaRecordData(uint8_t sfi, ByteView record) {
    if (sfi == 0 || sfi > 30) Refuse("SFI " + std::to_string(sfi) + " outside 1 to 30");
    if (record.empty() || record[0] != 0x70) return {};
    if (sfi > 10) return Bytes(record.begin(), record.end());
    const std::vector<host::TlvNode> nodes = host::ParseTlv(record);
    return nodes.front().value;
}

Bytes StaticDataToAuthenticate(std::span<const OdaRecord> records, ByteView aip_if_listed) {
    Bytes out;
    for (const OdaRecord &r : records)
        Append(out, OdaRecordData(r.sfi, r.record));
    Append(out, aip_if_listed);
    return out;
}

Bytes SignStaticData(const Backend &backend, const RsaKey &issuer,
                     const StaticDataRequest &request) {
    const Bytes body = Join(
        {std::array{kStaticDataFormat, request.hash_algorithm}, request.data_authentication_code});
    return Seal(backend, issuer, body, request.static_data);
}

Bytes DdaDynamicData(ByteView icc_dynamic_number) {
    return Join({std::array{LengthByte(icc_dynamic_number.size(), "ICC dynamic number")},
                 icc_dynamic_number});
}

Bytes CdaDynamicData(ByteView icc_dynamic_number, uint8_t cid, ByteView application_cryptogram,
                     ByteView transaction_data_hash) {
    if (application_cryptogram.size() != kCryptogramLength) Refuse("cryptogram must be 8 bytes");
    if (transaction_data_hash.size() != kHashLength) Refuse("hash code must be 20 bytes");
    return Join({DdaDynamicData(icc_dynamic_number), std::array{cid}, application_cryptogram,
                 transaction_data_hash});
}

Bytes SignDynamicData(const Backend &backend, const RsaKey &icc, ByteView icc_dynamic_data,
                      ByteView terminal_data, uint8_t hash_algorithm) {
    const Bytes body = Join({std::array{kDynamicDataFormat, hash_algorithm,
                                        LengthByte(icc_dynamic_data.size(), "ICC dynamic data")},
                             icc_dynamic_data});
    return Seal(backend, icc, body, terminal_data);
}

Bytes GacDataWithoutSdad(ByteView response) {
    ByteView objects = response;
    if (!response.empty() && response[0] == 0x77) {
        const std::vector<host::TlvNode> outer = host::ParseTlv(response);
        const host::TlvNode &t = outer.front();
        objects = response.subspan(t.offset + t.size - t.value.size(), t.value.size());
    }
    // Everything but the 9F4B elements stays byte for byte, padding included.
    Bytes out;
    size_t kept = 0;
    for (const host::TlvNode &node : host::ParseTlv(objects)) {
        if (node.tag != 0x9F4B) continue;
        Append(out, objects.subspan(kept, node.offset - kept));
        kept = node.offset + node.size;
    }
    Append(out, objects.subspan(kept));
    return out;
}

Bytes TransactionDataHash(const Backend &backend, ByteView pdol_data, ByteView cdol1_data,
                          ByteView gac_data_without_sdad) {
    return backend.Sha1(Join({pdol_data, cdol1_data, gac_data_without_sdad}));
}

Bytes SignCdaData(const Backend &backend, const RsaKey &icc, const CdaRequest &request) {
    const Bytes hash =
        TransactionDataHash(backend, request.pdol_data, request.cdol1_data, request.gac_data);
    return SignDynamicData(backend, icc,
                           CdaDynamicData(request.icc_dynamic_number, request.cid,
                                          request.application_cryptogram, hash),
                           request.unpredictable_number);
}

RecoveredKey RecoverIssuerCertificate(const Backend &backend, const RsaKey &ca,
                                      const IssuerCertificate &certificate) {
    return OpenKeyCertificate(backend, kIssuerLayout, ca, certificate, {});
}

RecoveredKey RecoverIccCertificate(const Backend &backend, const RsaKey &issuer,
                                   const IccCertificate &certificate, ByteView static_data) {
    return OpenKeyCertificate(backend, kIccLayout, issuer, certificate, static_data);
}

RecoveredStaticData RecoverStaticData(const Backend &backend, const RsaKey &issuer,
                                      ByteView signed_static_data, ByteView static_data) {
    RecoveredStaticData out;
    out.recovered = Open(backend, issuer, signed_static_data);
    CheckHash(backend, out.recovered, static_data);
    out.hash_algorithm = out.recovered.block[2];
    out.data_authentication_code = out.recovered.At(3, 2);
    return out;
}

RecoveredDynamicData RecoverDynamicData(const Backend &backend, const RsaKey &icc,
                                        ByteView signed_dynamic_data, ByteView terminal_data) {
    RecoveredDynamicData out;
    Recovered &r = out.recovered;
    r = Open(backend, icc, signed_dynamic_data);
    CheckHash(backend, r, terminal_data);
    out.hash_algorithm = r.block[2];
    const size_t ldd = r.block[3];
    if (4 + ldd > r.block.size() - kHashLength - 1) Refuse("dynamic data runs into the hash");
    out.icc_dynamic_data = r.At(4, ldd);
    const ByteView dynamic(out.icc_dynamic_data);
    if (dynamic.empty()) return out;
    const size_t ln = dynamic[0];
    if (1 + ln > dynamic.size()) Refuse("ICC dynamic number longer than the dynamic data");
    out.icc_dynamic_number.assign(dynamic.begin() + 1, dynamic.begin() + 1 + ln);
    const ByteView cda = dynamic.subspan(1 + ln);
    if (cda.size() >= 1 + kCryptogramLength + kHashLength) {
        out.cid = cda[0];
        out.application_cryptogram.assign(cda.begin() + 1, cda.begin() + 1 + kCryptogramLength);
        const ByteView hash = cda.subspan(1 + kCryptogramLength, kHashLength);
        out.transaction_data_hash.assign(hash.begin(), hash.end());
    }
    return out;
}

}  // namespace velk::pki
