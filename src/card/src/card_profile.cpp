// SPDX-License-Identifier: Apache-2.0
#include "velk/card/card_profile.hpp"

#include <algorithm>

#include "oda_material.hpp"
#include "velk/card/card.hpp"

namespace velk::card {

using velk::host::Tlv;
using velk::host::ToHex;

const char *CryptogramName(Cryptogram c) {
    switch (c) {
        case Cryptogram::kAac:
            return "AAC";
        case Cryptogram::kTc:
            return "TC";
        case Cryptogram::kArqc:
            return "ARQC";
    }
    return "?";
}

std::optional<Cryptogram> CryptogramFromName(std::string_view name) {
    if (name == "aac" || name == "AAC") return Cryptogram::kAac;
    if (name == "tc" || name == "TC") return Cryptogram::kTc;
    if (name == "arqc" || name == "ARQC") return Cryptogram::kArqc;
    return std::nullopt;
}

Cryptogram CryptogramFromP1(uint8_t p1) {
    switch (p1 & 0xC0) {
        case 0x40:
            return Cryptogram::kTc;
        case 0x80:
            return Cryptogram::kArqc;
        default:
            return Cryptogram::kAac;  // 0xC0 is not a valid request; the card treats it as AAC
    }
}

size_t GacPolicy::Index(Cryptogram c) {
    return c == Cryptogram::kAac ? 0 : c == Cryptogram::kTc ? 1 : 2;
}

Bytes Record::Encode() const {
    if (raw) return *raw;
    Bytes value;
    for (const RecordItem &item : items) {
        const Bytes e = Tlv(item.tag, item.value);
        value.insert(value.end(), e.begin(), e.end());
    }
    return Tlv(0x70, value);
}

std::optional<Bytes> Application::RecordValue(uint32_t tag) const {
    for (const Record &r : records)
        for (const RecordItem &item : r.items)
            if (item.tag == tag && (item.computed.empty() || !item.value.empty()))
                return item.value;
    return std::nullopt;
}

const Record *Application::FindRecord(uint8_t sfi, uint8_t number) const {
    for (const Record &r : records)
        if (r.sfi == sfi && r.number == number) return &r;
    return nullptr;
}

Bytes EncodeTlvObject(const Field &object) {
    Bytes out;
    for (const auto &[key, value] : object.Members()) {
        const auto tag = ParseTagText(key);
        if (!tag) value.Fail("expected a tag of 1 to 4 bytes in hex as the name of this field");
        const auto encode_one = [&, t = *tag](const Field &v) {
            const Bytes content = v.IsObject() ? EncodeTlvObject(v) : v.HexRange(0, 0xFFFF);
            const Bytes e = Tlv(t, content);
            out.insert(out.end(), e.begin(), e.end());
        };
        if (value.IsArray()) {
            for (const Field &v : value.Elements())
                encode_one(v);
        } else {
            encode_one(value);
        }
    }
    return out;
}

namespace {

Bytes Text(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

uint16_t ParseSw(const Field &f) {
    const Bytes b = f.Hex(2);
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

uint8_t ParseByte(const Field &f) {
    return f.Hex(1)[0];
}

Dol ParseDol(const Field &where, const Bytes &encoded, const char *what) {
    try {
        return Dol(encoded);
    } catch (const std::invalid_argument &e) {
        where.Fail(std::string(what) + " is not a data object list: " + e.what());
    }
}

std::array<Cryptogram, 3> ParsePolicy(const Field &f, std::array<Cryptogram, 3> policy) {
    f.OnlyKeys({"aac", "tc", "arqc"});
    for (const auto &[requested, answer] : f.Members()) {
        const auto asked = CryptogramFromName(requested);
        const auto given = CryptogramFromName(answer.String());
        if (!given) answer.Fail("expected \"aac\", \"tc\" or \"arqc\"");
        policy[GacPolicy::Index(*asked)] = *given;
    }
    return policy;
}

// Records are an object keyed "SFI.RECORD" ("1.1", "2.3"); each is an
// object of data objects, or a hex string used as the whole record.
std::vector<Record> ParseRecords(const Field &records) {
    std::vector<Record> out;
    for (const auto &[key, r] : records.Members()) {
        Record rec;
        const size_t dot = key.find('.');
        int sfi = 0, number = 0;
        try {
            size_t used = 0;
            sfi = std::stoi(key.substr(0, dot), &used);
            if (dot == std::string::npos || used != dot) throw std::invalid_argument(key);
            number = std::stoi(key.substr(dot + 1), &used);
            if (used != key.size() - dot - 1) throw std::invalid_argument(key);
        } catch (const std::exception &) {
            r.Fail("a record is named SFI.RECORD, e.g. \"1.1\"");
        }
        if (sfi < 1 || sfi > 30 || number < 1 || number > 254)
            r.Fail("SFI 1 to 30 and record 1 to 254");
        rec.sfi = static_cast<uint8_t>(sfi);
        rec.number = static_cast<uint8_t>(number);
        if (r.IsString()) {
            rec.raw = r.HexRange(0, 256);
        } else {
            for (const auto &[tag_text, value] : r.Members()) {
                const auto tag = ParseTagText(tag_text);
                if (!tag) value.Fail("expected a tag in hex as the name of this field");
                RecordItem item{*tag, {}, {}};
                const std::string text = value.String();
                if (!text.empty() && text[0] == '@') {
                    item.computed = text.substr(1);
                    if (!IsComputedItemName(item.computed))
                        value.Fail("unknown computed value '" + text +
                                   "' (known: " + ComputedItemNames() + ")");
                } else {
                    item.value = value.HexRange(0, 252);
                }
                rec.items.push_back(std::move(item));
            }
        }
        out.push_back(std::move(rec));
    }
    return out;
}

void ParseGenerateAc(const Field &f, Application &app) {
    f.OnlyKeys({"algorithm", "master_key", "iad", "first", "second", "c5", "cda", "verify_arpc"});
    const std::string alg = f["algorithm"].String();
    if (alg == "3des") {
        app.key.algorithm = CryptoAlgorithm::kTdes;
        app.key.master_key = f["master_key"].Hex(16);
    } else if (alg == "aes") {
        app.key.algorithm = CryptoAlgorithm::kAes;
        app.key.master_key = f["master_key"].HexRange(16, 32);
        if (app.key.master_key.size() % 8 != 0)
            f["master_key"].Fail("expected 32, 48 or 64 hex digits");
    } else {
        f["algorithm"].Fail("expected \"3des\" or \"aes\"");
    }
    app.iad = f["iad"].HexRange(1, 32);
    if (auto p = f.Optional("first")) app.policy.first = ParsePolicy(*p, app.policy.first);
    if (auto p = f.Optional("second")) app.policy.second = ParsePolicy(*p, app.policy.second);
    if (auto c5 = f.Optional("c5")) app.gac_c5 = c5->HexRange(1, 8);
    if (auto cda = f.Optional("cda")) app.cda = cda->Bool();
    if (auto v = f.Optional("verify_arpc")) app.verify_arpc = v->Bool();
}

OdaSetup ParseOda(const Field &f) {
    f.OnlyKeys({"ca_key", "ca_index", "issuer_key", "icc_key", "issuer_expiry", "icc_expiry",
                "issuer_serial", "icc_serial", "data_authentication_code", "icc_dynamic_number"});
    OdaSetup setup;
    setup.ca_key = f["ca_key"].String();
    setup.ca_index = ParseByte(f["ca_index"]);
    setup.issuer_key = f["issuer_key"].String();
    if (auto k = f.Optional("icc_key")) setup.icc_key = k->String();
    if (auto v = f.Optional("issuer_expiry")) setup.issuer_expiry = v->Hex(2);
    if (auto v = f.Optional("icc_expiry")) setup.icc_expiry = v->Hex(2);
    if (auto v = f.Optional("issuer_serial")) setup.issuer_serial = v->Hex(3);
    if (auto v = f.Optional("icc_serial")) setup.icc_serial = v->Hex(3);
    if (auto v = f.Optional("data_authentication_code")) setup.data_authentication_code = v->Hex(2);
    if (auto v = f.Optional("icc_dynamic_number")) setup.icc_dynamic_number = v->HexRange(2, 8);
    return setup;
}

void ParseScripts(const Field &f, Application &app) {
    f.OnlyKeys({"sw", "by_ins"});
    if (auto sw = f.Optional("sw")) app.script_sw = ParseSw(*sw);
    if (auto by = f.Optional("by_ins"))
        for (const auto &[ins, sw] : by->Members()) {
            Bytes b;
            try {
                b = velk::host::FromHex(ins);
            } catch (const std::invalid_argument &) {
            }
            if (b.size() != 1) sw.Fail("expected an instruction byte in hex as the field name");
            app.script_sw_by_ins[b[0]] = ParseSw(sw);
        }
}

// ---- Coherence of the card's data ------------------------------------------

// The digits of a compressed numeric or Track 2 value up to the first F or D.
std::string Digits(const Bytes &b, char stop) {
    const std::string hex = ToHex(b);
    std::string out;
    for (char c : hex) {
        if (c == stop || c == 'F') break;
        out += c;
    }
    return out;
}

void CheckCoherence(const Field &where, const Application &app) {
    const auto pan = app.RecordValue(0x5A);
    const auto track2 = app.RecordValue(0x57);
    const auto expiry = app.RecordValue(0x5F24);
    if (!track2)
        where.Fail("the records hold no Track 2 Equivalent Data (57), which the kernel needs");
    if (!app.RecordValue(0x8C))
        where.Fail("the records hold no CDOL1 (8C), which the kernel needs");
    const std::string t2 = ToHex(*track2);
    const size_t sep = t2.find('D');
    if (sep == std::string::npos || t2.size() < sep + 5)
        where.Fail("Track 2 (57) has no separator D followed by the expiry date");
    if (pan && Digits(*pan, 'F') != t2.substr(0, sep))
        where.Fail("the PAN (5A) " + Digits(*pan, 'F') + " differs from the PAN in Track 2 (57) " +
                   t2.substr(0, sep));
    if (expiry && ToHex(*expiry).substr(0, 4) != t2.substr(sep + 1, 4))
        where.Fail("the expiry date (5F24) " + ToHex(*expiry) + " differs from Track 2's YYMM " +
                   t2.substr(sep + 1, 4));
    if (!app.fci_raw) {
        std::vector<velk::host::TlvNode> fci;
        try {
            fci = ParseTlvData(app.fci_proprietary);
        } catch (const std::invalid_argument &e) {
            where.Fail(std::string("the FCI is not well-formed TLV: ") + e.what());
        }
        if (!velk::host::Find(fci, 0x9F38))
            where.Fail("the FCI holds no PDOL (9F38), which the kernel needs");
    }
    // The kernel refuses a GENERATE AC response whose C5 disagrees with the
    // one of the GPO response.
    if (app.gpo_c5 && (!app.gac_c5 || ((*app.gac_c5)[0] & 0x07) != ((*app.gpo_c5)[0] & 0x07)))
        where.Fail("gpo.c5 needs generate_ac.c5 with the same CVM bits (the low three)");
    if (app.gpo_raw) return;
    if (app.aip.size() != 2) where.Fail("gpo.aip must be 2 bytes");
    if (app.afl.size() % 4 != 0 || app.afl.empty())
        where.Fail("gpo.afl must be one or more entries of 4 bytes");
    for (size_t i = 0; i < app.afl.size(); i += 4) {
        const uint8_t sfi = app.afl[i] >> 3, first = app.afl[i + 1], last = app.afl[i + 2],
                      oda = app.afl[i + 3];
        const std::string entry = ToHex(std::span(app.afl).subspan(i, 4));
        if (sfi == 0 || sfi > 30 || first == 0 || last < first || oda > last - first + 1)
            where.Fail("AFL entry " + entry + " is not valid");
        for (int n = first; n <= last; ++n)
            if (!app.FindRecord(sfi, static_cast<uint8_t>(n)))
                where.Fail("the AFL entry " + entry + " names record " + std::to_string(n) +
                           " of SFI " + std::to_string(sfi) +
                           ", which the profile does not define");
    }
}

Application ParseApplication(const Field &f, bool check) {
    f.OnlyKeys({"label", "aid", "priority", "kernel_id", "in_ppse", "fci", "fci_raw", "select_sw",
                "gpo", "records", "get_data", "put_data", "generate_ac", "atc", "last_online_atc",
                "echo", "internal_authenticate_format", "scripts", "oda"});
    Application app;
    app.aid = f["aid"].HexRange(5, 16);
    app.label = f.Has("label") ? f["label"].String() : ToHex(app.aid);
    if (app.label.size() > 16) f["label"].Fail("an application label has at most 16 characters");
    if (auto p = f.Optional("priority")) app.priority = static_cast<uint8_t>(p->Int(0, 15));
    if (auto k = f.Optional("kernel_id")) app.kernel_id = ParseByte(*k);
    if (auto in = f.Optional("in_ppse")) app.in_ppse = in->Bool();
    if (auto raw = f.Optional("fci_raw")) app.fci_raw = raw->HexRange(0, 256);
    if (auto sw = f.Optional("select_sw")) app.select_sw = ParseSw(*sw);

    Bytes a5;
    if (app.label.size() > 0) a5 = Tlv(0x50, Text(app.label));
    if (app.priority) a5 = velk::host::Cat({a5, Tlv(0x87, Bytes{*app.priority})});
    if (auto fci = f.Optional("fci")) {
        const Bytes extra = EncodeTlvObject(*fci);
        a5.insert(a5.end(), extra.begin(), extra.end());
        if (auto pdol = fci->Optional("9F38"))
            app.pdol = ParseDol(*pdol, pdol->HexRange(0, 252), "the PDOL");
    }
    app.fci_proprietary = a5;

    const Field gpo = f["gpo"];
    gpo.OnlyKeys({"aip", "afl", "c5", "extra", "sw", "raw"});
    if (auto raw = gpo.Optional("raw")) {
        app.gpo_raw = raw->HexRange(0, 256);
    } else {
        app.aip = gpo["aip"].Hex(2);
        app.afl = gpo["afl"].HexRange(0, 252);
        if (auto c5 = gpo.Optional("c5")) app.gpo_c5 = c5->HexRange(1, 8);
        if (auto extra = gpo.Optional("extra")) app.gpo_extra = EncodeTlvObject(*extra);
    }
    if (auto sw = gpo.Optional("sw")) app.gpo_sw = ParseSw(*sw);

    app.records = ParseRecords(f["records"]);
    if (auto gd = f.Optional("get_data"))
        for (const auto &[key, value] : gd->Members()) {
            const auto tag = ParseTagText(key);
            if (!tag || *tag > 0xFFFF)
                value.Fail("expected a tag of 1 or 2 bytes as the field name");
            app.get_data[*tag] = value.HexRange(0, 250);
        }
    if (auto pd = f.Optional("put_data")) {
        if (pd->IsString() && pd->String() == "*") {
            app.put_data_any = true;
        } else {
            for (const Field &t : pd->Elements())
                app.put_data.insert(t.Tag());
        }
    }
    ParseGenerateAc(f["generate_ac"], app);
    if (auto atc = f.Optional("atc")) app.atc = static_cast<uint16_t>(atc->Int(0, 0xFFFE));
    if (auto last = f.Optional("last_online_atc"))
        app.last_online_atc = static_cast<uint16_t>(last->Int(0, 0xFFFF));
    if (auto echo = f.Optional("echo")) app.echo = echo->Bool();
    if (auto fmt = f.Optional("internal_authenticate_format"))
        app.internal_authenticate_format = static_cast<int>(fmt->Int(1, 2));
    if (auto s = f.Optional("scripts")) ParseScripts(*s, app);
    if (auto oda = f.Optional("oda")) app.oda = ParseOda(*oda);

    const Field records = f["records"];
    if (auto v = app.RecordValue(0x8C)) app.cdol1 = ParseDol(records, *v, "CDOL1 (8C)");
    if (auto v = app.RecordValue(0x8D)) app.cdol2 = ParseDol(records, *v, "CDOL2 (8D)");
    if (auto v = app.RecordValue(0x9F49)) app.ddol = ParseDol(records, *v, "the DDOL (9F49)");

    if (check) CheckCoherence(f, app);
    try {
        ResolveComputedItems(app);
    } catch (const std::exception &e) {
        f.Fail(e.what());
    }
    return app;
}

}  // namespace

CardProfile ParseCardProfile(const Field &root) {
    root.OnlyKeys({"name", "description", "atr", "ppse", "ppse_raw", "checks", "application",
                   "applications"});
    CardProfile p;
    p.source = root.File().path;
    p.name = root["name"].String();
    if (auto d = root.Optional("description")) p.description = d->String();
    p.atr = root.Has("atr")
                ? root["atr"].HexRange(2, 33)
                : velk::host::FromHex("3B 8A 80 01 80 31 80 65 B0 83 11 00 83 00 90 00");
    if (auto ppse = root.Optional("ppse")) p.ppse = ppse->Bool();
    if (auto raw = root.Optional("ppse_raw")) p.ppse_raw = raw->HexRange(0, 256);
    const bool check = root.Has("checks") ? root["checks"].Bool() : true;
    if (root.Has("application") == root.Has("applications"))
        root.Fail("a card has either \"application\" (one) or \"applications\" (a list)");
    if (auto one = root.Optional("application")) {
        p.applications.push_back(ParseApplication(*one, check));
    } else {
        for (const Field &a : root["applications"].Elements())
            p.applications.push_back(ParseApplication(a, check));
        if (p.applications.empty())
            root["applications"].Fail("a card needs at least one application");
    }
    return p;
}

CardProfile LoadCardProfile(const std::filesystem::path &path) {
    return ParseCardProfile(Field(LoadJsonFileWithBase(path)));
}

}  // namespace velk::card
