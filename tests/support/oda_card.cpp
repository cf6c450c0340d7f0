// SPDX-License-Identifier: Apache-2.0
#include "oda_card.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace velk::test {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::ParseTlv;
using velk::host::Tlv;
using velk::host::TlvNode;
using velk::host::ToHex;

namespace {

std::optional<Bytes> PayloadValue(const Message &msg, uint32_t tag) {
    for (const TlvNode &node : ParseTlv(msg.payload, false))
        if (node.tag == tag) return node.value;
    return std::nullopt;
}

// The digits of a BCD number in hex, without its F padding.
std::string Digits(std::string hex) {
    while (!hex.empty() && (hex.back() == 'F' || hex.back() == 'f'))
        hex.pop_back();
    return hex;
}

// Sets `bit` in byte `index` of a hex string.
std::string SetBit(const std::string &hex, size_t index, uint8_t bit) {
    Bytes bytes = FromHex(hex);
    if (bytes.size() <= index) bytes.resize(index + 1, 0x00);
    bytes[index] |= bit;
    return ToHex(bytes);
}

// A template of data objects, each (tag, value), with the test's
// replacements and removals.
Bytes Template(uint32_t tag, std::vector<std::pair<uint32_t, Bytes>> objects,
               const std::map<uint32_t, std::optional<Bytes>> &edits) {
    for (const auto &[tag, value] : edits) {
        const auto it = std::find_if(objects.begin(), objects.end(),
                                     [tag = tag](const auto &o) { return o.first == tag; });
        if (!value) {
            if (it != objects.end()) objects.erase(it);
        } else if (it != objects.end()) {
            it->second = *value;
        } else {
            objects.emplace_back(tag, *value);
        }
    }
    Bytes value;
    for (const auto &[objectTag, objectValue] : objects) {
        const Bytes encoded = Tlv(objectTag, objectValue);
        value.insert(value.end(), encoded.begin(), encoded.end());
    }
    return Tlv(tag, value);
}

uint8_t AipBit(Cam cam) {
    switch (cam) {
        case Cam::Sda:
            return 0x40;
        case Cam::Dda:
            return 0x20;
        case Cam::Cda:
            return 0x01;
    }
    return 0;
}

}  // namespace

void CaDirectory::Install(ScriptedHost &host) const {
    host.On(VELK_CMD_CA_KEY, [this](const Message &msg) {
        const std::optional<Bytes> aid = PayloadValue(msg, 0x9F06);
        const std::optional<Bytes> idx = PayloadValue(msg, 0x8F);
        const bool known = aid && aid->size() >= rid.size() &&
                           std::equal(rid.begin(), rid.end(), aid->begin()) && idx &&
                           *idx == Bytes{index};
        if (!known) return Answer::Reply({});
        return Answer::Reply({Tlv(0xDF8201, key.n), Tlv(0xDF8202, key.e)});
    });
    host.On(VELK_CMD_REVOCATION, [this](const Message &msg) {
        Bytes asked = PayloadValue(msg, 0x9F06).value_or(Bytes{});
        const Bytes idx = PayloadValue(msg, 0x8F).value_or(Bytes{});
        const Bytes serial = PayloadValue(msg, 0xDF8108).value_or(Bytes{});
        asked.insert(asked.end(), idx.begin(), idx.end());
        asked.insert(asked.end(), serial.begin(), serial.end());
        const bool listed = std::find(revoked.begin(), revoked.end(), asked) != revoked.end();
        return Answer::Reply({Tlv(0xDF8109, Bytes{listed ? revokedIndicator : uint8_t{0}})});
    });
}

CaDirectory OdaCard::Directory() const {
    CaDirectory directory;
    directory.index = caIndex;
    directory.key = ca->Public();
    return directory;
}

