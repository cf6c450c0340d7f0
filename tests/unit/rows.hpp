// SPDX-License-Identifier: Apache-2.0
// Rule checks as rows of data. A .data file holds one case per block:
//
//   # comment
//   A name for the case
//   driver:arg:arg:...
//
// with a blank line between blocks; the rows of a block run in turn on one
// kernel bound afresh for the block. Arguments are hex ("9F 02 06", "AA*200"
// for 200 bytes of AA, "??*N" in an expected value for N bytes unchecked),
// numbers in hex, or kernel state ("9F34=3F0001, tvr=0000800000, 8E=-", see
// state.hpp). Drivers register under their name with VELK_DRIVER and compare
// with Row::Eq or Row::Matches; a mismatch prints
// "file:line: name: what: expected X, got Y".
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::test {

using host::Bytes;

struct Row {
    std::string file, name;
    int line = 0;
    std::vector<std::string> args;
    int failures = 0;

    const std::string &Arg(size_t i) const {
        static const std::string none;
        return i < args.size() ? args[i] : none;
    }
    // Hex with XX*N repetitions (the repeated part may be several bytes).
    Bytes Hex(size_t i) const { return ParseHex(Arg(i)); }
    uint32_t U(size_t i) const { return static_cast<uint32_t>(std::stoul(Arg(i), nullptr, 16)); }
    static Bytes ParseHex(std::string_view s) {
        std::string digits;
        for (size_t pos = 0; pos < s.size();) {
            const size_t end = std::min(s.find_first_of(" \t", pos), s.size());
            const std::string_view word = s.substr(pos, end - pos);
            const size_t star = word.find('*');
            if (star == std::string_view::npos) {
                digits += word;
            } else {
                for (unsigned long n = std::stoul(std::string(word.substr(star + 1)), nullptr, 10);
                     n > 0; --n)
                    digits += word.substr(0, star);
            }
            pos = end + 1;
        }
        return host::FromHex(digits);
    }
    // Compares bytes with expected hex in which "??*N" leaves N bytes
    // unchecked (and ends the comparison when last).
    // Compares got's first bytes with want; exact: got may not be longer.
    bool Matches(std::string_view what, std::string_view want, const Bytes &got,
                 bool exact = false) {
        std::string w, seen;
        size_t at = 0;
        for (size_t pos = 0; pos < want.size();) {
            const size_t end = std::min(want.find(' ', pos), want.size());
            const std::string_view word = want.substr(pos, end - pos);
            pos = end + 1;
            if (word.starts_with("??*")) {
                at += std::stoul(std::string(word.substr(3)));
                continue;
            }
            const Bytes part = ParseHex(word);
            w += host::ToHex(part);
            for (size_t k = 0; k < part.size(); ++k, ++at)
                seen += at < got.size() ? host::ToHex(Bytes{got[at]}) : "--";
        }
        for (; exact && at < got.size(); ++at)
            seen += host::ToHex(Bytes{got[at]});
        return Eq(what, w, seen);
    }
    bool Eq(std::string_view what, const std::string &want, const std::string &got) {
        if (want == got) return true;
        std::printf("%s:%d: %s: %.*s: expected %s, got %s\n", file.c_str(), line, name.c_str(),
                    static_cast<int>(what.size()), what.data(), want.c_str(), got.c_str());
        ++failures;
        return false;
    }
    bool Eq(std::string_view what, const Bytes &want, const Bytes &got) {
        return Eq(what, host::ToHex(want), host::ToHex(got));
    }
    bool Eq(std::string_view what, uint64_t want, uint64_t got) {
        char w[24], g[24];
        std::snprintf(w, sizeof w, "%llX", static_cast<unsigned long long>(want));
        std::snprintf(g, sizeof g, "%llX", static_cast<unsigned long long>(got));
        return Eq(what, std::string(w), std::string(g));
    }
};

using Driver = void (*)(Row &);
std::map<std::string, Driver> &Drivers();

struct DriverRegistration {
    DriverRegistration(const char *name, Driver d) { Drivers()[name] = d; }
};

}  // namespace velk::test

#define VELK_DRIVER(name)                                                                     \
    static void name(::velk::test::Row &);                                                    \
    [[maybe_unused]] static const ::velk::test::DriverRegistration name##_registration{#name, \
                                                                                       name}; \
    static void name([[maybe_unused]] ::velk::test::Row &row)
