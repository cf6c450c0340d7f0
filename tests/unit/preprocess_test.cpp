// Pre-processing's limits, one rule at a time: every limit is "at or above",
// the floor limit falls back to 9F1B, 9F8222 only forbids the zero-amount
// flag when present with 00, and the unit of currency follows 5F36.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "baseKernel.h"
#include "kernel_fixture.hpp"
#include "scripted_host.hpp"
#include "tlv.h"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using velk::host::Bytes;
using velk::host::FromHex;

struct Case {
    const char *name;
    std::vector<std::pair<uint32_t, std::string>> dtp;       // dynamic transaction parameters
    std::vector<std::pair<uint32_t, std::string>> database;  // the reader's data
    uint8_t indicators;
};
void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

class PreProcessing : public KernelTest, public ::testing::WithParamInterface<Case> {};

TEST_P(PreProcessing, SetsItsIndicatorsAndHandsOverToTransactionInitialisation) {
    const Case &c = GetParam();
    VELK_GLOBALVALUE_STRUCT &g = kernel_.g();
    uint8_t *dtp = g.ucDynamicTransactionParameters;
    g.uiDynamicTransactionParametersLen = TLV_New(dtp, 0x7F01, nullptr, 0);
    for (const auto &[tag, hex] : c.dtp) {
        const Bytes v = FromHex(hex);
        g.uiDynamicTransactionParametersLen =
            TLV_AddTag(dtp, tag, v.data(), static_cast<uint32_t>(v.size()));
    }
    for (const auto &[tag, hex] : c.database) {
        const Bytes v = FromHex(hex);
        ASSERT_EQ(VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(v.size()), v.data()), 0u);
    }
    EXPECT_EQ(VelkCless_PreProcess(), 0u);
    EXPECT_EQ(g.Contactless_Pre_Processing_Indicators, c.indicators);
    EXPECT_EQ(g.Transaction_Step, 0x1100u);
}

const std::string k100 = "000000000100";

INSTANTIATE_TEST_SUITE_P(
    Rules, PreProcessing,
    ::testing::Values(
        Case{"AnOnlineResponseSkipsEverything", {{0x8A, "3030"}}, {{0x9F8208, ""}}, 0x00},
        // No amount: zero; an empty transaction limit converts to 0 and 0 >= 0.
        Case{
            "NoAmountIsZero", {}, {{0x9F8208, ""}, {0x9F8209, "000000000000"}}, 0x40 | 0x08 | 0x20},
        Case{"ZeroAllowedUnless9F8222Is00", {{0x9F02, "000000000000"}}, {{0x9F8222, "00"}}, 0x00},
        Case{"ZeroWith9F8222Set", {{0x9F02, "000000000000"}}, {{0x9F8222, "01"}}, 0x40},
        Case{"ZeroWithEmpty9F8222", {{0x9F02, "000000000000"}}, {{0x9F8222, ""}}, 0x40},
        Case{"AtTheCvmLimit", {{0x9F02, k100}}, {{0x9F8209, k100}}, 0x20},
        Case{"OneUnitBelowTheCvmLimit", {{0x9F02, "000000000099"}}, {{0x9F8209, k100}}, 0x00},
        Case{"EmptyCvmLimitIsNoLimit", {{0x9F02, k100}}, {{0x9F8209, ""}}, 0x00},
        Case{"AtTheTransactionLimit", {{0x9F02, k100}}, {{0x9F8208, k100}}, 0x08},
        Case{"AtTheFloorLimit", {{0x9F02, k100}}, {{0x9F820A, k100}}, 0x10},
        Case{"FloorLimitFrom9F1B", {{0x9F02, "000000010000"}}, {{0x9F1B, "00002710"}}, 0x10},
        Case{
            "BelowTheFloorLimitFrom9F1B", {{0x9F02, "000000009999"}}, {{0x9F1B, "00002710"}}, 0x00},
        Case{"EmptyFloorLimitFallsBackTo9F1B",
             {{0x9F02, "000000010000"}},
             {{0x9F820A, ""}, {0x9F1B, "00002710"}},
             0x10},
        Case{"A9F820AWinsOver9F1B",
             {{0x9F02, k100}},
             {{0x9F820A, "000000000200"}, {0x9F1B, "00000001"}},
             0x00},
        Case{"AShort9F1BIsReadWithZerosBehind",
             {{0x9F02, "000100000000"}},
             {{0x9F1B, "2710"}},
             0x00},
        Case{"NoFloorLimitAtAll", {{0x9F02, "999999999999"}}, {}, 0x00},
        Case{"StatusCheckOnOneUnit", {{0x9F02, k100}}, {{0x9F8221, "01"}, {0x5F36, "02"}}, 0x80},
        Case{"StatusCheckOffOnOneUnit", {{0x9F02, k100}}, {{0x9F8221, "00"}, {0x5F36, "02"}}, 0x00},
        Case{"OneUnitWithoutAnExponentIsOne", {{0x9F02, "000000000001"}}, {{0x9F8221, "01"}}, 0x80},
        Case{"AmountsAreUnsigned", {{0x9F02, "004294967295"}}, {{0x9F8208, "004294967294"}}, 0x08}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(KernelTest, TheUnitOfCurrencyIsTenToTheExponent) {
    EXPECT_EQ(VelkCless_Get_A_Single_Unit_of_Currency_Amount(), 1u);
    for (const auto &[exponent, unit] :
         std::vector<std::pair<uint8_t, uint32_t>>{{0, 1}, {2, 100}, {3, 1000}}) {
        ASSERT_EQ(VelkDataBase_Set_TAG(0x5F36, 1, &exponent), 0u);
        EXPECT_EQ(VelkCless_Get_A_Single_Unit_of_Currency_Amount(), unit);
    }
}

// ---- Accessors with behaviour ---------------------------------------------------------

TEST_F(KernelTest, TheDatabasesEchoSettingWinsOverTheField) {
    VelkCless_Set_ECHO_Command_supported(1);
    VelkDataBase_Init();
    EXPECT_EQ(VelkCless_Get_ECHO_Command_supported(), 1);
    const uint8_t off = 0;
    ASSERT_EQ(VelkDataBase_Set_TAG(0x9F9304, 1, &off), 0u);
    EXPECT_EQ(VelkCless_Get_ECHO_Command_supported(), 0);
    EXPECT_EQ(kernel_.g().ECHO_Command_supported, 1);
}

TEST_F(KernelTest, TheOfflineMethodTravelsAs9F9306) {
    VelkCless_Set_Offline_CAM_Selected_Indicator(3);
    EXPECT_EQ(DbHex(0x9F9306), "03");
    EXPECT_EQ(VelkCless_Get_Offline_CAM_Selected_Indicator(), 3);
}

}  // namespace
}  // namespace velk::test
