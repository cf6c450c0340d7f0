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

}  // namespace
}  // namespace velk::test
