// Terminal risk management: exception file, random selection, velocity.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"
#include "step_host.hpp"

namespace velk::test {
namespace {

class Trm : public KernelTest {
protected:
    VELK_GLOBALVALUE_STRUCT &g() { return kernel_.g(); }
    StepHost host_;
};

// Random selection: P = 9F8243, M = 9F8242, T = 9F8244 (BCD), F = 9F1B.
struct RandomCase : NamedCase {
    const char *target;
    const char *maxTarget;
    const char *threshold;
    const char *floor;
    const char *amount;
    uint8_t random;  // R = random mod 99 + 1
    uint32_t result;
    bool selected;
};

class RandomSelection : public Trm, public ::testing::WithParamInterface<RandomCase> {};

TEST_P(RandomSelection, Arithmetic) {
    const RandomCase &c = GetParam();
    Put(0x9F8243, c.target);
    Put(0x9F8242, c.maxTarget);
    Put(0x9F8244, c.threshold);
    Put(0x9F1B, c.floor);
    Put(0x9F02, c.amount);
    host_.random = c.random;
    EXPECT_EQ(VelkCless_Random_Transaction_Select(), c.result);
    EXPECT_EQ(g().ucTVR[3], c.selected ? 0x10 : 0x00);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RandomSelection,
    ::testing::Values(
        // under the threshold: selected when P >= R
        RandomCase{"P99Accepted", "99", "99", "000000001000", "000007D0", "000000000500", 97, 0,
                   true},  // R = 98
        RandomCase{"UnderThresholdNotSelected", "10", "50", "000000001000", "000007D0",
                   "000000000500", 10, 0, false},  // R = 11 > 10
        RandomCase{"UnderThresholdSelected", "10", "50", "000000001000", "000007D0", "000000000500",
                   9, 0, true},  // R = 10
        RandomCase{"RandomByteWraps", "60", "60", "000000001000", "000007D0", "000000000500", 0xFF,
                   0, true},  // 255 mod 99 + 1 = 58
        // between threshold and floor: Q = P + (M-P)(A-T)/(F-T) = 10 + 40*500/1000 = 30
        RandomCase{"InterpolatedSelected", "10", "50", "000000001000", "000007D0", "000000001500",
                   29, 0, true},  // R = 30
        RandomCase{"InterpolatedNotSelected", "10", "50", "000000001000", "000007D0",
                   "000000001500", 30, 0, false},  // R = 31
        // the product (M-P)(A-T) is kept in 32 bits: 99 * 50,000,000 wraps to
        // 655,032,704, and / 60,000,000 gives Q = 10 (82 without the wrap).
        // The 8-bit cuts of quotient and sum cannot change a result: with
        // A < F the quotient stays below M - P.
        RandomCase{"ProductWrapsSelected", "00", "99", "000000000000", "03938700", "000050000000",
                   9, 0, true},  // R = 10
        RandomCase{"ProductWrapsNotSelected", "00", "99", "000000000000", "03938700",
                   "000050000000", 10, 0, false},  // R = 11
        // amount equal to the threshold interpolates with A - T = 0: Q = P
        RandomCase{"AmountAtThresholdUsesP", "10", "50", "000000001000", "000007D0", "000000001000",
                   9, 0, true},
        RandomCase{"AmountAtThresholdNotAboveP", "10", "50", "000000001000", "000007D0",
                   "000000001000", 10, 0, false},
        // at or above the floor limit: never selected
        RandomCase{"AtFloorNeverSelected", "99", "99", "000000001000", "000007D0", "000000002000",
                   0, 0, false},
        // threshold equal to the floor: below uses P, at or above never
        RandomCase{"ThresholdIsFloorBelow", "50", "50", "000000002000", "000007D0", "000000001999",
                   0, 0, true},
        RandomCase{"ThresholdIsFloorAt", "50", "99", "000000002000", "000007D0", "000000002000", 0,
                   0, false},
        // parameter checks, in their order
        RandomCase{"TargetA0Is100", "A0", "A0", "00", "00000000", "000000000001", 0, 0x31517,
                   false},
        RandomCase{"MaxTargetAbove99", "10", "9A", "00", "00000000", "000000000001", 0, 0x31518,
                   false},
        RandomCase{"MaxBelowTarget", "50", "49", "00", "00000000", "000000000001", 0, 0x31519,
                   false},
        RandomCase{"ThresholdAboveFloor", "10", "50", "000000002001", "000007D0", "000000000001", 0,
                   0x31520, false}),
    CaseName());

TEST_F(Trm, RandomSelectionIsSkippedWhenTheFloorLimitIsExceeded) {
    g().ucTVR[3] = 0x80;
    Put(0x9F8243, "A0");  // would fail
    EXPECT_EQ(VelkCless_Random_Transaction_Select(), 0u);
    EXPECT_TRUE(host_.commands.empty());
}

TEST_F(Trm, RandomSelectionWithoutAmountReturnsTheDatabaseCode) {
    Put(0x9F8243, "99");
    Put(0x9F8242, "99");
    EXPECT_EQ(VelkCless_Random_Transaction_Select(), 0x31004u);
    EXPECT_EQ(g().ucTVR[3], 0x00);
}

class Velocity : public Trm {
protected:
    void SetUp() override {
        Put(0x9F14, "05");
        Put(0x9F23, "0A");
    }
};

TEST_F(Velocity, SendsBothGetDataCommands) {
    host_.Respond("9F3602000A 9000");
    host_.Respond("9F13020004 9000");
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0u);
    ASSERT_EQ(host_.apdus.size(), 2u);
    EXPECT_EQ(Hex(host_.apdus[0]), "80CA9F3600");
    EXPECT_EQ(Hex(host_.apdus[1]), "80CA9F1300");
    EXPECT_EQ(Tvr(), "0000004000");  // 6 > 5, not > 10
}

struct VelocityCase : NamedCase {
    const char *atc;
    const char *lastOnline;  // nullptr: not asked
    const char *tvr;
};

class VelocityCases : public Velocity, public ::testing::WithParamInterface<VelocityCase> {};

TEST_P(VelocityCases, Bits) {
    host_.Respond(GetParam().atc);
    if (GetParam().lastOnline != nullptr) host_.Respond(GetParam().lastOnline);
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0u);
    EXPECT_EQ(host_.Pending(), 0u);
    EXPECT_EQ(Tvr(), GetParam().tvr);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, VelocityCases,
    ::testing::Values(
        VelocityCase{"EqualAtcSetsBoth", "9F360200109000", "9F130200109000", "0000006000"},
        VelocityCase{"BelowSetsBoth", "9F360200109000", "9F130200119000", "0000006000"},
        VelocityCase{"NewCardOnly", "9F360200059000", "9F130200009000", "0008000000"},
        VelocityCase{"AboveUpper", "9F3602001B9000", "9F130200109000", "0000006000"},
        VelocityCase{"AtLowerNothing", "9F360200159000", "9F130200109000", "0000000000"},
        VelocityCase{"AtcRefusedCountsAsZero", "6A88", "9F130200109000", "2000006000"},
        VelocityCase{"AtcWrongTag", "9F370200109000", nullptr, "2000006000"},
        VelocityCase{"AtcWrongLength", "9F3603000010 9000", nullptr, "2000006000"},
        VelocityCase{"AtcCutShort", "9F3602009000", nullptr, "2000006000"},
        VelocityCase{"AtcNoData", "9000", nullptr, "2000006000"},
        VelocityCase{"AtcNoStatusWord", "90", "9F130200109000", "2000006000"},
        VelocityCase{"RegisterRefused", "9F360200109000", "6A88", "2000006000"},
        VelocityCase{"RegisterHostileLength", "9F360200109000", "9F1383FFFFFF 9000", "2000006000"}),
    CaseName());

