// SPDX-License-Identifier: Apache-2.0
#include "first_tap.hpp"

#include <gtest/gtest.h>

#include <cstring>

#include "baseKernel.h"
#include "emv_kernel.h"

namespace velk::test {

using velk::host::FromHex;
using velk::host::Tlv;
using velk::host::ToHex;

namespace {

Bytes T(uint32_t tag, std::string_view hex) {
    return Tlv(tag, FromHex(hex));
}

void Append(std::vector<Bytes> &to, const std::vector<Bytes> &more) {
    to.insert(to.end(), more.begin(), more.end());
}

// One DOL entry: tag by the BER rule, then a one-byte length.
bool NextEntry(const Bytes &dol, size_t &pos, uint32_t &tag, size_t &len) {
    while (pos < dol.size() && (dol[pos] == 0x00 || dol[pos] == 0xFF))
        ++pos;
    if (pos >= dol.size()) return false;
    tag = dol[pos++];
    if ((tag & 0x1F) == 0x1F) {
        do {
            if (pos >= dol.size()) return false;
            tag = (tag << 8) | dol[pos];
        } while ((dol[pos++] & 0x80) != 0);
    }
    if (pos >= dol.size()) return false;
    len = dol[pos++];
    return true;
}

}  // namespace

std::vector<Bytes> Reader::Ics() const {
    std::vector<Bytes> ics = {T(0x9F9301, capabilities), T(0x9F9302, options),
                              T(0x9F35, terminalType),   T(0x9F1A, country),
                              T(0x9F1B, floorLimit),     T(0x9F8209, cvmLimit),
                              T(0x9F09, version),        T(0x9F8246, tacDenial),
                              T(0x9F8247, tacOnline),    T(0x9F8245, tacDefault)};
    Append(ics, extra);
    return ics;
}

Bytes Purchase::Input() const {
    std::vector<Bytes> params = {T(0x9F02, amount), T(0x5F2A, currency), T(0x9A, date),
                                 T(0x9C, type)};
    Append(params, extra);
    return TransactionInput(params);
}

Bytes Card::Fci() const {
    std::vector<Bytes> a5 = {T(0x50, "56454C4B20444542495400")};
    if (!pdol.empty()) a5.push_back(T(0x9F38, pdol));
    Append(a5, fciExtra);
    return velk::test::Fci(aid, a5);
}

Bytes Card::GpoResponse() const {
    std::vector<Bytes> children = {T(0x82, aip), T(0x94, afl)};
    Append(children, gpoExtra);
    return With9000(Constructed(0x77, children));
}

std::vector<Bytes> Card::Records() const {
    if (records) return *records;
    std::vector<Bytes> one = {
        T(0x57, track2),          T(0x5A, pan),   T(0x5F24, expiry), T(0x5F25, effective),
        T(0x5F28, issuerCountry), T(0x9F07, auc), T(0x9F08, version)};
    Append(one, record1Extra);
    std::vector<Bytes> two = {T(0x8C, cdol1),
                              T(0x8D, cdol2),
                              T(0x8E, cvmList),
                              T(0x9F0E, iacDenial),
                              T(0x9F0F, iacOnline),
                              T(0x9F0D, iacDefault),
                              T(0x9F42, applicationCurrency)};
    Append(two, record2Extra);
    return {Constructed(0x70, one), Constructed(0x70, two)};
}

Bytes Card::GacResponse() const {
    std::vector<Bytes> children = {T(0x9F27, cid), T(0x9F36, atc), T(0x9F26, ac), T(0x9F10, iad)};
    Append(children, gacExtra);
    return With9000(Constructed(0x77, children));
}

Bytes Card::SecondGacResponse(std::string_view secondCid) const {
    return With9000(
        Constructed(0x77, {T(0x9F27, secondCid), T(0x9F36, atc2), T(0x9F26, ac2), T(0x9F10, iad)}));
}

Bytes DolData(std::string_view dolHex, const std::map<uint32_t, Bytes> &values) {
    const Bytes dol = FromHex(dolHex);
    Bytes data;
    size_t pos = 0;
    uint32_t tag = 0;
    size_t len = 0;
    while (NextEntry(dol, pos, tag, len)) {
        const auto it = values.find(tag);
        if (it == values.end()) {
            data.insert(data.end(), len, 0x00);
            continue;
        }
        EXPECT_EQ(it->second.size(), len)
            << "DOL entry " << std::hex << tag << ": state the expected command yourself";
        Bytes value = it->second;
        value.resize(len, 0x00);
        data.insert(data.end(), value.begin(), value.end());
    }
    return data;
}

std::map<uint32_t, Bytes> FirstTap::Values() const {
    return {{0x9F02, FromHex(purchase.amount)}, {0x5F2A, FromHex(purchase.currency)},
            {0x9A, FromHex(purchase.date)},     {0x9C, FromHex(purchase.type)},
            {0x9F1A, FromHex(reader.country)},  {0x9F35, FromHex(reader.terminalType)},
            {0x9F37, FromHex("11223344")},      {0x95, FromHex(tvr)}};
}

Bytes FirstTap::GpoCommand() const {
    if (gpoCommand) return *gpoCommand;
    const Bytes data = DolData(card.pdol, Values());
    const Bytes wrapped = Tlv(0x83, data);
    Bytes apdu = {0x80, 0xA8, 0x00, 0x00, static_cast<uint8_t>(wrapped.size())};
    apdu.insert(apdu.end(), wrapped.begin(), wrapped.end());
    apdu.push_back(0x00);
    return apdu;
}

Bytes FirstTap::GacCommand() const {
    if (gacCommand) return *gacCommand;
    const Bytes data = DolData(card.cdol1, Values());
    Bytes apdu = {0x80, 0xAE, gacP1, 0x00, static_cast<uint8_t>(data.size())};
    apdu.insert(apdu.end(), data.begin(), data.end());
    apdu.push_back(0x00);
    return apdu;
}

std::vector<CardExchange> FirstTap::Script() const {
    std::vector<CardExchange> script = beforeGpo;
    script.push_back(gpo ? *gpo : Respond(GpoCommand(), card.GpoResponse()));
    script.insert(script.end(), afterGpo.begin(), afterGpo.end());
    if (recordExchanges) {
        script.insert(script.end(), recordExchanges->begin(), recordExchanges->end());
    } else {
        // The records of the AFL in order, answered with the card's records.
        const Bytes afl = FromHex(card.afl);
        const std::vector<Bytes> records = card.Records();
        size_t next = 0;
        for (size_t e = 0; e + 4 <= afl.size(); e += 4) {
            for (uint32_t r = afl[e + 1]; r <= afl[e + 2] && next < records.size(); ++r) {
                const Bytes cmd = {0x00, 0xB2, static_cast<uint8_t>(r),
                                   static_cast<uint8_t>((afl[e] & 0xF8) | 0x04), 0x00};
                script.push_back(Respond(cmd, With9000(records[next++])));
            }
        }
    }
    script.insert(script.end(), beforeGac.begin(), beforeGac.end());
    script.push_back(gac ? *gac : Respond(GacCommand(), card.GacResponse()));
    script.insert(script.end(), afterGac.begin(), afterGac.end());
    if (endAfter && *endAfter < script.size()) script.resize(*endAfter);
    return script;
}

namespace {

TapResult Finish(const ScriptedHost::Result &run) {
    TapResult r;
    r.status = run.status;
    r.out = run.out;
    r.ops = OutcomePacket(r.out).ops;
    return r;
}

}  // namespace

TapResult FirstTap::Run(ScriptedHost &host) const {
    host.ics = reader.Ics();
    host.Post(VELK_SIGNAL_FCI, With9000(card.Fci()));
    host.card = Script();
    return Finish(host.Start(purchase.Input()));
}

Bytes FirstTap::SecondEntryInput(const IssuerResponse &response) const {
    std::vector<Bytes> params = {
        T(0x8A, response.arc),      T(0x9F872B, "30"),
        T(0x9F02, purchase.amount), T(0x5F2A, purchase.currency),
        Tlv(0x9F06, card.aid),      Tlv(0x9F8201, response.fci.value_or(card.Fci()))};
    if (!response.iad.empty()) params.push_back(T(0x91, response.iad));
    Append(params, response.scripts);
    return TransactionInput(params);
}

Bytes FirstTap::SecondGacCommand(uint8_t p1, const IssuerResponse &response,
                                 std::string_view tvr) const {
    std::map<uint32_t, Bytes> values = Values();
    values[0x8A] = FromHex(response.arc);
    values[0x95] = FromHex(tvr);
    const Bytes data = DolData(card.cdol2, values);
    Bytes apdu = {0x80, 0xAE, p1, 0x00, static_cast<uint8_t>(data.size())};
    apdu.insert(apdu.end(), data.begin(), data.end());
    apdu.push_back(0x00);
    return apdu;
}

TapResult FirstTap::RunSecondEntry(ScriptedHost &host, const IssuerResponse &response,
                                   const std::vector<CardExchange> &exchanges) const {
    host.card.insert(host.card.end(), exchanges.begin(), exchanges.end());
    return Finish(host.Start(SecondEntryInput(response)));
}

}  // namespace velk::test
