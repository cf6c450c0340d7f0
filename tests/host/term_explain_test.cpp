// SPDX-License-Identifier: Apache-2.0
// What the command line cannot reach of velk-term's words on bytes (decode
// and tvr are rows of tests/cli/cases.txt): kernel statuses by code or area,
// amounts by exponent, and the tag dictionary itself.
#include <gtest/gtest.h>

#include <set>

#include "velk/card/json_profile.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/explain.hpp"
#include "velk/term/tags.hpp"

namespace velk::term {
namespace {

using velk::host::FromHex;

TEST(Explain, KernelStatusesAndAmounts) {
    const std::pair<uint32_t, const char *> statuses[] = {
        {0, "0x00000: success"},
        {0x31314, "0x31314: failure in issuer certificate"},
        {0x3FF02, "0x3FF02: failure in the terminal host (velk-term) failed to answer a request"},
        {0x12345, "0x12345: not a status this tool knows"}};
    for (const auto &[code, text] : statuses)
        EXPECT_EQ(KernelStatusText(code), text);
    const std::tuple<const char *, int, const char *> amounts[] = {
        {"000000002500", 2, "25.00"},
        {"000000000005", 2, "0.05"},
        {"000000000000", 0, "0"},
        {"0000000A0000", 2, "0000000A0000 (not BCD)"}};
    for (const auto &[bcd, exponent, text] : amounts)
        EXPECT_EQ(FormatAmount(FromHex(bcd), exponent), text);
}

TEST(TagDictionary, EachTagOnceAndEveryTagOfTheOutcomeNamed) {
    std::set<uint32_t> seen;
    for (uint32_t tag :
         {0xDF8129u, 0xDF8116u, 0x9F8117u, 0xFF8105u, 0xFF8106u, 0x9F8211u, 0x95u, 0x9F27u})
        EXPECT_NE(FindTag(tag), nullptr) << TagHex(tag);
    EXPECT_EQ(TagName(0xDF7F), "unknown tag");
    for (const TagInfo &t : AllTags()) {
        EXPECT_TRUE(seen.insert(t.tag).second) << TagHex(t.tag) << " twice";
        EXPECT_TRUE(velk::card::ParseTagText(TagHex(t.tag)))
            << TagHex(t.tag) << " is not a BER tag";
    }
}

}  // namespace
}  // namespace velk::term
