// SPDX-License-Identifier: Apache-2.0
// Values a user types (on the command line or in a scenario) checked as a
// terminal's own set-up tools check them: real calendar dates and times,
// currencies by ISO 4217 code or number, and terminal settings TAG=HEX.
// Each throws std::invalid_argument with a message that names the value.
#pragma once

#include <cstdint>
#include <string>

#include "velk/host/tlv.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;

// The date and time of runs that must repeat exactly (scenarios, --seed).
inline constexpr const char *kFixedDate = "250615";
inline constexpr const char *kFixedTime = "120000";

// YYMMDD of a day that exists (20YY), as the 3 BCD bytes of 9A.
Bytes ParseDate(const std::string &text);
// HHMMSS of a time of day, as the 3 BCD bytes of 9F21.
Bytes ParseTime(const std::string &text);

// A whole number from 0 to 2^64 - 1.
uint64_t ParseSeed(const std::string &text);

// A currency by its ISO 4217 alphabetic code ("EUR") or number ("978").
struct Currency {
    Bytes numeric;      // 2 BCD bytes, as 5F2A
    int exponent = -1;  // the minor unit's digits; -1 when unknown
};
Currency ParseCurrency(const std::string &text);

// "9F1A=0250": a data object of the terminal's set-up for one run.
struct TerminalSetting {
    uint32_t tag = 0;
    Bytes value;
};
TerminalSetting ParseSetting(const std::string &text);

}  // namespace velk::term
