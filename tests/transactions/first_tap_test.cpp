// Whole first taps: GPO, READ RECORD, restrictions, cardholder verification,
// risk management, action analysis, GENERATE AC, balance and de-activation,
// against a scripted card, byte for byte.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "first_tap.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

TEST(FirstTap, StandardTapIsApprovedOffline) {
    ScriptedHost host;
    FirstTap tap;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), "10F0F0F0A0F0FF00");
    ASSERT_EQ(host.capdus.size(), 4u);
    EXPECT_EQ(ToHex(host.capdus[0]), "80A800000E830C0000000001000978112233440" "0");
    EXPECT_EQ(ToHex(host.capdus[1]), "00B2010C00");
    EXPECT_EQ(ToHex(host.capdus[2]), "00B2020C00");
    EXPECT_EQ(ToHex(host.capdus[3]),
              "80AE40001D" "000000000100" "000000000000" "0978" "8000000000" "0978" "250101"
              "00" "11223344" "00");
    for (uint32_t s : r.steps) std::cout << std::hex << s << " ";
    std::cout << std::endl;
}

}  // namespace
}  // namespace velk::test