TEST_F(Velocity, AnswerLongerThanItsBufferCountsAsMissing) {
    host_.Respond("9F360200 10" + std::string(80, '0') + "9000");
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0u);
    EXPECT_EQ(Tvr(), "2000006000");
    EXPECT_EQ(host_.apdus.size(), 1u);
}

TEST_F(Velocity, NoLimitsNoCheck) {
    VelkDataBase_Del_TAG(0x9F23);
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0u);
    EXPECT_TRUE(host_.apdus.empty());
    EXPECT_EQ(Tvr(), "0000000000");
}

TEST_F(Velocity, CommunicationErrorsAndStopAreReturned) {
    host_.Signal(0xA5);
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0x30103u);
    host_.Respond("9F360200109000");
    host_.Signal(0xA6);
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0x30102u);
    host_.Signal(0xA1);
    EXPECT_EQ(VelkCelss_TRM_CheckVelocity(), 0x30101u);
}

class TrmStep : public Trm {
protected:
    void SetUp() override {
        Put(0x82, "0800");
        Put(0x9F9301, "0000000008");
        Put(0x9F02, "000000000100");
    }
};

TEST_F(TrmStep, SkippedWithoutTheAipBit) {
    Put(0x82, "0000");
    EXPECT_EQ(VelkCless_TRM_Process(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x2000u);
    EXPECT_EQ(g().ucTSI[0], 0);
    EXPECT_TRUE(host_.commands.empty());
}

TEST_F(TrmStep, SetsTheTsiBitAndGoesToActionAnalysis) {
    EXPECT_EQ(VelkCless_TRM_Process(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x2000u);
    EXPECT_EQ(g().ucTSI[0], 0x08);
}

TEST_F(TrmStep, ExceptionFileSendsPanAndSequenceNumber) {
    Put(0x9F8227, "01");
    Put(0x5A, "5413330089601041");
    Put(0x5F34, "01");
    host_.exceptionFile = host::FromHex("01");
    EXPECT_EQ(VelkCless_TRM_Process(), 0u);
    ASSERT_FALSE(host_.requests.empty());
    EXPECT_EQ(host_.commands[0], 0xE6);
    EXPECT_EQ(Hex(host_.requests[0]), "7F0112DF0001E65A0854133300896010415F340101");
    EXPECT_EQ(Tvr(), "1000000000");
    EXPECT_EQ(VelkCless_Get_Terminal_Transaction_Result(), 0);
}

TEST_F(TrmStep, ExceptionFileNotListedOrDisabled) {
    Put(0x9F8227, "01");
    host_.exceptionFile = host::FromHex("00");
    EXPECT_EQ(VelkCless_Terminal_Exception_File_Check(), 0u);
    host_.exceptionFile.reset();
    EXPECT_EQ(VelkCless_Terminal_Exception_File_Check(), 0u);
    Put(0x9F8227, "00");
    host_.exceptionFile = host::FromHex("01");
    EXPECT_EQ(VelkCless_Terminal_Exception_File_Check(), 0u);
    EXPECT_EQ(host_.commands.size(), 2u);
    EXPECT_EQ(Tvr(), "0000000000");
}

TEST_F(TrmStep, BadRandomParametersEndTheApplication) {
    Put(0x9F8243, "A0");
    EXPECT_EQ(VelkCless_TRM_Process(), 0x31517u);
    EXPECT_EQ(g().FinalOutCome.ucStatus, 0x40);
}

TEST_F(TrmStep, VelocityCommunicationErrorAndStop) {
    Put(0x9F14, "05");
    Put(0x9F23, "0A");
    host_.Signal(0xA6);
    EXPECT_EQ(VelkCless_TRM_Process(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
    EXPECT_EQ(Outcome(), "7010F0F0C0F01300");
    host_.Signal(0xA1);
    EXPECT_EQ(VelkCless_TRM_Process(), 0x30101u);
    EXPECT_EQ(g().FinalOutCome.ucStatus, 0x40);
}

}  // namespace
}  // namespace velk::test
