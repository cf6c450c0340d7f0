// GET PROCESSING OPTIONS: the command, the response checks and the decision.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "step_host.hpp"

namespace velk::test {
namespace {

class Gpo : public KernelTest {
protected:
    void SetUp() override {
        Put(0x9F38, "9F6604 9F0206");
        Put(0x9F02, "000000012345");
    }
    uint32_t Run() { return VelkCless_Initiate_Application_Processing(nullptr, nullptr); }
    uint32_t Step() { return VelkCless_GetTransactionStep(); }
    StepHost host_;
};

TEST_F(Gpo, StoresTheTtpiAndTvrForThePdol) {
    pgbVelkGlobalValue->ucTTPI[0] = 0x86;
    pgbVelkGlobalValue->ucTTPI[4] = 0x01;
    pgbVelkGlobalValue->ucTTPI[5] = 0xAA;  // beyond the five bytes of C7
    pgbVelkGlobalValue->ucTVR[0] = 0x80;
    Put(0x9F38, "C705 9505");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]),
              "80A800000C830A86000000018000000000"
              "00");
    EXPECT_EQ(Step(), 0x1400u);  // an empty AFL counts as present
}

// Absent, through a whole tap; empty here.
TEST_F(Gpo, AnEmptyPdolSelectsTheNextApplication) {
    Put(0x9F38, "");
    EXPECT_EQ(Run(), 0u);
    EXPECT_TRUE(host_.apdus.empty());
    EXPECT_EQ(Outcome(), kCompletedOnError);
}

TEST_F(Gpo, UnreadablePdolSendsEmptyData) {
    Put(0x9F38, "9F6604 9F02");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]), "80A8000002830000");
    EXPECT_EQ(Db(0x9F8210), "");
}

TEST_F(Gpo, PdolAskingMoreThanTheCommandHoldsSendsEmptyData) {
    // 290 bytes fit (83 82 01 22, Lc the low byte of 294); 291 do not.
    Put(0x9F38, "9F7AFF 9F7B23");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    ASSERT_EQ(host_.apdus[0].size(), 300u);
    EXPECT_EQ(Hex(host_.apdus[0]).substr(0, 18), "80A800002683820122");
    Put(0x9F38, "9F7AFF 9F7B24");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[1]), "80A8000002830000");
}

TEST_F(Gpo, PdolLongerThanItsWorkBufferIsReadOverItsFirst300Bytes) {
    // 100 entries of 3 bytes fill 300 bytes; the 101st lies beyond.
    std::string pdol;
    for (int i = 0; i < 100; ++i)
        pdol += "9F0201";
    pdol += "9F0206";
    Put(0x9F38, pdol);
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    std::string expected;
    for (int i = 0; i < 100; ++i)
        expected += "45";  // the amount's last byte
    EXPECT_EQ(Db(0x9F8210), expected);
}

