// Terminal action analysis: the action codes, the terminal type and CDA.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"

namespace velk::test {
namespace {

TEST(ActionCodes, AnyTvrBitInEitherCodeMatches) {
    const uint8_t tvr[5] = {0x00, 0x00, 0x00, 0x80, 0x00};
    const uint8_t none[5] = {};
    const uint8_t other[5] = {0xFF, 0xFF, 0xFF, 0x7F, 0xFF};
    const uint8_t hit[5] = {0x00, 0x00, 0x00, 0x80, 0x00};
    EXPECT_EQ(VelkCless_TAC_IAC_TVR(tvr, none, none), 0);
    EXPECT_EQ(VelkCless_TAC_IAC_TVR(tvr, other, other), 0);
    EXPECT_EQ(VelkCless_TAC_IAC_TVR(tvr, hit, none), 1);
    EXPECT_EQ(VelkCless_TAC_IAC_TVR(tvr, none, hit), 1);
    EXPECT_EQ(VelkCless_TAC_IAC_TVR(none, other, other), 0);
}

struct TaaCase : NamedCase {
    const char *terminalType;  // nullptr: absent
    const char *tvr;
    const char *iacDenial, *iacOnline, *iacDefault;  // nullptr: absent
    const char *tacDenial, *tacOnline, *tacDefault;
    uint8_t expected;  // 0xEE: left as it was
};

class Taa : public KernelTest, public ::testing::WithParamInterface<TaaCase> {};

TEST_P(Taa, CryptogramRequested) {
    const TaaCase &c = GetParam();
    if (c.terminalType != nullptr) Put(0x9F35, c.terminalType);
    const host::Bytes tvr = host::FromHex(c.tvr);
    std::copy(tvr.begin(), tvr.end(), pgbVelkGlobalValue->ucTVR);
    const std::pair<uint32_t, const char *> codes[] = {
        {0x9F0E, c.iacDenial},   {0x9F0F, c.iacOnline},   {0x9F0D, c.iacDefault},
        {0x9F8246, c.tacDenial}, {0x9F8247, c.tacOnline}, {0x9F8245, c.tacDefault}};
    for (const auto &[tag, value] : codes)
        if (value != nullptr) Put(tag, value);
    VelkCless_Set_Terminal_Action_Analysis_Result(0xEE);
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x2100u);
    EXPECT_EQ(VelkCless_Get_Terminal_Action_Analysis_Result(), c.expected);
}

constexpr const char *kNone = nullptr;
const char kClean[] = "0000000000";
const char kFloor[] = "0000008000";

INSTANTIATE_TEST_SUITE_P(
    TerminalTypes, Taa,
    ::testing::Values(
        TaaCase{"OfflineOnlineCleanTc", "22", kClean, kNone, kNone, kNone, kNone, kNone, kNone,
                0x40},
        TaaCase{"OfflineOnlineIacOnlineDefaultArqc", "22", kFloor, kNone, kNone, kNone, kNone,
                kNone, kNone, 0x80},
        TaaCase{"OfflineOnlineIacOnlineClearTc", "25", kFloor, kNone, "0000000000", kNone, kNone,
                kNone, kNone, 0x40},
        TaaCase{"OfflineOnlineTacOnlineArqc", "25", kFloor, kNone, "0000000000", kNone, kNone,
                "0000008000", kNone, 0x80},
        TaaCase{"OnlineOnlyArqc", "21", kClean, kNone, kNone, kNone, kNone, kNone, kNone, 0x80},
        TaaCase{"OnlineOnlyUnattendedArqc", "14", kClean, kNone, kNone, kNone, kNone, kNone, kNone,
                0x80},
        TaaCase{"OfflineOnlyDefaultAac", "26", kFloor, kNone, kNone, kNone, kNone, kNone, kNone,
                0x00},
        TaaCase{"OfflineOnlyDefaultClearTc", "23", kFloor, kNone, kNone, "0000000000", kNone, kNone,
                kNone, 0x40},
        TaaCase{"OfflineOnlyTacDefaultAac", "23", kFloor, kNone, kNone, "0000000000", kNone, kNone,
                "0000008000", 0x00},
        TaaCase{"DenialByIac", "21", kFloor, "0000008000", kNone, kNone, kNone, kNone, kNone, 0x00},
        TaaCase{"DenialByTac", "22", kFloor, kNone, kNone, kNone, "0000008000", kNone, kNone, 0x00},
        TaaCase{"OtherNibbleUnchanged", "27", kFloor, kNone, kNone, kNone, kNone, kNone, kNone,
                0xEE},
        TaaCase{"NibbleZeroUnchanged", "20", kClean, kNone, kNone, kNone, kNone, kNone, kNone,
                0xEE},
        TaaCase{"AbsentTypeUnchanged", kNone, kClean, kNone, kNone, kNone, kNone, kNone, kNone,
                0xEE},
        TaaCase{"DenialWinsOverType", "27", kFloor, kNone, kNone, kNone, "0000008000", kNone, kNone,
                0x00}),
    CaseName());

class TaaCda : public KernelTest {
protected:
    void SetUp() override {
        VelkCless_Set_Offline_CAM_Selected_Indicator(2);
        VelkCless_Set_CDA_Signature_Requested(0);
    }
};

TEST_F(TaaCda, RequestedWithATc) {
    Put(0x9F35, "22");
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_Get_Terminal_Action_Analysis_Result(), 0x40);
    EXPECT_EQ(VelkCless_Get_CDA_Signature_Requested(), 1);
}

TEST_F(TaaCda, NotRequestedWithAnArqcUnlessTheProcessingIndicatorsAsk) {
    Put(0x9F35, "21");
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_Get_CDA_Signature_Requested(), 0);
    pgbVelkGlobalValue->ucTTPI[1] = 0x04;
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_Get_CDA_Signature_Requested(), 1);
}

TEST_F(TaaCda, NotRequestedWithoutCdaSelected) {
    VelkCless_Set_Offline_CAM_Selected_Indicator(3);
    Put(0x9F35, "22");
    pgbVelkGlobalValue->ucTTPI[1] = 0x04;
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_Get_CDA_Signature_Requested(), 0);
}

TEST_F(TaaCda, RefundAsksAacAndDropsCda) {
    VelkCless_Set_TransactionType(0x20);
    Put(0x9F35, "22");
    pgbVelkGlobalValue->ucTTPI[1] = 0x04;
    VelkCless_Set_Terminal_Action_Analysis_Result(0x40);
    EXPECT_EQ(VelkCless_Terminal_Action_Analysis(), 0u);
    EXPECT_EQ(VelkCless_Get_Terminal_Action_Analysis_Result(), 0x00);
    EXPECT_EQ(VelkCless_Get_Offline_CAM_Selected_Indicator(), 0);
    EXPECT_EQ(Db(0x9F9306), "00");
    EXPECT_EQ(VelkCless_Get_CDA_Signature_Requested(), 0);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x2100u);
}

}  // namespace
}  // namespace velk::test