void OdaCard::ApplyTo(FirstTap &tap) const {
    const pki::Backend &b = *backend;
    Card &card = tap.card;
    tap.reader.capabilities = SetBit(tap.reader.capabilities, 4, AipBit(cam));
    card.aip = SetBit(card.aip, 0, AipBit(cam));

    // The records as signed and as read (they differ only with alterSignedRecord).
    Card signedCard = card;
    if (alterSignedRecord) {
        signedCard.record1Extra.push_back(FromHex("DF7F0100"));
        card.record1Extra.push_back(FromHex("DF7F0101"));
    }
    const std::vector<Bytes> signedRecords = signedCard.Records();
    std::vector<pki::OdaRecord> oda;
    for (const Bytes &record : signedRecords)
        oda.push_back({1, record});
    made.staticData = pki::StaticDataToAuthenticate(oda, FromHex(card.aip));

    const std::string pan = Digits(card.pan);
    pki::IssuerCertificateRequest issuerReq = issuerRequest;
    issuerReq.issuer_identifier = issuerIdentifier.value_or(pan.substr(0, 6));
    made.issuerCertificate = pki::MakeIssuerCertificate(b, *ca, *issuer, issuerReq);

    std::vector<std::pair<uint32_t, Bytes>> keys = {{0x8F, {caIndex}},
                                                    {0x90, made.issuerCertificate.certificate},
                                                    {0x92, made.issuerCertificate.remainder},
                                                    {0x9F32, made.issuerCertificate.exponent}};
    std::vector<std::pair<uint32_t, Bytes>> signatures = {{0x9F4A, {0x82}}};
    if (made.issuerCertificate.remainder.empty()) keys.erase(keys.begin() + 2);
    if (cam == Cam::Sda) {
        made.signedStaticData = pki::SignStaticData(b, *issuer, {{0xDA, 0xC1}, made.staticData});
        signatures.emplace_back(0x93, made.signedStaticData);
    } else {
        pki::IccCertificateRequest iccReq = iccRequest;
        iccReq.pan = iccPan.value_or(pan);
        iccReq.static_data = made.staticData;
        made.iccCertificate = pki::MakeIccCertificate(b, *issuer, *icc, iccReq);
        signatures.emplace_back(0x9F46, made.iccCertificate.certificate);
        signatures.emplace_back(0x9F47, made.iccCertificate.exponent);
        if (!made.iccCertificate.remainder.empty())
            signatures.emplace_back(0x9F48, made.iccCertificate.remainder);
    }
    // Two records of SFI 2, not signed: a READ RECORD answer holds 298 bytes
    // at most, too few for both certificates with their remainders.
    std::vector<Bytes> records = card.Records();
    std::map<uint32_t, std::optional<Bytes>> keyEdits, signatureEdits;
    for (const auto &[tag, value] : certificateRecord) {
        const bool inKeys = tag == 0x8F || tag == 0x90 || tag == 0x92 || tag == 0x9F32;
        (inKeys ? keyEdits : signatureEdits)[tag] = value;
    }
    records.push_back(Template(0x70, keys, keyEdits));
    records.push_back(Template(0x70, signatures, signatureEdits));
    card.records = records;
    const std::string count = ToHex(Bytes{static_cast<uint8_t>(signedRecords.size())});
    card.afl = "0801" + count + count + "10010200";

    const std::map<uint32_t, Bytes> values = tap.Values();
    if (cam == Cam::Dda) {
        // The default DDOL 9F37 04: the command carries the unpredictable number.
        const Bytes ddolData = DolData("9F3704", values);
        made.sdad = pki::SignDynamicData(b, *icc, pki::DdaDynamicData(iccDynamicNumber), ddolData);
        Bytes command = {0x00, 0x88, 0x00, 0x00, static_cast<uint8_t>(ddolData.size())};
        command.insert(command.end(), ddolData.begin(), ddolData.end());
        command.push_back(0x00);
        tap.beforeGac.push_back(
            Respond(command, sddaResponse.value_or(With9000(Tlv(0x80, made.sdad)))));
    }
    if (cam == Cam::Cda) {
        tap.gacP1 |= 0x10;
        std::vector<std::pair<uint32_t, Bytes>> objects = {
            {0x9F27, FromHex(card.cid)}, {0x9F36, FromHex(card.atc)}, {0x9F10, FromHex(card.iad)}};
        for (const Bytes &extra : card.gacExtra) {
            const TlvNode node = ParseTlv(extra, false).at(0);
            objects.emplace_back(node.tag, node.value);
        }
        const Bytes gacData = pki::GacDataWithoutSdad(Template(0x77, objects, {}));
        Bytes cdol1Data = DolData(card.cdol1, values);
        if (alterTransactionData) cdol1Data.back() ^= 0x01;
        pki::CdaRequest request;
        request.icc_dynamic_number = iccDynamicNumber;
        request.cid = signedCid.value_or(FromHex(card.cid).at(0));
        request.application_cryptogram = FromHex(card.ac);
        request.unpredictable_number = values.at(0x9F37);
        request.pdol_data = DolData(card.pdol, values);
        request.cdol1_data = cdol1Data;
        request.gac_data = gacData;
        made.sdad = pki::SignCdaData(b, *icc, request);
        // The signature stands between the ATC and the IAD.
        objects.insert(objects.begin() + 2, {0x9F4B, made.sdad});
        tap.gac = Respond(tap.GacCommand(), With9000(Template(0x77, objects, {})));
    }
}

}  // namespace velk::test
