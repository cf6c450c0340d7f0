// SPDX-License-Identifier: Apache-2.0
// The issuer of the online leg: it reads the authorisation request (the
// kernel's data record), checks the ARQC when it knows the card's key,
// decides by configuration, and answers with the authorisation response
// code (8A), the issuer authentication data (91: ARPC and response code)
// and the issuer scripts to run on the card (templates 71 and 72).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "velk/card/dol.hpp"
#include "velk/card/emv_crypto.hpp"
#include "velk/host/tlv.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;

struct IssuerConfig {
    Bytes arc{'0', '0'};         // the authorisation response code; "00" approves
    bool send_arpc = true;       // 91 in the response
    std::vector<Bytes> scripts;  // complete templates 71 or 72, in order

    bool Approves() const { return arc == Bytes{'0', '0'}; }
    // "approve", "decline" or a two-character response code ("51").
    static IssuerConfig FromDecision(const std::string &decision);
};

// True when the bytes are one whole template 71 or 72, whatever it holds.
bool IsIssuerScript(const Bytes &script);

// What the issuer knows of a card: its key and what its first cryptogram covers.
struct CardSecrets {
    velk::card::CardKey key;
    velk::card::Dol cdol1;
};
using SecretsLookup = std::function<std::optional<CardSecrets>(const Bytes &pan)>;

struct IssuerResponse {
    Bytes arc;
    Bytes authentication_data;  // 91, empty when not sent
    Bytes scripts;              // the 71 and 72 templates, encoded
    // "verified", "did not verify", or why it could not be checked.
    std::string arqc_check;
};

class Issuer {
public:
    Issuer(IssuerConfig config, SecretsLookup secrets);

    // data_record: the value of the kernel's data record (FF8105).
    IssuerResponse Authorise(const Bytes &data_record) const;
    const IssuerConfig &Config() const { return config_; }

private:
    IssuerConfig config_;
    SecretsLookup secrets_;
};

}  // namespace velk::term
