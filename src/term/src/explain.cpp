// SPDX-License-Identifier: Apache-2.0
#include "velk/term/explain.hpp"

#include <cstdio>

#include "velk/card/card.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/tags.hpp"

namespace velk::term {

namespace {

struct Bit {
    int byte;  // from 1
    uint8_t mask;
    const char *text;
};

constexpr Bit kTvrBits[] = {
    {1, 0x80, "Offline data authentication was not performed"},
    {1, 0x40, "SDA failed"},
    {1, 0x20, "ICC data missing"},
    {1, 0x10, "Card appears on terminal exception file"},
    {1, 0x08, "DDA failed"},
    {1, 0x04, "CDA failed"},
    {1, 0x02, "SDA selected"},
    {2, 0x80, "ICC and terminal have different application versions"},
    {2, 0x40, "Expired application"},
    {2, 0x20, "Application not yet effective"},
    {2, 0x10, "Requested service not allowed for card product"},
    {2, 0x08, "New card"},
    {3, 0x80, "Cardholder verification was not successful"},
    {3, 0x40, "Unrecognised CVM"},
    {3, 0x20, "PIN Try Limit exceeded"},
    {3, 0x10, "PIN entry required and PIN pad not present or not working"},
    {3, 0x08, "PIN entry required, PIN pad present, but PIN was not entered"},
    {3, 0x04, "Online PIN entered"},
    {4, 0x80, "Transaction exceeds floor limit"},
    {4, 0x40, "Lower consecutive offline limit exceeded"},
    {4, 0x20, "Upper consecutive offline limit exceeded"},
    {4, 0x10, "Transaction selected randomly for online processing"},
    {4, 0x08, "Merchant forced transaction online"},
    {5, 0x80, "Default TDOL used"},
    {5, 0x40, "Issuer authentication failed"},
    {5, 0x20, "Script processing failed before final GENERATE AC"},
    {5, 0x10, "Script processing failed after final GENERATE AC"},
};

constexpr Bit kTsiBits[] = {
    {1, 0x80, "Offline data authentication was performed"},
    {1, 0x40, "Cardholder verification was performed"},
    {1, 0x20, "Card risk management was performed"},
    {1, 0x10, "Issuer authentication was performed"},
    {1, 0x08, "Terminal risk management was performed"},
    {1, 0x04, "Script processing was performed"},
};

constexpr Bit kAipBits[] = {
    {2, 0x80, "Reserved for kernel-specific use"},
    {1, 0x40, "SDA supported"},
    {1, 0x20, "DDA supported"},
    {1, 0x10, "Cardholder verification is supported"},
    {1, 0x08, "Terminal risk management is to be performed"},
    {1, 0x04, "Issuer authentication is supported"},
    {1, 0x02, "On-device cardholder verification supported"},
    {1, 0x01, "CDA supported"},
};

std::string Hex2(uint32_t v) {
    char b[8];
    std::snprintf(b, sizeof b, "%02X", v & 0xFF);
    return b;
}

template <size_t N>
std::vector<std::string> ExplainBits(ByteView value, const Bit (&table)[N]) {
    std::vector<std::string> out;
    for (size_t i = 0; i < value.size(); ++i)
        for (uint8_t mask = 0x80; mask != 0; mask >>= 1) {
            if ((value[i] & mask) == 0) continue;
            const char *text = nullptr;
            for (const Bit &b : table)
                if (b.byte == static_cast<int>(i + 1) && b.mask == mask) text = b.text;
            out.push_back("byte " + std::to_string(i + 1) + " bit " + Hex2(mask) + ": " +
                          (text ? text : "reserved"));
        }
    if (out.empty()) out.push_back("no bit set");
    return out;
}

constexpr const char *kConditions[] = {
    "always",
    "if unattended cash",
    "if not unattended cash, not manual cash and not purchase with cashback",
    "if the terminal supports the CVM",
    "if manual cash",
    "if purchase with cashback",
    "if in the application currency and under X",
    "if in the application currency and over X",
    "if in the application currency and under Y",
    "if in the application currency and over Y",
};

std::string ConditionName(uint8_t c) {
    return c < std::size(kConditions) ? kConditions[c] : "condition " + Hex2(c) + " (not defined)";
}

uint32_t Be32(ByteView b, size_t off) {
    return static_cast<uint32_t>(b[off]) << 24 | static_cast<uint32_t>(b[off + 1]) << 16 |
           static_cast<uint32_t>(b[off + 2]) << 8 | b[off + 3];
}

std::string Digits(ByteView value) {
    return velk::host::ToHex(value);
}

bool Printable(ByteView value) {
    for (uint8_t c : value)
        if (c < 0x20 || c > 0x7E) return false;
    return true;
}

// The number a BCD value holds; -1 when a nibble is not a digit or the
// value has more digits than a long holds on every target (8).
long BcdValue(ByteView b) {
    if (b.size() > 4) return -1;
    long v = 0;
    for (uint8_t x : b) {
        if ((x >> 4) > 9 || (x & 0x0F) > 9) return -1;
        v = v * 100 + (x >> 4) * 10 + (x & 0x0F);
    }
    return v;
}

std::string Named(uint8_t value, std::initializer_list<std::pair<uint8_t, const char *>> names) {
    for (const auto &[v, n] : names)
        if (v == value) return n;
    return "value " + Hex2(value);
}

}  // namespace

std::vector<std::string> ExplainTvr(ByteView tvr) {
    return ExplainBits(tvr, kTvrBits);
}
std::vector<std::string> ExplainTsi(ByteView tsi) {
    return ExplainBits(tsi, kTsiBits);
}
std::vector<std::string> ExplainAip(ByteView aip) {
    return ExplainBits(aip, kAipBits);
}

std::string CvmCodeName(uint8_t code) {
    switch (code & 0x3F) {
        case 0x00:
            return "Fail CVM processing";
        case 0x01:
            return "Plaintext PIN verified by the card";
        case 0x02:
            return "Enciphered PIN verified online";
        case 0x03:
            return "Plaintext PIN verified by the card and signature";
        case 0x04:
            return "Enciphered PIN verified by the card";
        case 0x05:
            return "Enciphered PIN verified by the card and signature";
        case 0x1E:
            return "Signature";
        case 0x1F:
            return "No CVM required";
        case 0x24:
            return "Confirmation code verified on the consumer's device";
        case 0x3F:
            return "No CVM performed";
        default:
            return "CVM " + Hex2(code & 0x3F) + " (not recognised)";
    }
}

std::vector<std::string> ExplainCvmResults(ByteView r) {
    if (r.size() != 3) return {"CVM Results have 3 bytes, these have " + std::to_string(r.size())};
    const char *result = r[2] == 0   ? "unknown"
                         : r[2] == 1 ? "failed"
                         : r[2] == 2 ? "successful"
                                     : "?";
    return {"CVM performed: " + CvmCodeName(r[0]),
            "condition: " + (r[0] == 0x3F ? std::string("none") : ConditionName(r[1])),
            std::string("result: ") + result};
}

std::vector<std::string> ExplainCvmList(ByteView list) {
    if (list.size() < 8) return {"shorter than the two amounts X and Y"};
    std::vector<std::string> out{"amount X " + std::to_string(Be32(list, 0)) + ", amount Y " +
                                 std::to_string(Be32(list, 4))};
    for (size_t i = 8; i + 1 < list.size(); i += 2)
        out.push_back(
            "rule " + Hex2(list[i]) + Hex2(list[i + 1]) + ": " + CvmCodeName(list[i]) + ", " +
            ConditionName(list[i + 1]) +
            ((list[i] & 0x40) ? ", next rule if unsuccessful" : ", fail if unsuccessful"));
    if (list.size() % 2 != 0) out.push_back("odd length: the last byte is not a whole rule");
    return out;
}

std::vector<std::string> ExplainAfl(ByteView afl) {
    std::vector<std::string> out;
    for (size_t i = 0; i + 3 < afl.size(); i += 4)
        out.push_back("SFI " + std::to_string(afl[i] >> 3) + ", records " +
                      std::to_string(afl[i + 1]) + " to " + std::to_string(afl[i + 2]) + ", " +
                      std::to_string(afl[i + 3]) + " for offline data authentication");
    if (afl.size() % 4 != 0) out.push_back("length not a multiple of 4");
    return out;
}

std::string ExplainCid(ByteView cid) {
    if (cid.empty()) return "empty";
    const uint8_t c = cid[0];
    std::string s = (c & 0xC0) == 0x00   ? "AAC (declined)"
                    : (c & 0xC0) == 0x40 ? "TC (approved offline)"
                    : (c & 0xC0) == 0x80 ? "ARQC (online authorisation requested)"
                                         : "type C0 (not allowed)";
    if (c & 0x08) s += ", advice required";
    switch (c & 0x07) {
        case 1:
            s += ", service not allowed";
            break;
        case 2:
            s += ", PIN try limit exceeded";
            break;
        case 3:
            s += ", issuer authentication failed";
            break;
        default:
            break;
    }
    return s;
}

std::optional<OutcomeParameters> ParseOutcomeParameters(ByteView ops) {
    if (ops.size() != 8) return std::nullopt;
    return OutcomeParameters{ops[0], ops[1], ops[2], ops[3], ops[4], ops[5], ops[6], ops[7]};
}

std::string OutcomeStatusName(uint8_t status) {
    return Named(status, {{0x00, "NONE (no outcome was set)"},
                          {0x10, "APPROVED"},
                          {0x20, "DECLINED"},
                          {0x30, "ONLINE REQUEST"},
                          {0x40, "END APPLICATION"},
                          {0x50, "SELECT NEXT"},
                          {0x60, "TRY ANOTHER INTERFACE"},
                          {0x70, "TRY AGAIN"},
                          {0xF0, "not applicable"}});
}

std::string StartName(uint8_t start) {
    return Named(start,
                 {{0x00, "A"}, {0x10, "B"}, {0x20, "C"}, {0x30, "D"}, {0xF0, "not applicable"}});
}

std::string OnlineResponseName(uint8_t value) {
    return Named(value, {{0x03, "online tap (the card is presented again with the response)"},
                         {0x04, "long tap (the card stays in the field for the response)"},
                         {0xF0, "not applicable"}});
}

std::string OutcomeCvmName(uint8_t cvm) {
    return Named(cvm, {{0x00, "no CVM"},
                       {0x10, "obtain signature"},
                       {0x20, "online PIN"},
                       {0x30, "confirmation code verified on the device"},
                       {0xF0, "not applicable"}});
}

std::vector<std::string> PresenceWords(uint8_t presence) {
    static constexpr std::pair<uint8_t, const char *> kBits[] = {{0x80, "UI request on outcome"},
                                                                 {0x40, "UI request on restart"},
                                                                 {0x20, "data record"},
                                                                 {0x10, "discretionary data"},
                                                                 {0x08, "receipt"}};
    std::vector<std::string> out;
    for (const auto &[mask, text] : kBits)
        if (presence & mask) out.push_back(text);
    return out;
}

std::string AlternateInterfaceName(uint8_t value) {
    return Named(value, {{0x00, "none"}, {0x01, "contact chip"}, {0xF0, "not applicable"}});
}

std::string FieldOffName(uint8_t value) {
    if (value == 0xFF) return "not applicable";
    return "field off, hold time " + std::to_string(value * 100) + " ms";
}

std::optional<UiRequest> ParseUiRequest(ByteView u) {
    if (u.size() != 22) return std::nullopt;
    UiRequest ui;
    ui.message = u[0];
    ui.status = u[1];
    ui.hold_time = static_cast<uint32_t>(u[2]) << 16 | static_cast<uint32_t>(u[3]) << 8 | u[4];
    // The card's language preference (5F2D): letters, unless the card says otherwise.
    for (size_t i = 5; i < 13 && u[i] != 0; ++i)
        ui.language += u[i] >= 0x20 && u[i] < 0x7F ? std::string(1, static_cast<char>(u[i]))
                                                   : "\\x" + Hex2(u[i]);
    ui.value_qualifier = u[13];
    ui.value.assign(u.begin() + 14, u.begin() + 20);
    ui.currency.assign(u.begin() + 20, u.begin() + 22);
    return ui;
}

std::string MessageName(uint8_t id) {
    return Named(id, {{0x00, "no message"},
                      {0x03, "Approved"},
                      {0x07, "Not authorised"},
                      {0x09, "Please enter your PIN"},
                      {0x0F, "Processing error"},
                      {0x10, "Remove card"},
                      {0x14, "Welcome"},
                      {0x15, "Present card"},
                      {0x16, "Processing"},
                      {0x17, "Card read OK, please remove card"},
                      {0x18, "Please insert or swipe card"},
                      {0x19, "Please present one card only"},
                      {0x1A, "Approved, please sign"},
                      {0x1B, "Authorising, please wait"},
                      {0x1C, "Insert, swipe or try another card"},
                      {0x1D, "Please insert card"},
                      {0x1E, "Clear display"},
                      {0x20, "See phone for instructions"},
                      {0x21, "Present card again"},
                      {0xB0, "Approved (after online authorisation)"}});
}

std::string UiStatusName(uint8_t s) {
    return Named(s, {{0x00, "Not ready"},
                     {0x01, "Idle"},
                     {0x02, "Ready to read"},
                     {0x03, "Processing"},
                     {0x04, "Card read successfully"},
                     {0x05, "Processing error"}});
}

std::string DescribeUiRequest(const UiRequest &ui) {
    std::string s = "\"" + MessageName(ui.message) + "\" (" + Hex2(ui.message) + "), status " +
                    UiStatusName(ui.status);
    if (ui.hold_time) s += ", hold " + std::to_string(ui.hold_time * 100) + " ms";
    if (!ui.language.empty()) s += ", language " + ui.language;
    if (ui.value_qualifier == 0x20) {
        const long ccy = BcdValue(ui.currency);
        s += ", balance " + FormatAmount(ui.value, 2) +
             (ccy > 0 ? " " + CurrencyName(static_cast<uint16_t>(ccy)) : "");
    }
    return s;
}

std::string KernelStatusText(uint32_t code) {
    struct Known {
        uint32_t code;
        const char *text;
    };
    static constexpr Known kKnown[] = {
        {0x00000, "success"},
        {0x30101, "stopped by the host (signal A1)"},
        {0x30102, "communication error (signal A6)"},
        {0x30103, "communication error (signal A5)"},
        {0x30104, "the host's reply to a callback was not well-formed"},
        {0x30105, "a response was longer than the kernel's buffer"},
        {0x30203, "the SELECT response did not end in 90 00"},
        {0x3020A, "the host gave no unpredictable number"},
        {0x3020C, "the host refused the application's parameters"},
        {0x31007, "the transaction input is too long"},
        {0x31008, "the kernel's memory block is too small"},
        {0x31009, "the kernel's memory block is misaligned"},
        {0x31101, "the host delivered no CA public key"},
        {0x33001, "the restart after an online request is not allowed or incomplete"},
        {0x33002, "the kernel capabilities (9F9301) are missing"},
        {0x33003, "the transaction input is not well-formed"},
        {0x35001, "the second GENERATE AC response is not a template 77"},
        {0x35002, "the second GENERATE AC response lacks a mandatory data object"},
    };
    struct Area {
        uint32_t prefix;
        const char *text;
    };
    static constexpr Area kAreas[] = {
        {0x301, "card exchange"},
        {0x302, "selection, FCI and record format"},
        {0x304, "GET PROCESSING OPTIONS and AFL"},
        {0x305, "READ RECORD"},
        {0x306, "mandatory data and application usage control"},
        {0x308, "exception file"},
        {0x310, "kernel database"},
        {0x311, "CA public key"},
        {0x312, "data for offline authentication"},
        {0x313, "issuer certificate"},
        {0x314, "ICC certificate"},
        {0x315, "dynamic signature, dates, random selection or CVM list"},
        {0x330, "transaction initialisation"},
        {0x350, "second GENERATE AC and issuer scripts"},
        {0x444, "dynamic signature verification"},
        {0x3FF, "the terminal host (velk-term) failed to answer a request"},
    };
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%05X", code);
    for (const Known &k : kKnown)
        if (k.code == code) return std::string(hex) + ": " + k.text;
    for (const Area &a : kAreas)
        if ((code >> 8) == a.prefix) return std::string(hex) + ": failure in " + a.text;
    return std::string(hex) + ": not a status this tool knows";
}

std::string TransactionTypeName(uint8_t type) {
    return Named(type, {{0x00, "purchase"},
                        {0x01, "cash"},
                        {0x09, "purchase with cashback"},
                        {0x20, "refund"},
                        {0x78, "data element retrieval"},
                        {0x79, "data element update"}});
}

std::span<const CurrencyInfo> Currencies() {
    static constexpr CurrencyInfo kCurrencies[] = {
        {36, "AUD", 2},  {48, "BHD", 3},  {124, "CAD", 2}, {156, "CNY", 2}, {203, "CZK", 2},
        {208, "DKK", 2}, {348, "HUF", 2}, {356, "INR", 2}, {392, "JPY", 0}, {410, "KRW", 0},
        {414, "KWD", 3}, {578, "NOK", 2}, {752, "SEK", 2}, {756, "CHF", 2}, {826, "GBP", 2},
        {840, "USD", 2}, {978, "EUR", 2}, {985, "PLN", 2}};
    return kCurrencies;
}

std::string CurrencyName(uint16_t numeric) {
    for (const CurrencyInfo &c : Currencies())
        if (c.numeric == numeric) return c.code;
    return "";
}

std::string FormatAmount(ByteView bcd, int exponent) {
    std::string digits = Digits(bcd);
    for (char c : digits)
        if (c < '0' || c > '9') return velk::host::ToHex(bcd) + " (not BCD)";
    const size_t first = digits.find_first_not_of('0');
    digits = first == std::string::npos ? "0" : digits.substr(first);
    if (exponent <= 0) return digits;
    const size_t e = static_cast<size_t>(exponent);
    if (digits.size() <= e) digits.insert(0, e + 1 - digits.size(), '0');
    return digits.substr(0, digits.size() - e) + "." + digits.substr(digits.size() - e);
}

std::string ShowValue(uint32_t tag, ByteView value) {
    const TagInfo *info = FindTag(tag);
    const TagFormat format = info ? info->format : TagFormat::kBinary;
    switch (format) {
        case TagFormat::kNumeric:
            return Digits(value);
        case TagFormat::kCompressed: {
            const std::string d = Digits(value);
            return d.substr(0, d.find('F'));
        }
        case TagFormat::kText:
            if (Printable(value)) return "\"" + std::string(value.begin(), value.end()) + "\"";
            break;
        case TagFormat::kBinary:
            break;
    }
    return velk::host::ToHex(value);
}

std::vector<std::string> ExplainValue(uint32_t tag, ByteView value) {
    switch (tag) {
        case 0x95:
            return ExplainTvr(value);
        case 0x9B:
            return ExplainTsi(value);
        case 0x82:
        case 0x9F9233:
            return ExplainAip(value);
        case 0x9F34:
            return ExplainCvmResults(value);
        case 0x8E:
            return ExplainCvmList(value);
        case 0x94:
            return ExplainAfl(value);
        case 0x9F27:
            return {ExplainCid(value)};
        case 0x9C:
            return value.size() == 1 ? std::vector<std::string>{TransactionTypeName(value[0])}
                                     : std::vector<std::string>{};
        case 0x5F2A:
        case 0x9F42:
        case 0xCD:
            if (const long n = value.size() == 2 ? BcdValue(value) : -1; n > 0) {
                const std::string name = CurrencyName(static_cast<uint16_t>(n));
                if (!name.empty()) return {name};
            }
            return {};
        case 0x8A: {
            const std::string arc(value.begin(), value.end());
            if (arc == "00") return {"approved by the issuer"};
            if (arc == "Y1") return {"approved offline"};
            if (arc == "Z1") return {"declined offline"};
            if (arc == "Y3") return {"approved, unable to go online"};
            if (arc == "Z3") return {"declined, unable to go online"};
            return {"declined by the issuer"};
        }
        case 0xDF8129: {
            const auto ops = ParseOutcomeParameters(value);
            if (!ops) return {"an Outcome Parameter Set has 8 bytes"};
            std::string presence;
            for (const std::string &w : PresenceWords(ops->presence))
                presence += (presence.empty() ? "" : ", ") + w;
            return {"status " + OutcomeStatusName(ops->status),
                    "start " + StartName(ops->start),
                    "online response data: " + OnlineResponseName(ops->online_response),
                    "CVM: " + OutcomeCvmName(ops->cvm),
                    "present: " + (presence.empty() ? "nothing" : presence),
                    "alternate interface: " + AlternateInterfaceName(ops->alternate_interface),
                    "field off request: " + FieldOffName(ops->field_off),
                    "removal time-out: " + std::to_string(ops->removal_timeout)};
        }
        case 0xDF8116:
        case 0x9F8117: {
            const auto ui = ParseUiRequest(value);
            if (!ui) return {"User Interface Request Data have 22 bytes"};
            return {DescribeUiRequest(*ui)};
        }
        case 0x9F71: {
            // The card's data elements, as the GDDOL asked for them.
            std::vector<std::string> out;
            try {
                for (const auto &n : velk::card::ParseTlvData(value))
                    out.push_back(TagHex(n.tag) + " " + TagName(n.tag) + ": " +
                                  ShowValue(n.tag, n.value));
            } catch (const std::invalid_argument &) {
                out.assign(1, "not TLV");
            }
            return out;
        }
        case 0x9F74:
            if (value.size() == 2)
                return {std::string(value[0] == 2   ? "updates succeeded"
                                    : value[0] == 1 ? "an update failed"
                                                    : "no result") +
                        ", " + std::to_string(value[1]) + " data element(s) updated"};
            return {};
        default:
            return {};
    }
}

namespace {

// Iterative, so that the printer's stack does not grow with the data.
void DecodeInto(const std::vector<velk::host::TlvNode> &nodes, int indent,
                std::vector<std::string> &out) {
    using It = std::vector<velk::host::TlvNode>::const_iterator;
    std::vector<std::pair<It, It>> stack{{nodes.begin(), nodes.end()}};
    while (!stack.empty()) {
        auto &[it, end] = stack.back();
        if (it == end) {
            stack.pop_back();
            continue;
        }
        const velk::host::TlvNode &n = *it++;
        const std::string pad(static_cast<size_t>(indent) * 2 + (stack.size() - 1) * 2, ' ');
        const std::string head = pad + TagHex(n.tag) + " " + TagName(n.tag);
        if (velk::host::IsConstructed(n.tag)) {
            out.push_back(head);
            stack.emplace_back(n.children.begin(), n.children.end());
            continue;
        }
        out.push_back(head + ": " + ShowValue(n.tag, n.value));
        for (const std::string &e : ExplainValue(n.tag, n.value))
            out.push_back(pad + "    - " + e);
    }
}

nlohmann::ordered_json NodesJson(const std::vector<velk::host::TlvNode> &nodes) {
    auto arr = nlohmann::ordered_json::array();
    for (const auto &n : nodes) {
        nlohmann::ordered_json j;
        j["tag"] = TagHex(n.tag);
        j["name"] = TagName(n.tag);
        if (velk::host::IsConstructed(n.tag)) {
            j["children"] = NodesJson(n.children);
        } else {
            j["value"] = velk::host::ToHex(n.value);
            const std::string shown = ShowValue(n.tag, n.value);
            if (shown != velk::host::ToHex(n.value)) j["text"] = shown;
            const auto ex = ExplainValue(n.tag, n.value);
            if (!ex.empty()) j["explain"] = ex;
        }
        arr.push_back(std::move(j));
    }
    return arr;
}

}  // namespace

std::vector<std::string> DecodeLines(ByteView data, int indent) {
    std::vector<std::string> out;
    try {
        DecodeInto(velk::card::ParseTlvData(data), indent, out);
    } catch (const std::invalid_argument &e) {
        out.assign(1, std::string(static_cast<size_t>(indent) * 2, ' ') + "not TLV (" + e.what() +
                          "): " + velk::host::ToHex(data));
    }
    return out;
}

nlohmann::ordered_json DecodeJson(ByteView data) {
    try {
        return NodesJson(velk::card::ParseTlvData(data));
    } catch (const std::invalid_argument &e) {
        return {{"error", std::string("not TLV: ") + e.what()}, {"hex", velk::host::ToHex(data)}};
    }
}

}  // namespace velk::term
