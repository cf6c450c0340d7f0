// SPDX-License-Identifier: Apache-2.0
// A virtual card as a JSON profile describes it: the PPSE, one or more
// applications with their FCI, GET PROCESSING OPTIONS response, records,
// GET DATA values, PUT DATA acceptance, GENERATE AC policy and keys, and the
// offline data authentication material. docs/velk-term.md documents the
// format field by field.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "velk/card/dol.hpp"
#include "velk/card/emv_crypto.hpp"
#include "velk/card/json_profile.hpp"

namespace velk::card {

struct OdaKeys;  // the loaded keys of an OdaSetup (oda_material.hpp)

// Cryptogram types in the coding of the GENERATE AC reference control
// parameter and of the Cryptogram Information Data.
enum class Cryptogram : uint8_t { kAac = 0x00, kTc = 0x40, kArqc = 0x80 };

const char *CryptogramName(Cryptogram c);
std::optional<Cryptogram> CryptogramFromName(std::string_view name);
Cryptogram CryptogramFromP1(uint8_t p1);

// One data object of a record. A value written as "@name" is computed when
// the profile is loaded (certificates, exponents, signed static data); the
// name is kept until then.
struct RecordItem {
    uint32_t tag = 0;
    Bytes value;
    std::string computed;  // empty for a literal value
};

struct Record {
    uint8_t sfi = 0;
    uint8_t number = 0;
    std::optional<Bytes> raw;  // the whole response data, used as it is
    std::vector<RecordItem> items;

    // The record template 70 with its data objects (or the raw bytes).
    Bytes Encode() const;
};

// Which cryptogram the card returns for each one the terminal asks for.
struct GacPolicy {
    // Indexed by requested type: AAC, TC, ARQC.
    std::array<Cryptogram, 3> first{Cryptogram::kAac, Cryptogram::kTc, Cryptogram::kArqc};
    std::array<Cryptogram, 3> second{Cryptogram::kAac, Cryptogram::kTc, Cryptogram::kAac};

    static size_t Index(Cryptogram c);
};

// Offline data authentication: the keys the card's certificates and
// signatures are made with (names of the test PKI's fixed keys) and the
// certificate fields that are not taken from the card's data.
struct OdaSetup {
    std::string ca_key;               // the certification authority's key
    uint8_t ca_index = 0;             // its index (8F) under the application's RID
    std::string issuer_key;           // the issuer key certified by the CA
    std::string icc_key;              // the card's own key (DDA, CDA); empty for SDA only
    Bytes issuer_expiry{0x12, 0x30};  // MMYY
    Bytes icc_expiry{0x12, 0x30};
    Bytes issuer_serial{0x00, 0x00, 0x01};
    Bytes icc_serial{0x00, 0x00, 0x01};
    Bytes data_authentication_code{0xDA, 0xC1};
    Bytes icc_dynamic_number;  // 2 to 8 bytes; derived from the ATC when empty
};

struct Application {
    std::string label;  // application label (also 50 in the PPSE and the FCI)
    Bytes aid;
    std::optional<uint8_t> priority;   // 87
    std::optional<uint8_t> kernel_id;  // 9F2A in the PPSE entry
    bool in_ppse = true;
    std::optional<Bytes> fci_raw;  // the whole SELECT response data when given
    Bytes fci_proprietary;         // the value of A5 (9F38 included)
    uint16_t select_sw = 0x9000;
    Dol pdol;

    std::optional<Bytes> gpo_raw;
    Bytes aip, afl;
    std::optional<Bytes> gpo_c5;
    Bytes gpo_extra;  // further data objects of the GPO response, encoded
    uint16_t gpo_sw = 0x9000;

    std::vector<Record> records;
    std::map<uint32_t, Bytes> get_data;
    bool put_data_any = false;
    std::set<uint32_t> put_data;

    CardKey key;
    Bytes iad;
    GacPolicy policy;
    std::optional<Bytes> gac_c5;
    bool cda = false;
    bool verify_arpc = false;
    Dol cdol1, cdol2, ddol;  // from the records (8C, 8D, 9F49)

    uint16_t atc = 1;
    uint16_t last_online_atc = 0;
    bool echo = false;
    int internal_authenticate_format = 1;
    uint16_t script_sw = 0x9000;
    std::map<uint8_t, uint16_t> script_sw_by_ins;

    std::optional<OdaSetup> oda;
    std::shared_ptr<const OdaKeys> oda_keys;  // set when the profile is loaded

    // The first value of a tag among the records (computed values once they
    // have been computed).
    std::optional<Bytes> RecordValue(uint32_t tag) const;
    const Record *FindRecord(uint8_t sfi, uint8_t number) const;
};

struct CardProfile {
    std::string name;
    std::string description;
    std::filesystem::path source;
    Bytes atr;
    bool ppse = true;
    std::optional<Bytes> ppse_raw;
    std::vector<Application> applications;
};

// Loads and checks a profile. Throws ProfileError naming the file and the
// field when something is wrong or when the card's data do not agree (PAN
// and Track 2, expiry dates, AFL and records, DOLs).
CardProfile LoadCardProfile(const std::filesystem::path &path);
CardProfile ParseCardProfile(const Field &root);

// Builds a TLV sequence from a JSON object {"tag": value}: a hex string is a
// primitive value, an object a constructed one, an array repeats the tag.
Bytes EncodeTlvObject(const Field &object);

}  // namespace velk::card
