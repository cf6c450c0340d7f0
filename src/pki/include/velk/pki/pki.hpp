// SPDX-License-Identifier: Apache-2.0
// The EMV test PKI: what a certification authority, an issuer and a card make
// for offline data authentication, in the layouts the kernel recovers, and the
// inverse operations that tests use to look inside them.
//
// Every signed object is one RSA block as long as the signing key's modulus:
//   6A | format and fields | key digits or BB padding | SHA-1 | BC
// with the hash taken over everything between header and hash, followed by
// the data that is authenticated but not carried (remainders, exponents,
// static data, terminal data).
//
// The layout code knows no cryptography; a Backend supplies SHA-1 and the RSA
// operations (OpenSSL in velk_pki_openssl, portable code in the armhf test
// build). Requests that cannot be laid out throw std::invalid_argument.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::pki {

using host::Bytes;
using ByteView = std::span<const uint8_t>;

struct RsaKey {
    Bytes n;  // modulus, big-endian, its length is the key's length
    Bytes e;  // public exponent
    Bytes d;  // private exponent; empty for a public key

    size_t Size() const { return n.size(); }
    RsaKey Public() const { return RsaKey{n, e, {}}; }
};

class Backend {
public:
    virtual ~Backend() = default;
    virtual std::string_view Name() const = 0;
    virtual Bytes Sha1(ByteView data) const = 0;
    // in ^ e mod n and in ^ d mod n, as long as n. Throw std::runtime_error
    // when the operation is refused (input not below the modulus, bad key).
    virtual Bytes RsaPublic(const RsaKey &key, ByteView in) const = 0;
    virtual Bytes RsaPrivate(const RsaKey &key, ByteView in) const = 0;
    // A fresh key of exactly `bits` bits; backends that cannot make keys
    // throw std::logic_error.
    virtual RsaKey GenerateKey(unsigned bits, uint32_t e) const;
};

// ---- Field encodings -------------------------------------------------------

// Decimal digits, left-aligned and padded with F to `bytes` bytes ("541333"
// into 4 bytes: 54 13 33 FF). Throws when the text is not digits or too long.
Bytes PadDigits(std::string_view digits, size_t bytes);
// "MMYY" as two BCD bytes.
Bytes ExpiryDate(std::string_view mmyy);

// ---- Issuer public key certificate (format 02) -----------------------------

struct IssuerCertificateRequest {
    std::string issuer_identifier = "541333";  // 3 to 8 leftmost PAN digits
    std::string expiry = "1249";               // MMYY
    std::array<uint8_t, 3> serial{0x00, 0x00, 0x01};
    uint8_t hash_algorithm = 0x01;
    uint8_t key_algorithm = 0x01;
};

// A public key certificate with what travels beside it: for an issuer key
// tags 90, 92 and 9F32, for an ICC key tags 9F46, 9F48 and 9F47.
struct KeyCertificate {
    Bytes certificate;  // as long as the signer's modulus
    Bytes remainder;    // empty when the whole modulus fits into the certificate
    Bytes exponent;
};
using IssuerCertificate = KeyCertificate;
using IccCertificate = KeyCertificate;

IssuerCertificate MakeIssuerCertificate(const Backend &backend, const RsaKey &ca,
                                        const RsaKey &issuer,
                                        const IssuerCertificateRequest &request = {});

// ---- ICC public key certificate (format 04) --------------------------------

// What the kernel gathers from one record named for offline data
// authentication: for SFI 1 to 10 the value of the record's 70 template, for
// SFI 11 to 30 the whole record (70, length and value); nothing for a record
// that is not a 70 template.
Bytes OdaRecordData(uint8_t sfi, ByteView record);

struct OdaRecord {
    uint8_t sfi;
    Bytes record;  // the record as the card returns it, without status word
};

// The static data to be authenticated: the ODA records in reading order, then
// the AIP when the SDA tag list (9F4A) names it (pass an empty AIP otherwise).
Bytes StaticDataToAuthenticate(std::span<const OdaRecord> records, ByteView aip_if_listed = {});

struct IccCertificateRequest {
    std::string pan = "5413330089010012";  // up to 19 digits
    std::string expiry = "1249";           // MMYY
    std::array<uint8_t, 3> serial{0x00, 0x00, 0x02};
    Bytes static_data;  // StaticDataToAuthenticate(...)
    uint8_t hash_algorithm = 0x01;
    uint8_t key_algorithm = 0x01;
};

IccCertificate MakeIccCertificate(const Backend &backend, const RsaKey &issuer, const RsaKey &icc,
                                  const IccCertificateRequest &request);

// ---- Signed Static Application Data (format 03) ----------------------------

