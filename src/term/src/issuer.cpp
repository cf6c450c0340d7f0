// SPDX-License-Identifier: Apache-2.0
#include "velk/term/issuer.hpp"

#include <cctype>
#include <map>
#include <stdexcept>

#include "velk/card/card.hpp"
#include "velk/term/tags.hpp"

namespace velk::term {

using velk::host::Tlv;

IssuerConfig IssuerConfig::FromDecision(const std::string &decision) {
    IssuerConfig c;
    if (decision == "approve") {
        c.arc = {'0', '0'};
    } else if (decision == "decline") {
        c.arc = {'0', '5'};  // do not honour
    } else if (decision.size() == 2 && std::isprint(static_cast<unsigned char>(decision[0])) &&
               std::isprint(static_cast<unsigned char>(decision[1]))) {
        c.arc = Bytes(decision.begin(), decision.end());
    } else {
        throw std::invalid_argument(
            "issuer decision '" + decision +
            "': expected approve, decline or a two-character response code");
    }
    return c;
}

// Only the template's own tag and length are read: what is inside is the
// issuer's, passed on as it came, and the kernel judges it when it runs the
// script (a lab sends malformed ones on purpose).
bool IsIssuerScript(const Bytes &script) {
    if (script.empty() || (script[0] != 0x71 && script[0] != 0x72)) return false;
    Bytes outer = script;
    outer[0] &= static_cast<uint8_t>(~0x20);  // read as primitive: the value is not parsed
    try {
        return velk::host::ParseTlv(outer, false).size() == 1;
    } catch (const std::invalid_argument &) {
        return false;
    }
}

Issuer::Issuer(IssuerConfig config, SecretsLookup secrets)
    : config_(std::move(config)), secrets_(std::move(secrets)) {}

namespace {

// The value a terminal sends for a DOL entry: numeric values are aligned on
// the right, everything else on the left (compressed numeric padded with F).
Bytes Fit(uint32_t tag, const Bytes &value, size_t length) {
    const TagInfo *info = FindTag(tag);
    const TagFormat format = info ? info->format : TagFormat::kBinary;
    if (value.size() == length) return value;
    if (format == TagFormat::kNumeric) {
        if (value.size() > length)
            return Bytes(value.end() - static_cast<std::ptrdiff_t>(length), value.end());
        Bytes out(length - value.size(), 0x00);
        out.insert(out.end(), value.begin(), value.end());
        return out;
    }
    Bytes out(value.begin(),
              value.begin() + static_cast<std::ptrdiff_t>(std::min(length, value.size())));
    out.resize(length, format == TagFormat::kCompressed ? 0xFF : 0x00);
    return out;
}

std::string CheckArqc(const std::map<uint32_t, Bytes> &record, const SecretsLookup &secrets,
                      std::optional<CardSecrets> &found) {
    const auto get = [&](uint32_t tag) -> const Bytes * {
        const auto it = record.find(tag);
        return it == record.end() ? nullptr : &it->second;
    };
    const Bytes *arqc = get(0x9F26), *atc = get(0x9F36), *aip = get(0x82), *pan = get(0x5A);
    if (!arqc || arqc->size() != 8 || !atc || atc->size() != 2 || !aip)
        return "not checked: the request lacks the cryptogram, the ATC or the AIP";
    if (!pan || !secrets) return "not checked: the issuer cannot tell which card this is";
    found = secrets(*pan);
    if (!found) return "not checked: the issuer does not know this card's key";
    Bytes data;
    // The terminal filled what it did not have with zeros; so does the issuer.
    for (const velk::card::DolEntry &e : found->cdol1.Entries()) {
        const Bytes *v = get(e.tag);
        const Bytes fitted = v ? Fit(e.tag, *v, e.length) : Bytes(e.length, 0x00);
        data.insert(data.end(), fitted.begin(), fitted.end());
    }
    data.insert(data.end(), aip->begin(), aip->end());
    data.insert(data.end(), atc->begin(), atc->end());
    const uint16_t n = static_cast<uint16_t>((*atc)[0] << 8 | (*atc)[1]);
    return velk::card::ApplicationCryptogram(found->key, n, data) == *arqc ? "verified"
                                                                           : "did not verify";
}

}  // namespace

IssuerResponse Issuer::Authorise(const Bytes &data_record) const {
    std::map<uint32_t, Bytes> record;
    for (const auto &n : velk::card::ParseTlvData(data_record))
        record.emplace(n.tag, n.value);  // the first of a repeated tag
    IssuerResponse r;
    r.arc = config_.arc;
    std::optional<CardSecrets> card;
    r.arqc_check = CheckArqc(record, secrets_, card);
    if (config_.send_arpc) {
        const auto arqc = record.find(0x9F26);
        const auto atc = record.find(0x9F36);
        Bytes arpc(8, 0x00);
        if (card && arqc != record.end() && arqc->second.size() == 8 && atc != record.end() &&
            atc->second.size() == 2)
            arpc = velk::card::Arpc(card->key,
                                    static_cast<uint16_t>(atc->second[0] << 8 | atc->second[1]),
                                    arqc->second, r.arc);
        r.authentication_data = arpc;
        r.authentication_data.insert(r.authentication_data.end(), r.arc.begin(), r.arc.end());
    }
    for (const Bytes &s : config_.scripts)
        r.scripts.insert(r.scripts.end(), s.begin(), s.end());
    return r;
}

}  // namespace velk::term