TEST_F(Gpo, TerminalDataFromTheCardIsNotStored) {
    host_.Respond("770F 9F0206999999999999 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x1400u);
    EXPECT_EQ(Db(0x9F02), "000000012345");
}

TEST_F(Gpo, PaddingInsideTheTemplateIsSkipped) {
    host_.Respond("7709 00 82020000 FF 9400 00 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x1400u);
}

TEST_F(Gpo, ResponseLongerThanTheWorkBufferIsRefused) {
    host_.Respond("7782012D 82020000 9400 9F7A8201 25" + std::string(2 * 0x125, '0') + "9000");
    EXPECT_EQ(Run(), 0x30105u);
    EXPECT_EQ(pgbVelkGlobalValue->FinalOutCome.ucStatus, 0x40);
}

TEST_F(Gpo, UpdateAfterGpoWhenConfigured) {
    Put(0x9F9302, "40");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x2620u);
}

// A C5 that does not end the transaction (the endings run through whole
// taps): the decline needs capability 02 and a first byte without 40 or 80,
// and an empty C5 counts for nothing.
TEST_F(Gpo, C5ThatLetsTheTransactionGoOn) {
    for (const auto &[c5, capabilities] :
         std::vector<std::pair<std::string, std::string>>{{"C5020000", "00000000"},
                                                          {"C5024000", "00000002"},
                                                          {"C5028000", "00000002"},
                                                          {"C500", "00000002"}}) {
        Put(0x9F9301, capabilities);
        for (const uint32_t tag : {0x82u, 0x94u, 0xC5u})
            VelkDataBase_Del_TAG(tag);
        VelkCless_SetTransactionStep(0x1300);
        host_.Respond(Hex(host::Tlv(0x77, {host::FromHex("82020000 9400 " + c5)})) + "9000");
        EXPECT_EQ(Run(), 0u);
        EXPECT_EQ(Step(), 0x1400u) << c5;
    }
}

TEST_F(Gpo, ExchangeFailures) {
    host_.Signal(0xA5);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "7010F0F0C0F01300");

    VelkCless_SetTransactionStep(0x1300);
    host_.Signal(0xA1);
    EXPECT_EQ(Run(), 0x30101u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");

    // Only the A5 communication error has its own outcome here.
    VelkCless_SetTransactionStep(0x1300);
    host_.Signal(0xA6);
    EXPECT_EQ(Run(), 0x30102u);
    EXPECT_EQ(Step(), 0x1300u);
    EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");
}

TEST_F(Gpo, AuthenticationOnlyDefaultsFillThePdol) {
    Put(0x9F9302, "10");
    Put(0x9F9309, "40");
    VelkCless_Set_TransactionType(0x40);
    pgbVelkGlobalValue->ucKernelID = 0x25;
    VelkDataBase_Del_TAG(0x9F02);
    Put(0x9F38, "9F0206 9F0306 5F2A02 9F1A02 9A03 9F2103");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Db(0x9F8210), std::string(2 * 22, '0'));
    EXPECT_EQ(Db(0x9F1A), "0000");
    EXPECT_EQ(Db(0x9F21), "000000");
}

TEST_F(Gpo, AuthenticationOnlyDefaultsOfOtherKernelsLeaveCountryAndDate) {
    Put(0x9F9302, "10");
    Put(0x9F9309, "40");
    VelkCless_Set_TransactionType(0x40);
    Put(0x9F1A, "0978");
    host_.Respond("7706 82020000 9400 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Db(0x9F02), "000000000000");
    EXPECT_EQ(Db(0x9F03), "000000000000");
    EXPECT_EQ(Db(0x5F2A), "0000");
    EXPECT_EQ(Db(0x9F1A), "0978");
    EXPECT_EQ(Db(0x9A), "absent");
}

TEST(GpoChecks, PdolMandatoryCheckLooksFor9F66) {
    const host::Bytes with = host::FromHex("9F0206 00 9F6604");
    const host::Bytes without = host::FromHex("9F0206 FF 9F1A02");
    const host::Bytes cut = host::FromHex("9F02");
    EXPECT_EQ(VelkCless_PDOLMandatoryCheck(with.data(), static_cast<uint32_t>(with.size())), 0u);
    EXPECT_EQ(VelkCless_PDOLMandatoryCheck(without.data(), static_cast<uint32_t>(without.size())),
              0x30212u);
    EXPECT_EQ(VelkCless_PDOLMandatoryCheck(cut.data(), static_cast<uint32_t>(cut.size())),
              0x30212u);
}

struct AflCase {
    const char *afl;
    uint32_t result;
};
void PrintTo(const AflCase &c, std::ostream *os) {
    *os << c.afl;
}

class CheckAfl : public KernelTest, public ::testing::WithParamInterface<AflCase> {};

TEST_P(CheckAfl, OnlyTheFirstEntryIsChecked) {
    Put(0x94, GetParam().afl);
    EXPECT_EQ(EMV_Check_AFL(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Entries, CheckAfl,
    ::testing::Values(AflCase{"08010100", 0}, AflCase{"0F010100", 0},
                      AflCase{"08010100 00000000", 0}, AflCase{"00010100", 0x30501},
                      AflCase{"F8010100", 0x30501}, AflCase{"08000100", 0x30402},
                      AflCase{"08020100", 0x30403}, AflCase{"08010102", 0x30404},
                      AflCase{"080101", 0x30409}, AflCase{"", 0}));

TEST_F(KernelTest, CheckAflWithoutAflReturnsTheDatabaseCode) {
    EXPECT_EQ(EMV_Check_AFL(), 0x31004u);
}

}  // namespace
}  // namespace velk::test
