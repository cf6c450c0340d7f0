// READ RECORD: the AFL walk, record storage, the ODA collection and the
// mandatory data.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "step_host.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::Tlv;

class Records : public KernelTest {
protected:
    uint32_t Read() { return VelkCless_Read_Record(nullptr, nullptr); }
    uint32_t Step() { return VelkCless_GetTransactionStep(); }
    std::string Oda() { return Hex(kernel_.g().ODA_AuthData, kernel_.g().ODA_AuthData_len); }
    uint8_t OdaNok() { return kernel_.g().ODA_Data_From_Record_NOK; }
    static std::string Ok(const Bytes &data) { return Hex(data) + "9000"; }
    StepHost host_;
};

// SFI 1 and SFI 11 records as they are collected: through a whole tap.
TEST_F(Records, Sfi11RecordThatIsNotATemplate70IsFlagged) {
    Put(0x94, "58010101");
    host_.Respond("6F045A0212349000");
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Oda(), "");
    EXPECT_EQ(OdaNok(), 1);
}

TEST_F(Records, OdaCountTakesTheFirstRecordsOfEachEntry) {
    Put(0x94, "08010302 10010100");
    host_.Respond("7005 9F0802 0002 9000");
    host_.Respond("7005 9F0702 FF00 9000");
    host_.Respond("7005 5F280208 40 9000");
    host_.Respond("7003 8C0195 9000");
    EXPECT_EQ(Read(), 0u);
    ASSERT_EQ(host_.apdus.size(), 4u);
    EXPECT_EQ(Hex(host_.apdus[3]), "00B2011400");
    EXPECT_EQ(Oda(), "9F080200029F0702FF00");
}

struct BadEntry : NamedCase {
    const char *afl;
};

class RecordsBadEntry : public Records, public ::testing::WithParamInterface<BadEntry> {};

