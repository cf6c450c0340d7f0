// SPDX-License-Identifier: Apache-2.0
#include "velk/term/options.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include "velk/card/json_profile.hpp"
#include "velk/term/explain.hpp"

namespace velk::term {

namespace {

// A two-digit field of a date or time and the values it may take.
struct FieldRange {
    const char *name;
    int low, high;
};

// The three two-digit fields of "AABBCC".
std::array<int, 3> ThreeFields(const std::string &text, const char *what, const char *format) {
    const bool digits = text.size() == 6 && std::all_of(text.begin(), text.end(), [](char c) {
                            return std::isdigit(static_cast<unsigned char>(c)) != 0;
                        });
    if (!digits)
        throw std::invalid_argument(std::string(what) + " '" + text + "': expected " + format +
                                    " (6 digits)");
    return {std::stoi(text.substr(0, 2)), std::stoi(text.substr(2, 2)),
            std::stoi(text.substr(4, 2))};
}

void CheckRange(const std::string &text, const char *what, const FieldRange &f, int value) {
    if (value < f.low || value > f.high)
        throw std::invalid_argument(std::string(what) + " '" + text + "': " + f.name + " " +
                                    std::to_string(value) + " is not " + std::to_string(f.low) +
                                    " to " + std::to_string(f.high));
}

// A number below 10000 as 2 bytes of BCD (5F2A).
Bytes Bcd4(int n) {
    return {static_cast<uint8_t>((n / 1000 % 10) << 4 | n / 100 % 10),
            static_cast<uint8_t>((n / 10 % 10) << 4 | n % 10)};
}

}  // namespace

Bytes ParseDate(const std::string &text) {
    const auto [yy, mm, dd] = ThreeFields(text, "date", "YYMMDD");
    CheckRange(text, "date", {"month", 1, 12}, mm);
    static constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    // Years 00 to 99 are 2000 to 2099, where every fourth year is a leap year.
    const int days = mm == 2 && yy % 4 != 0 ? 28 : kDays[mm - 1];
    CheckRange(text, "date", {"day", 1, days}, dd);
    return velk::host::FromHex(text);
}

Bytes ParseTime(const std::string &text) {
    const auto [hh, mm, ss] = ThreeFields(text, "time", "HHMMSS");
    CheckRange(text, "time", {"hour", 0, 23}, hh);
    CheckRange(text, "time", {"minute", 0, 59}, mm);
    CheckRange(text, "time", {"second", 0, 59}, ss);
    return velk::host::FromHex(text);
}

uint64_t ParseSeed(const std::string &text) {
    const bool digits = !text.empty() && text.size() <= 20 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || (text.size() == 20 && text > "18446744073709551615"))
        throw std::invalid_argument("seed '" + text +
                                    "': expected a whole number from 0 to 18446744073709551615");
    return std::stoull(text);
}

Currency ParseCurrency(const std::string &text) {
    std::string upper = text;
    for (char &c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const bool digits =
        !text.empty() && text.size() <= 4 && std::all_of(text.begin(), text.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c)) != 0;
        });
    std::string known;
    for (const CurrencyInfo &c : Currencies()) {
        if (digits ? std::stoi(text) == c.numeric : upper == c.code) {
            return {Bcd4(c.numeric), c.exponent};
        }
        known += std::string(known.empty() ? "" : " ") + c.code;
    }
    // Any ISO 4217 number is taken; the terminal keeps its exponent.
    if (digits && std::stoi(text) > 0 && std::stoi(text) <= 999) return {Bcd4(std::stoi(text)), -1};
    throw std::invalid_argument("currency '" + text +
                                "': expected an ISO 4217 number (978) or one of " + known);
}

TerminalSetting ParseSetting(const std::string &text) {
    const size_t eq = text.find('=');
    const auto bad = [&](const std::string &why) {
        return std::invalid_argument("setting '" + text + "': " + why);
    };
    if (eq == std::string::npos) throw bad("expected TAG=HEX, e.g. 9F1A=0250");
    const auto tag = velk::card::ParseTagText(text.substr(0, eq));
    if (!tag) throw bad("'" + text.substr(0, eq) + "' is not a tag in hex");
    // Data of the transaction itself, which has options of its own.
    static constexpr std::pair<uint32_t, const char *> kTransactionData[] = {
        {0x9F02, "--amount"}, {0x9F03, "--other-amount"}, {0x9C, "--type"},
        {0x9A, "--date"},     {0x9F21, "--time"},         {0x5F2A, "--currency"}};
    for (const auto &[t, option] : kTransactionData)
        if (t == *tag) throw bad(std::string("transaction data: use ") + option);
    TerminalSetting s{*tag, {}};
    try {
        s.value = velk::host::FromHex(text.substr(eq + 1));
    } catch (const std::invalid_argument &e) {
        throw bad(e.what());
    }
    if (s.tag == 0x5F36 && (s.value.size() != 1 || s.value[0] > 3))
        throw bad("the currency exponent is one byte, 00 to 03");
    if (velk::host::IsConstructed(s.tag)) {
        try {
            (void)velk::host::ParseTlv(s.value, false);
        } catch (const std::invalid_argument &e) {
            throw bad("the value of a constructed tag is TLV data: " + std::string(e.what()));
        }
    }
    return s;
}

}  // namespace velk::term
