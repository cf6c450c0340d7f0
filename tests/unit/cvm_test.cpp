// Cardholder verification: conditions, the CV rule loop and the C5 route.
#include <gtest/gtest.h>

#include <cstring>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"

namespace velk::test {
namespace {

constexpr uint32_t kNotMet = 0x1002;

class Cvm : public KernelTest {
protected:
    void SetUp() override {
        Put(0x5F2A, "0978");
        Put(0x9F42, "0978");
        Put(0x9F02, "000000000100");  // 1.00
        Put(0x9C, "00");
        g().ucCVM = 0xF0;
        std::memcpy(g().ucCVMResult, "\x3F\x00\x00", 3);
    }
    VELK_GLOBALVALUE_STRUCT &g() { return kernel_.g(); }
    // Kernel capabilities with the given bytes 1, 3 and 5 (index 0, 2, 4).
    void Capabilities(uint8_t b1, uint8_t b3, uint8_t b5) {
        Put(0x9F9301, host::Bytes{b1, 0x00, b3, 0x00, b5, 0x00});
    }
    uint32_t Condition(uint8_t condition, uint8_t code = 0x1F) {
        static const uint8_t x[4] = {0x00, 0x00, 0x00, 0x64};  // 1.00
        static const uint8_t y[4] = {0x00, 0x00, 0x01, 0xF4};  // 5.00
        return VelkCless_CVM_checkCondition(x, y, code, condition);
    }
    uint32_t List(std::string_view hex) {
        const host::Bytes l = host::FromHex(hex);
        return VelkCless_CVM_List_Processing(l.data(), static_cast<uint32_t>(l.size()),
                                             g().ucCVMResult);
    }
    std::string Results() { return Hex(g().ucCVMResult, 3); }
    std::string Byte3() { return Hex(&g().ucTVR[2], 1); }
};

struct AttendanceCase {
    const char *terminalType;  // nullptr: 9F35 absent
    bool unattended;
};
void PrintTo(const AttendanceCase &c, std::ostream *os) {
    *os << (c.terminalType ? c.terminalType : "absent");
}

class CvmAttendance : public Cvm, public ::testing::WithParamInterface<AttendanceCase> {};

// Condition 01 (unattended cash) holds only for an unattended terminal.
TEST_P(CvmAttendance, UnattendedCashFollowsTheTerminalClassification) {
    Put(0x9C, "01");
    if (GetParam().terminalType != nullptr) Put(0x9F35, GetParam().terminalType);
    EXPECT_EQ(Condition(0x01), GetParam().unattended ? 0u : kNotMet);
}

INSTANTIATE_TEST_SUITE_P(TerminalTypes, CvmAttendance,
                         ::testing::Values(AttendanceCase{"11", false}, AttendanceCase{"22", false},
                                           AttendanceCase{"23", false}, AttendanceCase{"14", true},
                                           AttendanceCase{"25", true}, AttendanceCase{"36", true},
                                           AttendanceCase{"94", false}, AttendanceCase{"90", false},
                                           AttendanceCase{"95", true}, AttendanceCase{"99", true},
                                           AttendanceCase{"41", false}, AttendanceCase{"05", false},
                                           AttendanceCase{nullptr, false}));

TEST_F(Cvm, ConditionsOnTheTransactionType) {
    struct Row {
        const char *type;
        uint8_t condition;
        uint32_t expected;
    };
    const Row rows[] = {
        {"00", 0x00, 0},      {"01", 0x02, kNotMet}, {"09", 0x02, kNotMet}, {"20", 0x02, 0},
        {"01", 0x04, 0},      {"00", 0x04, kNotMet}, {"09", 0x05, 0},       {"00", 0x05, kNotMet},
        {"00", 0x0A, 0x1001}, {"00", 0xFF, 0x1001},
    };
    for (const Row &r : rows) {
        Put(0x9C, r.type);
        EXPECT_EQ(Condition(r.condition), r.expected)
            << "type " << r.type << " condition " << int(r.condition);
    }
}

TEST_F(Cvm, AmountConditionsAreStrict) {
    // Amount 1.00 against X = 1.00 and Y = 5.00.
    EXPECT_EQ(Condition(0x06), kNotMet);
    EXPECT_EQ(Condition(0x07), kNotMet);
    EXPECT_EQ(Condition(0x08), 0u);
    EXPECT_EQ(Condition(0x09), kNotMet);
    Put(0x9F02, "000000000099");
    EXPECT_EQ(Condition(0x06), 0u);
    Put(0x9F02, "000000000101");
    EXPECT_EQ(Condition(0x07), 0u);
}

TEST_F(Cvm, AmountConditionsNeedMatchingCurrencies) {
    Put(0x9F02, "000000000099");
    Put(0x9F42, "0840");
    EXPECT_EQ(Condition(0x06), kNotMet);
    Put(0x9F42, "097800");
    EXPECT_EQ(Condition(0x06), kNotMet);
}

TEST_F(Cvm, TerminalSupportOfEachCode) {
    Capabilities(0x06, 0x40, 0x00);  // online PIN, signature, code 24
    struct Row {
        uint8_t code;
        uint32_t expected;
    };
    const Row rows[] = {{0x00, 0},      {0x01, 0x1005}, {0x02, 0},      {0x03, 0x1005},
                        {0x04, 0x1005}, {0x05, 0x1005}, {0x1E, 0},      {0x1F, 0},
                        {0x24, 0},      {0x25, 0x1004}, {0x06, 0x1004}, {0x42, 0}};
    for (const Row &r : rows)
        EXPECT_EQ(VelkCless_CVM_Terminal_IsSupport(r.code, 0x00), r.expected) << int(r.code);
    EXPECT_EQ(VelkCless_CVM_Code_recognized(0x24), 0u);
    EXPECT_EQ(VelkCless_CVM_Code_recognized(0x06), 0x1004u);
    EXPECT_EQ(VelkCless_CVM_Code_recognized(0x5F), 0u);
}

TEST_F(Cvm, NoCvmIsUnsupportedWhenTheAmountRequiresACvm) {
    VelkCless_Set_Contactless_PreProcessing_Indicators(0x20);
    Capabilities(0x02, 0x00, 0x00);
    // 1F 03 (no CVM, if supported) is passed over; 1E 03 applies.
    EXPECT_EQ(List("00000000 00000000 1F03 1E03"), 0u);
    EXPECT_EQ(Results(), "1E0300");
    EXPECT_EQ(g().ucCVM, 0x10);
}

TEST_F(Cvm, OnlinePinUnsupportedSetsThePinPadBitOnlyWithoutCondition03) {
    Capabilities(0x00, 0x00, 0x00);
    EXPECT_EQ(List("00000000 00000000 4203"), 0x1005u);  // condition 03 not met
    EXPECT_EQ(Byte3(), "80");                            // not successful only
    g().ucTVR[2] = 0;
    EXPECT_EQ(List("00000000 00000000 4200"), 0x1005u);
    EXPECT_EQ(Byte3(), "90");  // PIN pad missing, then not successful
    EXPECT_EQ(Results(), "3F0001");
}

TEST_F(Cvm, UnrecognisedCodeIsFlaggedAndPassedOn) {
    Capabilities(0x02, 0x00, 0x00);
    EXPECT_EQ(List("00000000 00000000 0600 1E00"), 0u);
    EXPECT_EQ(Byte3(), "40");
    EXPECT_EQ(Results(), "1E0000");
}

TEST_F(Cvm, TheApplySucceedingBitIsNotConsulted) {
    // 01 (offline PIN, fail if unsuccessful) is unsupported: the next rule
    // still applies.
    Capabilities(0x02, 0x00, 0x00);
    EXPECT_EQ(List("00000000 00000000 0100 1E00"), 0u);
    EXPECT_EQ(Results(), "1E0000");
    EXPECT_EQ(g().ucCVM, 0x10);
}

struct ApplyCase {
    const char *rule;
    uint8_t cvm;
    const char *results;
    const char *tvr3;
};
void PrintTo(const ApplyCase &c, std::ostream *os) {
    *os << c.rule;
}

class CvmApply : public Cvm, public ::testing::WithParamInterface<ApplyCase> {};

TEST_P(CvmApply, TheFirstSupportedRuleDecides) {
    Capabilities(0x06, 0x40, 0x00);
    // X = 1.00, Y = 5.00, amount 1.00
    EXPECT_EQ(List(std::string("00000064 000001F4 ") + GetParam().rule), 0u);
    EXPECT_EQ(g().ucCVM, GetParam().cvm);
    EXPECT_EQ(Results(), GetParam().results);
    EXPECT_EQ(Byte3(), GetParam().tvr3);
}

INSTANTIATE_TEST_SUITE_P(Codes, CvmApply,
                         ::testing::Values(ApplyCase{"0000", 0x00, "000001", "80"},
                                           ApplyCase{"4200", 0x20, "420000", "04"},
                                           ApplyCase{"0203", 0x20, "020300", "04"},
                                           ApplyCase{"5E00", 0x10, "5E0000", "00"},
                                           ApplyCase{"1F00", 0x00, "1F0002", "00"},
                                           ApplyCase{"2400", 0x30, "240000", "00"},
                                           ApplyCase{"1E06 1F00", 0x00, "1F0002", "00"},
                                           ApplyCase{"1E08 1F00", 0x10, "1E0800", "00"}));

TEST_F(Cvm, NoRulesLeavesEverythingAsItWas) {
    EXPECT_EQ(List("00000000 00000000"), 0u);
    EXPECT_EQ(Results(), "3F0000");
    EXPECT_EQ(g().ucCVM, 0xF0);
}

TEST_F(Cvm, CvmListOfEightBytesIsIccDataMissing) {
    Put(0x8E, "0000000000000000");
    Capabilities(0x00, 0x00, 0x10);
    EXPECT_EQ(VelkCless_Cardholder_Verification_CVMList(), 0u);
    EXPECT_EQ(Tvr(), "2000000000");
    EXPECT_EQ(Results(), "3F0000");
    EXPECT_EQ(g().ucCVM, 0xF0);
}

TEST_F(Cvm, OddCvmListEndsTheApplicationButTheStepGoesOn) {
    Put(0x8E, "000000000000000042");
    Capabilities(0x00, 0x00, 0x10);
    Put(0xC5, "03");
    EXPECT_EQ(VelkCless_Cardholder_Verification_CVMList(), 0x31522u);
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1900u);
    EXPECT_EQ(g().FinalOutCome.ucStatus, 0x40);  // End Application, to be replaced later
    EXPECT_EQ(g().ucCVM, 0xF0);
    EXPECT_EQ(Db(0x9F34), "3F0000");
}

TEST_F(Cvm, CvmListLongerThanTheWorkBufferIsReadOverItsFirst300Bytes) {
    // 8 amount bytes and 146 rules that never apply fill 300 bytes; the rule
    // after them would apply but lies beyond.
    std::string list = "0000000000000000";
    for (int i = 0; i < 146; ++i)
        list += "1E0A";
    list += "1F00 1F00";
    ASSERT_EQ(list.size(), 2u * 304u + 1u);  // one space counted
    Put(0x8E, list);
    Capabilities(0x02, 0x00, 0x10);
    Put(0xC5, "03");
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(Db(0x9F34), "3F0001");
    EXPECT_EQ(g().ucCVM, 0xF0);
    EXPECT_EQ(Byte3(), "80");
}

struct CardChoiceCase {
    const char *c5;
    uint8_t ttpi1;
    uint8_t ttpi2;
    uint8_t cvm;
    const char *results;
    const char *tvr3;
};
void PrintTo(const CardChoiceCase &c, std::ostream *os) {
    *os << "C5 " << c.c5 << " TTPI " << int(c.ttpi1) << " " << int(c.ttpi2);
}

class CvmCardChoice : public Cvm, public ::testing::WithParamInterface<CardChoiceCase> {};

TEST_P(CvmCardChoice, TheCardsSelectionInC5) {
    const CardChoiceCase &c = GetParam();
    Put(0xC5, c.c5);
    g().ucTTPI[0] = c.ttpi1;
    g().ucTTPI[1] = c.ttpi2;
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1900u);
    EXPECT_EQ(g().ucCVM, c.cvm);
    EXPECT_EQ(Db(0x9F34), c.results);
    EXPECT_EQ(Byte3(), c.tvr3);
    EXPECT_EQ(g().ucTVR[0], 0x20);  // no CVM List: ICC data missing
}