// A bad entry ends the reading silently; the mandatory-data check decides.
TEST_P(RecordsBadEntry, StopsReadingWithoutError) {
    Put(0x94, std::string("08010100 ") + GetParam().afl + " 10010100");
    host_.Respond("7003 8C0195 9000");
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(host_.apdus.size(), 1u);
    EXPECT_EQ(host_.Pending(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Entries, RecordsBadEntry,
                         ::testing::Values(BadEntry{"FirstRecordZero", "10000100"},
                                           BadEntry{"FirstAboveLast", "10030200"},
                                           BadEntry{"SfiZero", "00010100"},
                                           BadEntry{"Sfi31", "F8010100"},
                                           BadEntry{"OdaCountAboveRecords", "10010203"}),
                         CaseName());

TEST_F(Records, BadFirstEntryGoesOnToTheMandatoryCheck) {
    Put(0x94, "08000100");
    EXPECT_EQ(VelkCless_ReadApplicationData(nullptr, nullptr), 0u);
    EXPECT_TRUE(host_.apdus.empty());
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
}

TEST_F(Records, AnEntryOf255RecordsEnds) {
    Put(0x94, "180 1FF00");
    for (int i = 0; i < 255; ++i)
        host_.Respond("7000 9000");
    EXPECT_EQ(Read(), 0u);
    ASSERT_EQ(host_.apdus.size(), 255u);
    EXPECT_EQ(Hex(host_.apdus[254]), "00B2FF1C00");
}

TEST_F(Records, AflLongerThanItsWorkBufferIsReadOverItsFirst65Entries) {
    std::string afl;
    for (int i = 0; i < 66; ++i)
        afl += "58010100";
    Put(0x94, afl);
    for (int i = 0; i < 66; ++i)
        host_.Respond("7000 9000");
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(host_.apdus.size(), 65u);
}

TEST_F(Records, OdaDataThatWouldPassItsBufferIsNotAppendedAndFlagged) {
    Put(0x94, "58010505");
    const Bytes big(240, 0xAB);
    for (int i = 0; i < 5; ++i)
        host_.Respond(Ok(Tlv(0x70, {Tlv(0x9F7A, big)})));
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(host_.apdus.size(), 5u);
    // Four records of 247 bytes fit (988); the fifth does not and is left out.
    EXPECT_EQ(kernel_.g().ODA_AuthData_len, 988u);
    EXPECT_EQ(OdaNok(), 1);
}

TEST_F(Records, OdaDataFillingTheBufferExactlyIsAccepted) {
    Put(0x94, "58010404");
    // 4 x 256 = 1024: 70 81 FD, 9F7A 81 F9 and 249 bytes
    for (int i = 0; i < 4; ++i)
        host_.Respond(Ok(Tlv(0x70, {Tlv(0x9F7A, Bytes(249, 0xCD))})));
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(kernel_.g().ODA_AuthData_len, 4u * 256u);
    EXPECT_EQ(OdaNok(), 0);
}

TEST_F(Records, RecordLongerThanItsBufferIsRefused) {
    Put(0x94, "08010100");
    host_.Respond(Ok(Tlv(0x70, {Tlv(0x9F7A, Bytes(300, 0x11))})));
    EXPECT_EQ(Read(), 0x30105u);
}

struct BadRecord : NamedCase {
    const char *afl;
    const char *rapdu;
    uint32_t result;
};

class RecordsBadRecord : public Records, public ::testing::WithParamInterface<BadRecord> {};

TEST_P(RecordsBadRecord, FailsAndEndsOnError) {
    Put(0x94, GetParam().afl);
    host_.Respond(GetParam().rapdu);
    EXPECT_EQ(Read(), GetParam().result);
    host_.Respond(GetParam().rapdu);
    EXPECT_EQ(VelkCless_ReadApplicationData(nullptr, nullptr), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
}

INSTANTIATE_TEST_SUITE_P(
    Records, RecordsBadRecord,
    ::testing::Values(BadRecord{"StatusWord", "08010100", "6A83", 0x30503},
                      BadRecord{"NoStatusWord", "08010100", "90", 0x30503},
                      BadRecord{"BadTlv", "08010100", "70055A0212349000", 0x30504},
                      BadRecord{"HostileLength", "08010100", "7084FFFFFFFF5A0212349000", 0x30504},
                      BadRecord{"InnerPassesTemplate", "08010100", "70045A0312349000", 0x30504},
                      BadRecord{"NotTemplate70", "08010100", "77045A0212349000", 0x30505},
                      BadRecord{"EmptyRecord", "08010100", "9000", 0x30505},
                      BadRecord{"LengthOutOfRange", "08010100", "70055F24022512 9000", 0x3020B},
                      BadRecord{"TooLong", "08010100", "70088203000000 9F0700 9000", 0x3020B},
                      BadRecord{"DuplicateSingleTag", "08010100", "70085A0212345A0212349000",
                                0x31001},
                      BadRecord{"Sfi11BadTlv", "58010100", "70055A0212349000", 0x30504}),
    CaseName());

TEST_F(Records, TooLongValueIsStoredBeforeItIsJudged) {
    Put(0x94, "08010100");
    host_.Respond("70055F24022512 9000");
    EXPECT_EQ(Read(), 0x3020Bu);
    EXPECT_EQ(Db(0x5F24), "2512");
}

TEST_F(Records, TerminalDataInARecordIsSkipped) {
    Put(0x94, "08010100");
    Put(0x9F1A, "0978");
    host_.Respond("7005 9F1A020840 9000");
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Db(0x9F1A), "0978");
}

TEST_F(Records, AflProblems) {
    EXPECT_EQ(Read(), 0x30408u);
    Put(0x94, "");
    EXPECT_EQ(Read(), 0x30407u);
    Put(0x94, "080101");
    EXPECT_EQ(Read(), 0x30506u);
    EXPECT_TRUE(host_.apdus.empty());
}

TEST_F(Records, ExchangeFailures) {
    Put(0x94, "08010100");
    host_.Signal(0xA5);
    EXPECT_EQ(VelkCless_ReadApplicationData(nullptr, nullptr), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "7010F0F0C0F01300");
    host_.Signal(0xA1);
    EXPECT_EQ(VelkCless_ReadApplicationData(nullptr, nullptr), 0x30101u);
    EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");
    host_.Signal(0xA6);
    EXPECT_EQ(VelkCless_ReadApplicationData(nullptr, nullptr), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
}

class Mandatory : public KernelTest {
protected:
    void SetUp() override {
        Put(0x8C, "9F0206");
        Put(0x57, "5413330089601041D25122010000");
    }
    uint32_t Check() { return VelkCless_VerifyMandatoryDataElement_InKernelTransDatabase(); }
};

TEST_F(Mandatory, CdolAndTrackTwo) {
    EXPECT_EQ(Check(), 0u);
    Put(0x57, "");
    EXPECT_EQ(Check(), 0x30510u);
    Put(0x8C, "");
    EXPECT_EQ(Check(), 0x30509u);
}

TEST_F(Mandatory, ConfiguredList) {
    Put(0x9F9312, "5F24 9F08");
    EXPECT_EQ(Check(), 0x30508u);
    Put(0x5F24, "251231");
    EXPECT_EQ(Check(), 0x30508u);
    Put(0x9F08, "0002");
    EXPECT_EQ(Check(), 0u);
    Put(0x9F9312, "00 5F24 00 9F08");  // a zero byte is no tag
    EXPECT_EQ(Check(), 0u);
    Put(0x9F9312, "5F24 9F");  // a tag cut at the end reads as 9F00
    EXPECT_EQ(Check(), 0x30508u);
}

TEST_F(Mandatory, AuthenticationOnlySkipsTheCheck) {
    Put(0x8C, "");
    Put(0x9F9302, "10");
    Put(0x9F9309, "40");
    Put(0x9F9301, "00000040");
    VelkCless_Set_TransactionType(0x40);
    EXPECT_EQ(Check(), 0u);
    Put(0x9F9301, "00000000");
    EXPECT_EQ(Check(), 0x30509u);
}

struct PanCase : NamedCase {
    const char *pan;
    const char *track2;
    uint32_t result;
};

class PanTrack2 : public KernelTest, public ::testing::WithParamInterface<PanCase> {};

TEST_P(PanTrack2, Compare) {
    if (GetParam().pan != nullptr) Put(0x5A, GetParam().pan);
    if (GetParam().track2 != nullptr) Put(0x57, GetParam().track2);
    EXPECT_EQ(VelkCless_Compare_5A_57_Data(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PanTrack2,
    ::testing::Values(PanCase{"SevenDigitsPadded", "1234567F", "1234567D2512", 0},
                      PanCase{"EvenDigitsEndingOddFails", "5413330089601041",
                              "5413330089601041D2512201", 0x30507},
                      PanCase{"EvenDigitsEndingEven", "5413330089601040",
                              "5413330089601040D2512201", 0},
                      PanCase{"Mismatch", "5413330089601040", "5413330089601042D2512201", 0x30507},
                      PanCase{"PaddedMismatchHighNibble", "1234567F", "1234568D2512", 0x30507},
                      PanCase{"TrackShorterThanPan", "5413330089601040", "541333", 0x30507},
                      PanCase{"NoPan", nullptr, "541333", 0},
                      PanCase{"NoTrack2", "1234", nullptr, 0},
                      PanCase{"EmptyPan", "", "541333", 0}),
    CaseName());

TEST_F(KernelTest, ReadCompleteChecksMandatoryDataAndPan) {
    EXPECT_EQ(VelkCless_Read_Complete(nullptr, nullptr), 0x30601u);
    EXPECT_EQ(kernel_.g().FinalOutCome.ucStatus, 0x40);
    for (uint32_t tag : {0x82u, 0x9F10u, 0x9F26u, 0x9F36u, 0x9F38u})
        Put(tag, "00");
    Put(0x57, "1234567D2512");
    EXPECT_EQ(VelkCless_Read_Complete(nullptr, nullptr), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1610u);
    Put(0x5A, "1234568F");
    EXPECT_EQ(VelkCless_Read_Complete(nullptr, nullptr), 0x30507u);
}

}  // namespace
}  // namespace velk::test
