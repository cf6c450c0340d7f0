// SPDX-License-Identifier: Apache-2.0
// Words for the bytes a transaction leaves behind: TVR, TSI, AIP, CVM
// Results, Cryptogram Information Data, the Outcome Parameter Set, the User
// Interface Request Data, the kernel's status codes, and TLV data decoded
// with tag names.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velk::term {

using ByteView = std::span<const uint8_t>;

// Every set bit of a bit-field data object in words, "byte 1: ...". Bits the
// table does not name are reported as "byte N bit XX: reserved".
std::vector<std::string> ExplainTvr(ByteView tvr);
std::vector<std::string> ExplainTsi(ByteView tsi);
std::vector<std::string> ExplainAip(ByteView aip);
std::vector<std::string> ExplainCvmResults(ByteView results);
std::vector<std::string> ExplainCvmList(ByteView list);
std::vector<std::string> ExplainAfl(ByteView afl);
std::string ExplainCid(ByteView cid);
std::string CvmCodeName(uint8_t code);

// The Outcome Parameter Set (DF8129), field by field.
struct OutcomeParameters {
    uint8_t status = 0, start = 0xF0, online_response = 0xF0, cvm = 0xF0, presence = 0,
            alternate_interface = 0xF0, field_off = 0xFF, removal_timeout = 0;
};
std::optional<OutcomeParameters> ParseOutcomeParameters(ByteView ops);
std::string OutcomeStatusName(uint8_t status);  // "APPROVED"
std::string StartName(uint8_t start);           // "B", "not applicable"
std::string OnlineResponseName(uint8_t value);  // "long tap"
std::string OutcomeCvmName(uint8_t cvm);        // "online PIN"
std::vector<std::string> PresenceWords(uint8_t presence);
std::string AlternateInterfaceName(uint8_t value);
std::string FieldOffName(uint8_t value);

// The User Interface Request Data (DF8116, 9F8117).
struct UiRequest {
    uint8_t message = 0, status = 0;
    uint32_t hold_time = 0;  // units of 100 ms
    std::string language;
    uint8_t value_qualifier = 0;
    std::vector<uint8_t> value, currency;
};
std::optional<UiRequest> ParseUiRequest(ByteView uird);
std::string MessageName(uint8_t id);  // "Approved"
std::string UiStatusName(uint8_t s);  // "Card read successfully"
std::string DescribeUiRequest(const UiRequest &ui);

// A status returned by the kernel, in words ("0x30101: stopped by the host").
std::string KernelStatusText(uint32_t code);
std::string TransactionTypeName(uint8_t type);
std::string CurrencyName(uint16_t numeric);  // "EUR" for 978, "" when unknown
// The ISO 4217 currencies this tool knows by name, with their minor unit.
struct CurrencyInfo {
    uint16_t numeric;
    const char *code;
    int exponent;
};
std::span<const CurrencyInfo> Currencies();
// A BCD amount with the currency exponent applied ("25.00").
std::string FormatAmount(ByteView bcd, int exponent);

// A value shown on one line by its tag's format (digits, text or hex).
std::string ShowValue(uint32_t tag, ByteView value);
// Further lines for values that have a meaning bit by bit (TVR, CVM Results...).
std::vector<std::string> ExplainValue(uint32_t tag, ByteView value);

// TLV data decoded into indented lines "9F02 Amount, Authorised: 000000002500",
// with explanations below the values that have them. Data that is not TLV is
// shown as hex with the reason.
std::vector<std::string> DecodeLines(ByteView data, int indent = 0);
nlohmann::ordered_json DecodeJson(ByteView data);

}  // namespace velk::term