struct StaticDataRequest {
    std::array<uint8_t, 2> data_authentication_code{0xDA, 0xC1};
    Bytes static_data;  // StaticDataToAuthenticate(...)
    uint8_t hash_algorithm = 0x01;
};

// Tag 93, as long as the issuer modulus.
Bytes SignStaticData(const Backend &backend, const RsaKey &issuer,
                     const StaticDataRequest &request);

// ---- Signed Dynamic Application Data (format 05) ---------------------------

// ICC Dynamic Data for DDA: the ICC Dynamic Number's length and the number.
Bytes DdaDynamicData(ByteView icc_dynamic_number);
// ICC Dynamic Data for CDA: length and ICC Dynamic Number, Cryptogram
// Information Data, Application Cryptogram (8 bytes), Transaction Data Hash
// Code (20 bytes).
Bytes CdaDynamicData(ByteView icc_dynamic_number, uint8_t cid, ByteView application_cryptogram,
                     ByteView transaction_data_hash);

// Tag 9F4B, as long as the ICC modulus. terminal_data is the DDOL related
// data for DDA and the Unpredictable Number (9F37) for CDA.
Bytes SignDynamicData(const Backend &backend, const RsaKey &icc, ByteView icc_dynamic_data,
                      ByteView terminal_data, uint8_t hash_algorithm = 0x01);

// The GENERATE AC response's data objects without 9F4B, in their order, as
// the kernel keeps them for CDA; `response` is the 77 template or the list
// of its data objects.
Bytes GacDataWithoutSdad(ByteView response);

// Transaction Data Hash Code: SHA-1 over the PDOL related data, the CDOL1
// related data and the GENERATE AC response's data objects without 9F4B.
Bytes TransactionDataHash(const Backend &backend, ByteView pdol_data, ByteView cdol1_data,
                          ByteView gac_data_without_sdad);

struct CdaRequest {
    Bytes icc_dynamic_number;
    uint8_t cid = 0x80;
    Bytes application_cryptogram;  // 8 bytes
    Bytes unpredictable_number;    // 9F37
    Bytes pdol_data;
    Bytes cdol1_data;
    Bytes gac_data;  // the response's other data objects, GacDataWithoutSdad(...)
};

// The whole CDA signature: hash code, dynamic data and 9F4B.
Bytes SignCdaData(const Backend &backend, const RsaKey &icc, const CdaRequest &request);

// ---- Recovery, for tests ---------------------------------------------------

// A recovered block split at the positions every format shares.
struct Recovered {
    Bytes block;         // the whole recovered block
    uint8_t header = 0;  // position 0
    uint8_t format = 0;  // position 1
    Bytes hash;          // the 20 bytes before the trailer
    uint8_t trailer = 0;
    bool hash_matches = false;  // over positions 1 .. size - 22 and the extra data

    // `length` bytes from position `pos` of the block.
    Bytes At(size_t pos, size_t length) const;
};

// A recovered issuer or ICC public key certificate.
struct RecoveredKey {
    Recovered recovered;
    Bytes identity;  // issuer identifier (4 bytes) or application PAN (10 bytes)
    Bytes expiry;    // 2 bytes
    Bytes serial;    // 3 bytes
    uint8_t hash_algorithm = 0, key_algorithm = 0, key_length = 0, exponent_length = 0;
    RsaKey key;  // the certified public key, remainder included
};

struct RecoveredStaticData {
    Recovered recovered;
    uint8_t hash_algorithm = 0;
    Bytes data_authentication_code;  // 2 bytes
};

struct RecoveredDynamicData {
    Recovered recovered;
    uint8_t hash_algorithm = 0;
    Bytes icc_dynamic_data;    // LDD bytes from position 4
    Bytes icc_dynamic_number;  // from the dynamic data's length byte
    // CDA only (empty or 0 when the dynamic data is too short for them).
    uint8_t cid = 0;
    Bytes application_cryptogram;
    Bytes transaction_data_hash;
};

// Each opens the block with the public operation and checks the hash against
// the data given; lengths that contradict the block throw
// std::invalid_argument.
RecoveredKey RecoverIssuerCertificate(const Backend &backend, const RsaKey &ca,
                                      const IssuerCertificate &certificate);
RecoveredKey RecoverIccCertificate(const Backend &backend, const RsaKey &issuer,
                                   const IccCertificate &certificate, ByteView static_data);
RecoveredStaticData RecoverStaticData(const Backend &backend, const RsaKey &issuer,
                                      ByteView signed_static_data, ByteView static_data);
RecoveredDynamicData RecoverDynamicData(const Backend &backend, const RsaKey &icc,
                                        ByteView signed_dynamic_data, ByteView terminal_data);

}  // namespace velk::pki
