// SPDX-License-Identifier: Apache-2.0
#include "velk/term/terminal_profile.hpp"

#include <algorithm>

#include "velk/card/card.hpp"
#include "velk/card/card_profile.hpp"

namespace velk::term {

using velk::card::Field;
using velk::card::LoadJsonFile;

namespace {

bool Equal(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// Finds a data object among encoded ones (first level only).
std::optional<Bytes> Value(const Bytes &encoded, uint32_t tag) {
    for (const auto &n : velk::card::ParseTlvData(encoded))
        if (n.tag == tag) return n.value;
    return std::nullopt;
}

std::vector<ListedCard> LoadExceptions(const std::filesystem::path &path) {
    const Field root(LoadJsonFile(path));
    root.OnlyKeys({"description", "cards"});
    std::vector<ListedCard> out;
    for (const Field &c : root["cards"].Elements()) {
        c.OnlyKeys({"pan", "psn"});
        ListedCard card{c["pan"].HexRange(1, 10), std::nullopt};
        if (auto psn = c.Optional("psn")) card.psn = psn->Hex(1);
        out.push_back(std::move(card));
    }
    return out;
}

std::vector<RevokedCertificate> LoadRevocations(const std::filesystem::path &path) {
    const Field root(LoadJsonFile(path));
    root.OnlyKeys({"description", "certificates"});
    std::vector<RevokedCertificate> out;
    for (const Field &c : root["certificates"].Elements()) {
        c.OnlyKeys({"rid", "index", "serial"});
        out.push_back({c["rid"].Hex(5), c["index"].Hex(1)[0], c["serial"].Hex(3)});
    }
    return out;
}

// Replaces the value of every first-level element with the tag; false when
// there is none.
bool Replace(Bytes &encoded, const TerminalSetting &setting) {
    bool found = false;
    Bytes out;
    for (const auto &n : velk::card::ParseTlvData(encoded)) {
        found = found || n.tag == setting.tag;
        out = velk::host::Cat(
            {out, velk::host::Tlv(n.tag, n.tag == setting.tag ? setting.value : n.value)});
    }
    if (found) encoded = std::move(out);
    return found;
}

}  // namespace

void ApplySetting(TerminalProfile &t, const TerminalSetting &s) {
    bool found = Replace(t.parameters, s);
    for (TerminalApplication &a : t.applications)
        found = Replace(a.parameters, s) || found;
    found = Replace(t.transaction, s) || found;
    if (s.tag == 0x5F2A) {
        t.currency = s.value;  // the transaction input carries it
    } else if (!found) {
        t.parameters = velk::host::Cat({t.parameters, velk::host::Tlv(s.tag, s.value)});
    }
    if (s.tag == 0x5F36) t.exponent = s.value.at(0);
    t.overrides.push_back(velk::host::ToHex(velk::host::EncodeTag(s.tag)) + "=" +
                          velk::host::ToHex(s.value));
}

void ApplyCurrency(TerminalProfile &t, const Currency &c) {
    ApplySetting(t, {0x5F2A, c.numeric});
    if (c.exponent >= 0) ApplySetting(t, {0x5F36, Bytes{static_cast<uint8_t>(c.exponent)}});
}

bool TerminalApplication::Matches(std::span<const uint8_t> card_aid) const {
    if (card_aid.size() < aid.size()) return false;
    if (!partial && card_aid.size() != aid.size()) return false;
    return std::equal(aid.begin(), aid.end(), card_aid.begin());
}

const TerminalApplication *TerminalProfile::FindApplication(
    std::span<const uint8_t> card_aid) const {
    // The longest terminal AID that matches wins: it is the most specific.
    const TerminalApplication *best = nullptr;
    for (const TerminalApplication &a : applications)
        if (a.Matches(card_aid) && (!best || a.aid.size() > best->aid.size())) best = &a;
    return best;
}

const CaKey *TerminalProfile::FindCaKey(std::span<const uint8_t> rid, uint8_t index) const {
    for (const CaKey &k : ca_keys)
        if (Equal(k.rid, rid) && k.index == index) return &k;
    return nullptr;
}

bool TerminalProfile::Listed(std::span<const uint8_t> pan, std::optional<uint8_t> psn) const {
    return std::any_of(exception_file.begin(), exception_file.end(), [&](const ListedCard &c) {
        return Equal(c.pan, pan) && (!c.psn || (psn && (*c.psn)[0] == *psn));
    });
}

bool TerminalProfile::Revoked(std::span<const uint8_t> rid, uint8_t index,
                              std::span<const uint8_t> serial) const {
    return std::any_of(revocations.begin(), revocations.end(), [&](const RevokedCertificate &r) {
        return Equal(r.rid, rid) && r.index == index && Equal(r.serial, serial);
    });
}

std::optional<uint8_t> TerminalProfile::AuthenticationType() const {
    const auto types = Value(parameters, 0x9F9309);
    if (!types || types->empty()) return std::nullopt;
    return (*types)[0];
}

std::vector<CaKey> LoadCaKeys(const std::filesystem::path &path) {
    const Field root(LoadJsonFile(path));
    root.OnlyKeys({"description", "keys"});
    std::vector<CaKey> out;
    for (const Field &k : root["keys"].Elements()) {
        k.OnlyKeys({"name", "rid", "index", "modulus", "exponent"});
        CaKey key{k["rid"].Hex(5), k["index"].Hex(1)[0], k["modulus"].HexRange(64, 248),
                  k["exponent"].HexRange(1, 3)};
        for (const CaKey &other : out)
            if (Equal(other.rid, key.rid) && other.index == key.index)
                k.Fail("a key with this RID and index is already in the store");
        out.push_back(std::move(key));
    }
    return out;
}

TerminalProfile LoadTerminalProfile(const std::filesystem::path &path) {
    return ParseTerminalProfile(Field(
        velk::card::LoadJsonFileWithBase(path, {"ca_keys", "exception_file", "revocation_list"})));
}

TerminalProfile ParseTerminalProfile(const Field &root) {
    const std::filesystem::path &path = root.File().path;
    root.OnlyKeys({"name", "description", "currency", "exponent", "parameters", "applications",
                   "transaction", "unpredictable_number_length", "ca_keys", "exception_file",
                   "revocation_list"});
    TerminalProfile t;
    t.source = path;
    t.name = root["name"].String();
    if (auto d = root.Optional("description")) t.description = d->String();
    if (auto c = root.Optional("currency")) t.currency = c->Hex(2);
    if (auto e = root.Optional("exponent")) t.exponent = static_cast<int>(e->Int(0, 3));
    t.parameters = velk::card::EncodeTlvObject(root["parameters"]);
    for (const Field &a : root["applications"].Elements()) {
        a.OnlyKeys({"aid", "partial", "kernel_id", "parameters"});
        TerminalApplication app;
        app.aid = a["aid"].HexRange(5, 16);
        if (auto p = a.Optional("partial")) app.partial = p->Bool();
        if (auto k = a.Optional("kernel_id")) app.kernel_id = k->Hex(1)[0];
        if (auto p = a.Optional("parameters")) app.parameters = velk::card::EncodeTlvObject(*p);
        t.applications.push_back(std::move(app));
    }
    if (t.applications.empty())
        root["applications"].Fail("a terminal supports at least one application");
    if (auto tx = root.Optional("transaction")) t.transaction = velk::card::EncodeTlvObject(*tx);
    if (auto n = root.Optional("unpredictable_number_length"))
        t.unpredictable_number_length = static_cast<size_t>(n->Int(1, 8));
    if (auto f = root.Optional("ca_keys")) t.ca_keys = LoadCaKeys(f->FilePath());
    if (auto f = root.Optional("exception_file")) t.exception_file = LoadExceptions(f->FilePath());
    if (auto f = root.Optional("revocation_list")) t.revocations = LoadRevocations(f->FilePath());
    // The kernel needs these from the terminal parameters on every first tap.
    const Field parameters = root["parameters"];
    for (uint32_t tag : {0x9F9301u, 0x9F1Au, 0x9F35u}) {
        std::optional<Bytes> v;
        try {
            v = Value(t.parameters, tag);
        } catch (const std::invalid_argument &e) {
            parameters.Fail(std::string("not well-formed TLV: ") + e.what());
        }
        if (!v || v->empty())
            parameters.Fail((v ? "an empty " : "missing ") +
                            velk::host::ToHex(velk::host::EncodeTag(tag)) +
                            ", which the kernel needs");
    }
    return t;
}

}  // namespace velk::term
