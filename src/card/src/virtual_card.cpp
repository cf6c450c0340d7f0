// SPDX-License-Identifier: Apache-2.0
#include "velk/card/virtual_card.hpp"

#include <algorithm>

#include "oda_material.hpp"

namespace velk::card {

using velk::host::Cat;
using velk::host::Tlv;

namespace {

Bytes Sw(uint16_t sw) {
    return WithStatus({}, sw);
}

Bytes Be16(uint16_t v) {
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

bool StartsWith(std::span<const uint8_t> whole, std::span<const uint8_t> prefix) {
    return prefix.size() <= whole.size() && std::equal(prefix.begin(), prefix.end(), whole.begin());
}

}  // namespace

VirtualCard::VirtualCard(CardProfile profile) : profile_(std::move(profile)) {
    for (const Application &app : profile_.applications) {
        AppState s;
        s.atc = app.atc;
        s.last_online_atc = app.last_online_atc;
        s.data = app.get_data;
        state_.push_back(std::move(s));
    }
}

std::string VirtualCard::Describe() const {
    return profile_.name + " (virtual card, " + profile_.source.string() + ")";
}

Bytes VirtualCard::PowerOn() {
    if (!present_) throw CardError(CardErrorKind::kRemoved, "no card in the field");
    powered_ = true;
    selected_ = -1;
    return profile_.atr;
}

void VirtualCard::PowerOff() {
    powered_ = false;
    selected_ = -1;
    for (AppState &s : state_)
        s.cvm_done_on_device = s.cvm_done_on_device || s.cvm_asked_on_device;
}

Bytes VirtualCard::C5(const AppState &s, const Bytes &c5) const {
    constexpr uint8_t kCvmBits = 0x07, kOnDeviceRequested = 0x04, kOnDeviceVerified = 0x05;
    Bytes out = c5;
    if (s.cvm_done_on_device && !out.empty() && (out[0] & kCvmBits) == kOnDeviceRequested)
        out[0] = static_cast<uint8_t>((out[0] & ~kCvmBits) | kOnDeviceVerified);
    return Tlv(0xC5, out);
}

const CardKey *VirtualCard::KeyForPan(std::span<const uint8_t> pan) const {
    for (const Application &app : profile_.applications) {
        const auto mine = app.RecordValue(0x5A);
        if (mine && std::equal(mine->begin(), mine->end(), pan.begin(), pan.end())) return &app.key;
    }
    return nullptr;
}

Bytes VirtualCard::PpseFci() const {
    if (profile_.ppse_raw) return *profile_.ppse_raw;
    Bytes entries;
    for (const Application &app : profile_.applications) {
        if (!app.in_ppse) continue;
        Bytes e = Cat({Tlv(0x4F, app.aid), Tlv(0x50, Bytes(app.label.begin(), app.label.end()))});
        if (app.priority) e = Cat({e, Tlv(0x87, Bytes{*app.priority})});
        if (app.kernel_id) e = Cat({e, Tlv(0x9F2A, Bytes{*app.kernel_id})});
        entries = Cat({entries, Tlv(0x61, e)});
    }
    const Bytes name(kPpseName.begin(), kPpseName.end());
    return Tlv(0x6F, Cat({Tlv(0x84, name), Tlv(0xA5, Tlv(0xBF0C, entries))}));
}

Bytes VirtualCard::ApplicationFci(const Application &app) const {
    if (app.fci_raw) return *app.fci_raw;
    return Tlv(0x6F, Cat({Tlv(0x84, app.aid), Tlv(0xA5, app.fci_proprietary)}));
}

const Application *VirtualCard::Current() const {
    return selected_ < 0 ? nullptr : &profile_.applications[static_cast<size_t>(selected_)];
}

VirtualCard::AppState *VirtualCard::CurrentState() {
    return selected_ < 0 ? nullptr : &state_[static_cast<size_t>(selected_)];
}

Bytes VirtualCard::Transmit(std::span<const uint8_t> apdu) {
    if (!present_) throw CardError(CardErrorKind::kRemoved, "the card is not in the field");
    if (!powered_) throw CardError(CardErrorKind::kNoResponse, "the card is not powered");
    Command c;
    try {
        c = ParseCommand(apdu);
    } catch (const std::invalid_argument &) {
        return Sw(kSwWrongLength);
    }
    static const std::pair<CommandKind, Handler> kHandlers[] = {
        {CommandKind::kSelectPpse, &VirtualCard::Select},
        {CommandKind::kSelect, &VirtualCard::Select},
        {CommandKind::kGpo, &VirtualCard::Gpo},
        {CommandKind::kReadRecord, &VirtualCard::ReadRecord},
        {CommandKind::kGetData, &VirtualCard::GetData},
        {CommandKind::kPutData, &VirtualCard::PutData},
        {CommandKind::kInternalAuthenticate, &VirtualCard::InternalAuthenticate},
        {CommandKind::kGenerateAc, &VirtualCard::GenerateAc},
        {CommandKind::kEcho, &VirtualCard::Echo},
        {CommandKind::kScript, &VirtualCard::Script},
    };
    const CommandKind kind = Classify(apdu);
    for (const auto &[k, handler] : kHandlers) {
        if (k != kind) continue;
        // Command data the card cannot parse (GPO data that is not TLV)
        // is answered as a card answers it, never thrown at the reader.
        try {
            return (this->*handler)(c);
        } catch (const std::invalid_argument &) {
            return Sw(kSwWrongData);
        }
    }
    return Sw(kSwInsNotSupported);
}

Bytes VirtualCard::Select(const Command &c) {
    if (c.p1 != 0x04) return Sw(kSwFunctionNotSupported);
    selected_ = -1;
    const std::string_view ppse = kPpseName;
    if (std::equal(c.data.begin(), c.data.end(), ppse.begin(), ppse.end()))
        return profile_.ppse ? WithStatus(PpseFci(), kSwOk) : Sw(kSwFileNotFound);
    for (size_t i = 0; i < profile_.applications.size(); ++i) {
        const Application &app = profile_.applications[i];
        if (c.data.empty() || !StartsWith(app.aid, c.data)) continue;
        selected_ = static_cast<int>(i);
        state_[i].gpo_done = false;
        return WithStatus(ApplicationFci(app), app.select_sw);
    }
    return Sw(kSwFileNotFound);
}

Bytes VirtualCard::Gpo(const Command &c) {
    const Application *app = Current();
    AppState *s = CurrentState();
    if (app == nullptr || c.p1 != 0x00 || c.p2 != 0x00) return Sw(kSwConditionsNotSatisfied);
    const auto parsed = velk::host::ParseTlv(c.data, false);
    if (parsed.size() != 1 || parsed[0].tag != 0x83) return Sw(kSwWrongData);
    if (parsed[0].value.size() != app->pdol.RelatedLength()) return Sw(kSwWrongLength);
    if (s->atc == 0xFFFF) return Sw(kSwConditionsNotSatisfied);  // the ATC has run out
    ++s->atc;
    s->gpo_done = true;
    s->gac_count = 0;
    s->awaiting_second = false;
    s->pdol_data = parsed[0].value;
    s->cdol1_data.clear();
    s->last_gac_response.clear();
    if (app->gpo_raw) return WithStatus(*app->gpo_raw, app->gpo_sw);
    Bytes body = Cat({Tlv(0x82, app->aip), Tlv(0x94, app->afl)});
    if (app->gpo_c5) {
        body = Cat({body, C5(*s, *app->gpo_c5)});
        s->cvm_asked_on_device = ((*app->gpo_c5)[0] & 0x07) == 0x04;
    }
    body = Cat({body, app->gpo_extra});
    return WithStatus(Tlv(0x77, body), app->gpo_sw);
}

Bytes VirtualCard::ReadRecord(const Command &c) {
    const Application *app = Current();
    if (app == nullptr) return Sw(kSwConditionsNotSatisfied);
    if ((c.p2 & 0x07) != 0x04) return Sw(kSwFunctionNotSupported);
    const Record *r = app->FindRecord(static_cast<uint8_t>(c.p2 >> 3), c.p1);
    return r ? WithStatus(r->Encode(), kSwOk) : Sw(kSwRecordNotFound);
}

Bytes VirtualCard::GetData(const Command &c) {
    AppState *s = CurrentState();
    if (s == nullptr) return Sw(kSwConditionsNotSatisfied);
    const uint32_t tag = c.p1 == 0 ? c.p2 : static_cast<uint32_t>(c.p1 << 8 | c.p2);
    if (tag == 0x9F36) return WithStatus(Tlv(tag, Be16(s->atc)), kSwOk);
    if (tag == 0x9F13) return WithStatus(Tlv(tag, Be16(s->last_online_atc)), kSwOk);
    const auto it = s->data.find(tag);
    return it == s->data.end() ? Sw(kSwDataNotFound) : WithStatus(Tlv(tag, it->second), kSwOk);
}

Bytes VirtualCard::PutData(const Command &c) {
    const Application *app = Current();
    AppState *s = CurrentState();
    if (app == nullptr) return Sw(kSwConditionsNotSatisfied);
    const uint32_t tag = c.p1 == 0 ? c.p2 : static_cast<uint32_t>(c.p1 << 8 | c.p2);
    if (!app->put_data_any && app->put_data.count(tag) == 0) return Sw(kSwFunctionNotSupported);
    s->data[tag] = c.data;
    return Sw(kSwOk);
}

Bytes VirtualCard::DynamicNumber(const AppState &s) const {
    const Application &app = *Current();
    if (app.oda && !app.oda->icc_dynamic_number.empty()) return app.oda->icc_dynamic_number;
    // Different for every transaction: the ATC behind a fixed prefix.
    return Cat({Bytes{0xD1, 0x7E}, Be16(s.atc)});
}

Bytes VirtualCard::InternalAuthenticate(const Command &c) {
    const Application *app = Current();
    AppState *s = CurrentState();
    if (app == nullptr || !app->oda_keys) return Sw(kSwInsNotSupported);
    if (!app->ddol.Entries().empty() && c.data.size() != app->ddol.RelatedLength())
        return Sw(kSwWrongLength);
    const Bytes sdad = SignDda(*app->oda_keys, DynamicNumber(*s), c.data);
    const Bytes body =
        app->internal_authenticate_format == 1 ? Tlv(0x80, sdad) : Tlv(0x77, Tlv(0x9F4B, sdad));
    return WithStatus(body, kSwOk);
}

Bytes VirtualCard::GenerateAc(const Command &c) {
    AppState *s = CurrentState();
    if (s == nullptr || (!s->gpo_done && !s->awaiting_second) || s->gac_count >= 2 ||
        (c.p1 & 0x20) != 0)
        return Sw(kSwConditionsNotSatisfied);
    // A second GENERATE AC may come after the card was selected again (the
    // issuer's response brought back at an online tap).
    const bool second = s->gac_count == 1 || (!s->gpo_done && s->awaiting_second);
    const Bytes response = GenerateAcResponse(*s, c, second);
    if (StatusWord(response) == kSwOk) {
        s->last_gac_response = response;
        s->gac_count = second ? 2 : 1;
    }
    return response;
}

Bytes VirtualCard::GenerateAcResponse(AppState &s, const Command &c, bool second) {
    const Application &app = *Current();
    const Dol &dol = second ? app.cdol2 : app.cdol1;
    if (c.data.size() != dol.RelatedLength()) return Sw(kSwWrongLength);
    const Cryptogram requested = CryptogramFromP1(c.p1);
    Cryptogram given = (second ? app.policy.second : app.policy.first)[GacPolicy::Index(requested)];
    if (second && app.verify_arpc && given != Cryptogram::kAac) {
        // A card that checks the issuer: an ARPC that does not match its own
        // declines the transaction.
        const auto iad = dol.Value(c.data, 0x91);
        const auto arc = dol.Value(c.data, 0x8A);
        const bool valid =
            iad && arc && iad->size() >= 10 && s.arqc.size() == 8 &&
            Arpc(app.key, s.arqc_atc, s.arqc, *arc) == Bytes(iad->begin(), iad->begin() + 8);
        if (!valid) given = Cryptogram::kAac;
    }
    const uint8_t cid = static_cast<uint8_t>(given);
    const Bytes atc = Be16(s.atc);
    const Bytes ac = ApplicationCryptogram(app.key, s.atc, Cat({c.data, app.aip, atc}));
    if (!second) s.cdol1_data = c.data;
    if (given == Cryptogram::kArqc && !second) {
        s.awaiting_second = true;
        s.arqc = ac;
        s.arqc_atc = s.atc;
    }
    if (second) {
        s.awaiting_second = false;
        if (given == Cryptogram::kTc) s.last_online_atc = s.atc;
    }

    const Bytes c5 = !second && app.gac_c5 ? C5(s, *app.gac_c5) : Bytes{};
    if (!c5.empty()) s.cvm_asked_on_device = ((*app.gac_c5)[0] & 0x07) == 0x04;
    const bool cda =
        !second && (c.p1 & 0x10) != 0 && app.cda && app.oda_keys && given != Cryptogram::kAac;
    if (!cda) {
        const Bytes body = Cat(
            {Tlv(0x9F27, Bytes{cid}), Tlv(0x9F36, atc), Tlv(0x9F26, ac), Tlv(0x9F10, app.iad), c5});
        return WithStatus(Tlv(0x77, body), kSwOk);
    }
    // Combined DDA/AC generation: the cryptogram travels inside the signature,
    // which also covers a hash of everything the terminal sent and the rest
    // of this response.
    const Bytes rest = Cat({Tlv(0x9F27, Bytes{cid}), Tlv(0x9F36, atc), Tlv(0x9F10, app.iad), c5});
    velk::pki::CdaRequest cda_request;
    cda_request.icc_dynamic_number = DynamicNumber(s);
    cda_request.cid = cid;
    cda_request.application_cryptogram = ac;
    cda_request.unpredictable_number = app.cdol1.Value(c.data, 0x9F37).value_or(Bytes(4, 0x00));
    cda_request.pdol_data = s.pdol_data;
    cda_request.cdol1_data = c.data;
    cda_request.gac_data = rest;
    const Bytes sdad = SignCda(*app.oda_keys, cda_request);
    return WithStatus(Tlv(0x77, Cat({rest, Tlv(0x9F4B, sdad)})), kSwOk);
}

Bytes VirtualCard::Echo(const Command &) {
    const Application *app = Current();
    AppState *s = CurrentState();
    if (app == nullptr || !app->echo) return Sw(kSwInsNotSupported);
    if (s->last_gac_response.empty()) return Sw(kSwConditionsNotSatisfied);
    return s->last_gac_response;
}

Bytes VirtualCard::Script(const Command &c) {
    const Application *app = Current();
    if (app == nullptr) return Sw(kSwConditionsNotSatisfied);
    const auto it = app->script_sw_by_ins.find(c.ins);
    return Sw(it == app->script_sw_by_ins.end() ? app->script_sw : it->second);
}

}  // namespace velk::card