INSTANTIATE_TEST_SUITE_P(Selections, CvmCardChoice,
                         ::testing::Values(CardChoiceCase{"00", 0x06, 0x00, 0xF0, "3F0000", "00"},
                                           CardChoiceCase{"00", 0x06, 0x40, 0x00, "1F0000", "80"},
                                           CardChoiceCase{"01", 0x02, 0x00, 0x10, "1E0000", "00"},
                                           CardChoiceCase{"01", 0x04, 0x00, 0xF0, "1E0001", "80"},
                                           CardChoiceCase{"02", 0x04, 0x00, 0x20, "020000", "04"},
                                           CardChoiceCase{"02", 0x02, 0x00, 0xF0, "020001", "80"},
                                           CardChoiceCase{"03", 0x06, 0x00, 0xF0, "3F0000",
                                                          "80"},  // no 8E
                                           CardChoiceCase{"F5", 0x00, 0x00, 0x30, "240002", "00"},
                                           CardChoiceCase{"04", 0x06, 0x40, 0xF0, "3F0000", "00"},
                                           CardChoiceCase{"06", 0x06, 0x40, 0xF0, "3F0000", "00"},
                                           CardChoiceCase{"07", 0x06, 0x40, 0xF0, "3F0000", "00"}));

TEST_F(Cvm, WithoutC5TheListIsUsedOnlyWhenACvmIsRequired) {
    Put(0x82, "1000");
    Put(0x8E, "00000000000000001E00");
    Capabilities(0x02, 0x00, 0x10);
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(Db(0x9F34), "3F0000");
    EXPECT_EQ(g().ucCVM, 0xF0);

    g().ucTTPI[1] = 0x40;
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(Db(0x9F34), "1E0000");
    EXPECT_EQ(g().ucCVM, 0x10);
}

TEST_F(Cvm, WithoutC5AndWithoutCardholderVerificationInTheAipItFails) {
    Put(0x82, "0000");
    Put(0x8E, "00000000000000001E00");
    Capabilities(0x02, 0x00, 0x10);
    g().ucTTPI[1] = 0x40;
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(Db(0x9F34), "3F0000");
    EXPECT_EQ(Byte3(), "80");
}

TEST_F(Cvm, WithoutTheCvmListCapabilityItFails) {
    Put(0x82, "1000");
    Put(0x8E, "00000000000000001E00");
    Capabilities(0x02, 0x00, 0x00);
    g().ucTTPI[1] = 0x40;
    EXPECT_EQ(VelkCless_Cardholder_Verification(), 0u);
    EXPECT_EQ(Byte3(), "80");
    EXPECT_EQ(g().ucTVR[0], 0x00);  // the list itself is there
}

}  // namespace
}  // namespace velk::test
