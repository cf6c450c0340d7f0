// SPDX-License-Identifier: Apache-2.0
#include "oda_material.hpp"

#include <stdexcept>

#include "velk/pki/openssl_backend.hpp"
#include "velk/pki/fixed_keys.hpp"

namespace velk::card {

namespace {

namespace keys = velk::pki::fixed_keys;

constexpr const char *kComputedNames[] = {
    "ca_index",        "issuer_certificate", "issuer_remainder", "issuer_exponent",
    "icc_certificate", "icc_remainder",      "icc_exponent",     "signed_static_data"};

const std::pair<const char *, const velk::pki::RsaKey &(*)()> kTestKeys[] = {
    {"ca1152", keys::Ca1152},         {"ca1024", keys::Ca1024},
    {"issuer1024", keys::Issuer1024}, {"issuer864", keys::Issuer864},
    {"issuer744", keys::Issuer744},   {"icc1024", keys::Icc1024},
    {"icc768", keys::Icc768},         {"icc688", keys::Icc688}};

const velk::pki::RsaKey &Key(const std::string &name, const char *role) {
    if (name.empty()) throw std::runtime_error(std::string("oda: no ") + role + " key named");
    for (const auto &[n, fn] : kTestKeys)
        if (name == n) return fn();
    throw std::runtime_error(std::string("oda: unknown ") + role + " key '" + name +
                             "' (test keys: " + TestKeyNames() + ")");
}

// The digits of the PAN, from 5A or else from Track 2.
std::string PanDigits(const Application &app) {
    std::string hex;
    if (const auto pan = app.RecordValue(0x5A))
        hex = velk::host::ToHex(*pan);
    else if (const auto t2 = app.RecordValue(0x57))
        hex = velk::host::ToHex(*t2);
    const size_t end = hex.find_first_of("DF");
    return hex.substr(0, end);
}

// The records the AFL names for offline data authentication, in order.
std::vector<velk::pki::OdaRecord> OdaRecords(const Application &app) {
    std::vector<velk::pki::OdaRecord> out;
    for (size_t i = 0; i + 3 < app.afl.size(); i += 4) {
        const uint8_t sfi = app.afl[i] >> 3, first = app.afl[i + 1], count = app.afl[i + 3];
        for (int n = first; n < first + count; ++n) {
            const Record *r = app.FindRecord(sfi, static_cast<uint8_t>(n));
            if (r == nullptr) continue;
            for (const RecordItem &item : r->items)
                if (item.computed == "icc_certificate" || item.computed == "signed_static_data")
                    throw std::runtime_error("oda: @" + item.computed + " is in record " +
                                             std::to_string(n) + " of SFI " + std::to_string(sfi) +
                                             ", which is signed for offline data authentication "
                                             "and so cannot contain its own signature");
            out.push_back({sfi, r->Encode()});
        }
    }
    return out;
}

void Fill(Application &app, const std::string &name, const Bytes &value) {
    for (Record &r : app.records)
        for (RecordItem &item : r.items)
            if (item.computed == name) item.value = value;
}

// A key that fits its certificate whole has no remainder: the card then
// carries no remainder data object at all.
void DropEmpty(Application &app, const std::string &name) {
    for (Record &r : app.records)
        std::erase_if(r.items,
                      [&](const RecordItem &i) { return i.computed == name && i.value.empty(); });
}

}  // namespace

bool IsComputedItemName(const std::string &name) {
    for (const char *n : kComputedNames)
        if (name == n) return true;
    return false;
}

std::string ComputedItemNames() {
    std::string out;
    for (const char *n : kComputedNames)
        out += (out.empty() ? "@" : ", @") + std::string(n);
    return out;
}

std::string TestKeyNames() {
    std::string out;
    for (const auto &[n, fn] : kTestKeys)
        out += (out.empty() ? "" : ", ") + std::string(n);
    return out;
}

const velk::pki::RsaKey *TestKey(const std::string &name) {
    for (const auto &[n, fn] : kTestKeys)
        if (name == n) return &fn();
    return nullptr;
}

void ResolveComputedItems(Application &app) {
    bool computed = false;
    for (const Record &r : app.records)
        for (const RecordItem &item : r.items)
            computed = computed || !item.computed.empty();
    if (!app.oda) {
        if (computed)
            throw std::runtime_error("oda: computed record values need an \"oda\" section");
        return;
    }
    const OdaSetup &setup = *app.oda;
    const velk::pki::Backend &backend = velk::pki::OpenSslBackend();
    const velk::pki::RsaKey &ca = Key(setup.ca_key, "CA");
    const velk::pki::RsaKey &issuer = Key(setup.issuer_key, "issuer");
    const std::string pan = PanDigits(app);

    velk::pki::IssuerCertificateRequest ir;
    ir.issuer_identifier = pan.substr(0, std::min<size_t>(pan.size(), 8));
    ir.expiry = velk::host::ToHex(setup.issuer_expiry);
    std::copy(setup.issuer_serial.begin(), setup.issuer_serial.end(), ir.serial.begin());
    const velk::pki::IssuerCertificate ic =
        velk::pki::MakeIssuerCertificate(backend, ca, issuer, ir);
    Fill(app, "ca_index", Bytes{setup.ca_index});
    Fill(app, "issuer_certificate", ic.certificate);
    Fill(app, "issuer_remainder", ic.remainder);
    DropEmpty(app, "issuer_remainder");
    Fill(app, "issuer_exponent", ic.exponent);

    velk::pki::IccCertificateRequest cr;
    const velk::pki::RsaKey *icc = setup.icc_key.empty() ? nullptr : &Key(setup.icc_key, "ICC");
    if (icc != nullptr) {
        cr.pan = pan;
        cr.expiry = velk::host::ToHex(setup.icc_expiry);
        std::copy(setup.icc_serial.begin(), setup.icc_serial.end(), cr.serial.begin());
        // Remainder and exponent do not depend on the signed data: fill them
        // first, since records signed for offline authentication may carry them.
        const auto partial = velk::pki::MakeIccCertificate(backend, issuer, *icc, cr);
        Fill(app, "icc_remainder", partial.remainder);
        DropEmpty(app, "icc_remainder");
        Fill(app, "icc_exponent", partial.exponent);
    }
    // The static data covers the AIP too when the SDA tag list names it.
    const auto tag_list = app.RecordValue(0x9F4A);
    const bool with_aip = tag_list && !tag_list->empty() && (*tag_list)[0] == 0x82;
    const Bytes static_data =
        velk::pki::StaticDataToAuthenticate(OdaRecords(app), with_aip ? app.aip : Bytes{});
    if (icc != nullptr) {
        cr.static_data = static_data;
        Fill(app, "icc_certificate",
             velk::pki::MakeIccCertificate(backend, issuer, *icc, cr).certificate);
        app.oda_keys = std::make_shared<OdaKeys>(OdaKeys{*icc});
    }
    velk::pki::StaticDataRequest sr;
    std::copy(setup.data_authentication_code.begin(), setup.data_authentication_code.end(),
              sr.data_authentication_code.begin());
    sr.static_data = static_data;
    Fill(app, "signed_static_data", velk::pki::SignStaticData(backend, issuer, sr));

    for (const Record &r : app.records)
        for (const RecordItem &item : r.items)
            if (!item.computed.empty() && item.value.empty())
                throw std::runtime_error("oda: @" + item.computed +
                                         " needs an ICC key (oda.icc_key)");
}

Bytes SignDda(const OdaKeys &keys, std::span<const uint8_t> icc_dynamic_number,
              std::span<const uint8_t> ddol_data) {
    return velk::pki::SignDynamicData(velk::pki::OpenSslBackend(), keys.icc,
                                      velk::pki::DdaDynamicData(icc_dynamic_number), ddol_data);
}

Bytes SignCda(const OdaKeys &keys, const velk::pki::CdaRequest &request) {
    return velk::pki::SignCdaData(velk::pki::OpenSslBackend(), keys.icc, request);
}

}  // namespace velk::card
