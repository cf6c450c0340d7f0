// SPDX-License-Identifier: Apache-2.0
// The terminal as a JSON profile describes it: the parameters the kernel
// asks for (terminal parameters, parameters of each application the
// terminal supports), its currency, and the files of its CA public keys,
// exception file and revocation list.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "velk/card/json_profile.hpp"
#include "velk/term/options.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;

struct CaKey {
    Bytes rid;  // 5 bytes
    uint8_t index = 0;
    Bytes modulus, exponent;
};

struct RevokedCertificate {
    Bytes rid;
    uint8_t index = 0;
    Bytes serial;  // 3 bytes
};

struct ListedCard {
    Bytes pan;                 // as in 5A
    std::optional<Bytes> psn;  // any sequence number when absent
};

struct TerminalApplication {
    Bytes aid;
    bool partial = true;  // the card's AID may continue after the terminal's
    std::optional<uint8_t> kernel_id;
    Bytes parameters;  // the data objects of the reply to the AID parameter request

    bool Matches(std::span<const uint8_t> card_aid) const;
};

struct TerminalProfile {
    std::string name;
    std::string description;
    std::filesystem::path source;
    Bytes parameters;  // the data objects of the reply to the terminal parameter request
    std::vector<TerminalApplication> applications;
    Bytes currency{0x09, 0x78};  // 5F2A
    int exponent = 2;            // 5F36
    Bytes transaction;           // further data objects for every transaction input
    size_t unpredictable_number_length = 4;
    std::vector<CaKey> ca_keys;
    std::vector<ListedCard> exception_file;
    std::vector<RevokedCertificate> revocations;
    std::vector<std::string> overrides;  // settings changed for this run, "9F1A=0250"

    const TerminalApplication *FindApplication(std::span<const uint8_t> card_aid) const;
    const CaKey *FindCaKey(std::span<const uint8_t> rid, uint8_t index) const;
    bool Listed(std::span<const uint8_t> pan, std::optional<uint8_t> psn) const;
    bool Revoked(std::span<const uint8_t> rid, uint8_t index,
                 std::span<const uint8_t> serial) const;
    // The first transaction type of application authentication (9F9309).
    std::optional<uint8_t> AuthenticationType() const;
};

// Changes a data object of the terminal's set-up for one run: wherever the
// terminal holds the tag (its parameters, each application's parameters, its
// transaction data) the value is replaced; a tag held nowhere joins the
// terminal parameters. 5F2A and 5F36 also set the currency and its exponent.
void ApplySetting(TerminalProfile &terminal, const TerminalSetting &setting);
// The transaction currency (5F2A) and, when the currency is known, its
// exponent (5F36).
void ApplyCurrency(TerminalProfile &terminal, const Currency &currency);

// Throws velk::card::ProfileError.
TerminalProfile LoadTerminalProfile(const std::filesystem::path &path);
// The same for a file already read (its file names relative to it).
TerminalProfile ParseTerminalProfile(const velk::card::Field &root);
std::vector<CaKey> LoadCaKeys(const std::filesystem::path &path);

}  // namespace velk::term
