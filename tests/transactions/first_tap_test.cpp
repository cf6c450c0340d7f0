// Whole first taps, from GET PROCESSING OPTIONS to the outcome, against a
// scripted card, byte for byte: the commands, the outcome packet, and what
// the steps leave in the TVR, the CVM Results and the ODA data.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "baseKernel.h"
#include "first_tap.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::Tlv;
using velk::host::ToHex;

Bytes T(uint32_t tag, std::string_view hex) {
    return Tlv(tag, FromHex(hex));
}

std::string Tvr(ScriptedHost &host) {
    return ToHex({host.g().ucTVR, 5});
}

std::string Db(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) return "absent";
    return ToHex({obj.pValue, obj.uiLength});
}

std::string RecordValue(const OutcomePacket &p, uint32_t tag) {
    if (!p.record) return "no record";
    const velk::host::TlvNode *n = velk::host::Find(*p.record, tag);
    return n == nullptr ? "absent" : ToHex(n->value);
}

bool CardReadShown(const ScriptedHost &host) {
    for (const Bytes &uird : host.uirds)
        if (!uird.empty() && uird[0] == 0x17) return true;
    return false;
}

// ---- The standard tap and GET PROCESSING OPTIONS ------------------------------------

TEST(FirstTap, StandardTapIsApprovedOfflineByteForByte) {
    ScriptedHost host;
    FirstTap tap;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    ASSERT_EQ(host.capdus.size(), 4u);
    // PDOL 9F0206 9F1A02 9F3704: amount, country, unpredictable number.
    EXPECT_EQ(ToHex(host.capdus[0]),
              "80A800000E830C"
              "000000000100"
              "0978"
              "11223344"
              "00");
    EXPECT_EQ(ToHex(host.capdus[1]), "00B2010C00");
    EXPECT_EQ(ToHex(host.capdus[2]), "00B2020C00");
    // CDOL1 9F0206 9F0306 9F1A02 9505 5F2A02 9A03 9C01 9F3704, TC asked.
    EXPECT_EQ(ToHex(host.capdus[3]),
              "80AE40001D"
              "000000000100"
              "000000000000"
              "0978"
              "8000000000"
              "0978"
              "250101"
              "00"
              "11223344"
              "00");
    EXPECT_EQ(Db(0x9F34), "3F0000");  // no CVM required below the CVM limit
    EXPECT_EQ(Db(0x8A), "5931");
    EXPECT_TRUE(CardReadShown(host));
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ((*p.uird)[0], 0x03);  // approved
    EXPECT_EQ(RecordValue(p, 0x9F27), "40");
    EXPECT_EQ(RecordValue(p, 0x95), "8000000000");
}

TEST(FirstTap, PdolEntriesAbsentFromTheDatabaseAreZeros) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.pdol = "9F6604 9F0206";
    tap.gpoCommand = FromHex("80A800000C830A 00000000 000000000100 00");
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(Db(0x9F8210), "00000000000000000100");
}

TEST(FirstTap, WithoutPdolTheNextApplicationIsSelected) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.pdol = "";
    tap.endAfter = 0;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), "5020F0F000F0FF00");  // Select Next
    EXPECT_TRUE(host.capdus.empty());
}

struct GpoFailure : NamedCase {
    const char *rapdu;
};

class FirstTapGpoFailure : public ::testing::TestWithParam<GpoFailure> {};

TEST_P(FirstTapGpoFailure, EndsInTransactionCompletedOnErrorBeforeAnyRecord) {
    ScriptedHost host;
    FirstTap tap;
    tap.gpo = Respond(tap.GpoCommand(), FromHex(GetParam().rapdu));
    tap.endAfter = 1;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kCompletedOnError);
    EXPECT_EQ(host.capdus.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Responses, FirstTapGpoFailure,
    ::testing::Values(GpoFailure{"Format1", "8006 1800 08010200 9000"},
                      GpoFailure{"LengthMismatch", "770B 82021800 940408010200 9000"},
                      GpoFailure{"HostileLength", "7783FFFFFF 82021800 940408010200 9000"},
                      GpoFailure{"BadTlv", "770A 82021800 940508010200 9000"},
                      GpoFailure{"AipMissing", "7706 940408010200 9000"},
                      GpoFailure{"AflMissing", "7704 82021800 9000"},
                      GpoFailure{"AipOfLength3", "770B 8203180000 940408010200 9000"},
                      GpoFailure{"DuplicateAip", "770E 82021800 82021800 940408010200 9000"},
                      GpoFailure{"StatusWord6985", "6985"}, GpoFailure{"NoStatusWord", "77"},
                      GpoFailure{"Empty", ""},
                      GpoFailure{"LengthShorterThanData", "7705 82020000 9400 9000"},
                      GpoFailure{"ChildPassesTemplate", "7706 82020000 9402 9000"},
                      GpoFailure{"DuplicateAfl", "7708 9400 82020000 9400 9000"},
                      GpoFailure{"OnlyTerminalDataAndAfl", "7707 9F02020000 9400 9000"}),
    CaseName());

TEST(FirstTap, GpoResponseLongerThanItsBufferEndsTheApplication) {
    ScriptedHost host;
    FirstTap tap;
    tap.gpo = Respond(
        tap.GpoCommand(),
        With9000(Tlv(0x77, {T(0x82, "1800"), T(0x94, "08010200"), Tlv(0x9F7A, Bytes(300, 0))})));
    tap.endAfter = 1;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0x30105u);
    EXPECT_EQ(ToHex(r.ops), kEndApplication);
}

struct C5Ending : NamedCase {
    const char *c5;
    const char *capabilities;
    const char *ops;
};

class FirstTapGpoC5 : public ::testing::TestWithParam<C5Ending> {};

TEST_P(FirstTapGpoC5, CardDecidesAfterGpo) {
    ScriptedHost host;
    FirstTap tap;
    tap.reader.capabilities = GetParam().capabilities;
    tap.card.gpoExtra = {T(0xC5, GetParam().c5)};
    tap.endAfter = 1;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), GetParam().ops);
    EXPECT_EQ(host.capdus.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Ccid, FirstTapGpoC5,
    ::testing::Values(C5Ending{"TryOtherInterface", "2400", "060000001800", kTryOtherInterface},
                      C5Ending{"OnDeviceCvm", "0400", "060000001800", kOnDeviceCvm},
                      C5Ending{"DeclineWithCapability0302", "0000", "060000021800",
                               kDeclinedWithoutRecord}),
    CaseName());

// ---- READ RECORD ---------------------------------------------------------------------

TEST(FirstTap, RecordsOfSfi1And11AndTheOdaData) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.afl = "08010201 58010101";
    const std::vector<Bytes> standard = tap.card.Records();
    const Bytes sfi11 = Tlv(0x70, {T(0x9F7A, "0102")});
    tap.card.records = std::vector<Bytes>{standard[0], standard[1], sfi11};
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    ASSERT_EQ(host.capdus.size(), 5u);
    EXPECT_EQ(ToHex(host.capdus[3]), "00B2015C00");
    // SFI 1: the value of record 1's template; SFI 11: the whole record.
    const Bytes &rec1 = standard[0];
    const std::string expected = ToHex(Bytes(rec1.begin() + 2, rec1.end())) + ToHex(sfi11);
    EXPECT_EQ(ToHex({host.g().ODA_AuthData, host.g().ODA_AuthData_len}), expected);
    EXPECT_EQ(host.g().ODA_Data_From_Record_NOK, 0);
    EXPECT_EQ(Db(0x9F7A), "absent");  // SFI 11 is not parsed into the database
}

TEST(FirstTap, AflNamingHundredsOfRecordsIsReadToItsEnd) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.afl = "08010200 1001FF00";
    const std::vector<Bytes> standard = tap.card.Records();
    std::vector<CardExchange> reads = {Respond(FromHex("00B2010C00"), With9000(standard[0])),
                                       Respond(FromHex("00B2020C00"), With9000(standard[1]))};
    for (uint32_t rec = 1; rec <= 255; ++rec)
        reads.push_back(
            Respond({0x00, 0xB2, static_cast<uint8_t>(rec), 0x14, 0x00}, FromHex("7000 9000")));
    tap.recordExchanges = reads;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(host.capdus.size(), 1u + 257u + 1u);
}

struct RecordFailure : NamedCase {
    std::string record1;  // the first record's R-APDU (hex)
};

class FirstTapRecordFailure : public ::testing::TestWithParam<RecordFailure> {};

TEST_P(FirstTapRecordFailure, EndsInTransactionCompletedOnError) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.afl = "08010100";
    tap.recordExchanges =
        std::vector<CardExchange>{Respond(FromHex("00B2010C00"), FromHex(GetParam().record1))};
    tap.endAfter = 2;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kCompletedOnError);
}

const std::string kLongRecord = ToHex(With9000(Tlv(0x70, {Tlv(0x9F7A, Bytes(300, 0x11))})));
const std::string kLongCvmList = ToHex(With9000(Tlv(0x70, {Tlv(0x8E, Bytes(280, 0x00))})));

INSTANTIATE_TEST_SUITE_P(Records, FirstTapRecordFailure,
                         ::testing::Values(RecordFailure{"StatusWord", "6A83"},
                                           RecordFailure{"HostileLength", "7083FFFFFF5A0212349000"},
                                           RecordFailure{"LongerThanItsBuffer", kLongRecord},
                                           RecordFailure{"CvmListOf280Bytes", kLongCvmList}),
                         CaseName());

struct MissingData : NamedCase {
    uint32_t leftOut;   // a tag left out of the records; 0: none
    const char *extra;  // 9F9312 in the reader's data; nullptr: none
};

class FirstTapMandatoryData : public ::testing::TestWithParam<MissingData> {};

TEST_P(FirstTapMandatoryData, MissingDataEndsOnError) {
    ScriptedHost host;
    FirstTap tap;
    if (GetParam().extra != nullptr) tap.reader.extra = {T(0x9F9312, GetParam().extra)};
    std::vector<Bytes> records;
    for (const Bytes &rec : tap.card.Records()) {
        std::vector<Bytes> kept;
        const std::vector<velk::host::TlvNode> parsed = velk::host::ParseTlv(rec);
        for (const auto &child : parsed[0].children)
            if (child.tag != GetParam().leftOut) kept.push_back(Tlv(child.tag, child.value));
        Bytes value;
        for (const Bytes &k : kept)
            value.insert(value.end(), k.begin(), k.end());
        records.push_back(Tlv(0x70, value));
    }
    tap.card.records = records;
    tap.endAfter = 3;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kCompletedOnError);
    EXPECT_EQ(host.capdus.size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Tags, FirstTapMandatoryData,
                         ::testing::Values(MissingData{"NoCdol1", 0x8C, nullptr},
                                           MissingData{"NoTrack2", 0x57, nullptr},
                                           MissingData{"ConfiguredTagMissing", 0, "5F24 9F4A"},
                                           MissingData{"ConfiguredTagLeftOut", 0x5F25, "5F25"}),
                         CaseName());

// ---- The kernel's own tags from the card ---------------------------------------------

// A card that sends the reader's TAC Denial (9F8246) of all zeros, from any of
// its templates, must not lift the reader's denial of "offline data
// authentication not performed".
struct KernelTagFromCard : NamedCase {
    std::function<void(FirstTap &, const Bytes &)> send;
};

class FirstTapKernelTag : public ::testing::TestWithParam<KernelTagFromCard> {};

TEST_P(FirstTapKernelTag, IsIgnored) {
    ScriptedHost host;
    FirstTap tap;
    tap.reader.tacDenial = "8000000000";
    tap.gacP1 = 0x00;
    tap.card.cid = "00";
    GetParam().send(tap, T(0x9F8246, "0000000000"));
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    EXPECT_TRUE(host.CardDone());
    EXPECT_EQ(Db(0x9F8246), "8000000000");
}

INSTANTIATE_TEST_SUITE_P(
    Templates, FirstTapKernelTag,
    ::testing::Values(
        KernelTagFromCard{"Gpo", [](FirstTap &t, const Bytes &b) { t.card.gpoExtra = {b}; }},
        KernelTagFromCard{"Record", [](FirstTap &t, const Bytes &b) { t.card.record1Extra = {b}; }},
        KernelTagFromCard{"GenerateAc",
                          [](FirstTap &t, const Bytes &b) { t.card.gacExtra = {b}; }}),
    CaseName());

// ---- Restrictions, verification, risk management, action analysis -------------------

struct TvrCase : NamedCase {
    std::function<void(FirstTap &)> set;
    const char *tvr;  // at GENERATE AC
    uint8_t p1;
    const char *cvmResults;
};

class FirstTapTvr : public ::testing::TestWithParam<TvrCase> {};

// Each finding shows in the TVR sent with GENERATE AC, and a matching
// action code turns the TC request into an ARQC (type 22) or AAC (denial).
TEST_P(FirstTapTvr, FindingsReachGenerateAc) {
    ScriptedHost host;
    FirstTap tap;
    GetParam().set(tap);
    tap.tvr = GetParam().tvr;
    tap.gacP1 = GetParam().p1;
    tap.card.cid = GetParam().p1 == 0x40 ? "40" : GetParam().p1 == 0x80 ? "80" : "00";
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_TRUE(host.CardDone());
    EXPECT_EQ(Tvr(host), GetParam().tvr);
    EXPECT_EQ(Db(0x9F34), GetParam().cvmResults);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Findings, FirstTapTvr,
    ::testing::Values(
        TvrCase{"Expired", [](FirstTap &t) { t.card.expiry = "241231"; }, "8040000000", 0x40, "3F0000"},
        TvrCase{"ExpiredDenied", [](FirstTap &t) { t.card.expiry = "241231"; t.reader.tacDenial = "0040000000"; }, "8040000000", 0x00, "3F0000"},
        TvrCase{"NotYetEffective", [](FirstTap &t) { t.card.effective = "250102"; }, "8020000000", 0x40, "3F0000"},
        TvrCase{"VersionsDiffer", [](FirstTap &t) { t.card.version = "0003"; }, "8080000000", 0x40, "3F0000"},
        TvrCase{"ServiceNotAllowed", [](FirstTap &t) { t.card.auc = "FFD7"; }, "8000000000", 0x40, "3F0000"},
        TvrCase{"ServiceNotAllowedDomestic", [](FirstTap &t) { t.card.auc = "D700"; }, "8010000000", 0x40, "3F0000"},
        TvrCase{"SignatureAboveTheCvmLimit", [](FirstTap &t) { t.purchase.amount = "000000006000"; }, "8000000000", 0x40, "1E0300"},
        TvrCase{"OnlinePinGoesOnline", [](FirstTap &t) { t.purchase.amount = "000000006000"; t.card.cvmList = "00000000 00000000 0203 1E03"; t.reader.tacOnline = "0000040000"; }, "8000040000", 0x80, "020300"},
        TvrCase{"NoRuleApplies", [](FirstTap &t) { t.purchase.amount = "000000006000"; t.card.cvmList = "00000000 00000000 0103 0600"; }, "8000C00000", 0x40, "3F0001"},
        TvrCase{"CvmListMissing", [](FirstTap &t) { t.card.cvmList = "0000000000000000"; }, "A000000000", 0x40, "3F0000"},
        TvrCase{"FloorLimitExceeded", [](FirstTap &t) { t.purchase.amount = "000000010000"; t.card.cvmList = "00000000 00000000 1E00"; t.reader.tacOnline = "0000008000"; }, "8000008000", 0x80, "1E0000"},
        TvrCase{"RandomlySelected", [](FirstTap &t) { t.reader.extra = {T(0x9F8243, "99"), T(0x9F8242, "99"), T(0x9F8244, "000000000000")}; t.reader.tacOnline = "0000001000"; }, "8000001000", 0x80, "3F0000"},
        TvrCase{"TerminalTypeOnlineOnly", [](FirstTap &t) { t.reader.terminalType = "21"; }, "8000000000", 0x80, "3F0000"},
        TvrCase{"TerminalTypeOfflineOnlyDefault", [](FirstTap &t) { t.reader.terminalType = "26"; t.card.iacDefault = "8000000000"; }, "8000000000", 0x00, "3F0000"}),
    CaseName());
// clang-format on

TEST(FirstTap, VelocityChecksReadTheCountersBeforeGenerateAc) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.record2Extra = {T(0x9F14, "02"), T(0x9F23, "05")};
    tap.beforeGac = {Respond(FromHex("80CA9F3600"), FromHex("9F3602000A 9000")),
                     Respond(FromHex("80CA9F1300"), FromHex("9F13020007 9000"))};
    tap.tvr = "8000004000";  // 3 offline since the last online: lower limit exceeded
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(host.g().ucTSI[0], 0x08);
}

TEST(FirstTap, CardOnTheExceptionFileIsDeclined) {
    ScriptedHost host;
    FirstTap tap;
    tap.reader.extra = {T(0x9F8227, "01")};
    tap.reader.tacDenial = "1000000000";
    tap.card.record1Extra = {T(0x5F34, "01")};
    host.On(0xE6, [](const Message &msg) {
        EXPECT_EQ(ToHex(msg.payload), "5A0854133300896010405F340101");
        return Answer::Reply({T(0xDF05, "01")});
    });
    tap.tvr = "9000000000";
    tap.gacP1 = 0x00;
    tap.card.cid = "00";
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    EXPECT_EQ(Db(0x8A), "5A31");  // "Z1"
}

TEST(FirstTap, BadRandomSelectionParametersEndTheApplication) {
    ScriptedHost host;
    FirstTap tap;
    tap.reader.extra = {T(0x9F8243, "A0")};
    tap.endAfter = 3;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0x31517u);
    EXPECT_EQ(ToHex(r.ops), kEndApplication);
}

TEST(FirstTap, InvalidExpiryDateEndsOnError) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.expiry = "230229";
    tap.endAfter = 3;
    EXPECT_EQ(ToHex(tap.Run(host).ops), kCompletedOnError);
}

TEST(FirstTap, OddCvmListIsReplacedByTheLaterOutcome) {
    ScriptedHost host;
    FirstTap tap;
    tap.purchase.amount = "000000006000";
    tap.card.cvmList = "00000000 00000000 1E03 1F";
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(Db(0x9F34), "3F0000");
}

// ---- GENERATE AC ---------------------------------------------------------------------

struct GacFailure : NamedCase {
    std::string rapdu;
};

class FirstTapGacFailure : public ::testing::TestWithParam<GacFailure> {};

TEST_P(FirstTapGacFailure, EndsInTransactionCompletedOnError) {
    ScriptedHost host;
    FirstTap tap;
    tap.gac = Respond(tap.GacCommand(), FromHex(GetParam().rapdu));
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kCompletedOnError);
    EXPECT_FALSE(CardReadShown(host));
}

INSTANTIATE_TEST_SUITE_P(
    Responses, FirstTapGacFailure,
    ::testing::Values(GacFailure{"Format1", "800B 40 0001 1122334455667788 9000"},
                      GacFailure{"StatusWord", "6985"},
                      GacFailure{"HostileLength", "7783FFFFFF 9F270140 9000"},
                      GacFailure{"CidMissing",
                                 "7716 9F36020001 9F26081122334455667788 9F1001AA 9000"}),
    CaseName());

TEST(FirstTap, GenerateAcResponseLongerThanItsBufferEndsTheApplication) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.gacExtra = {Tlv(0x9F7A, Bytes(240, 0))};
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0x30105u);
    EXPECT_EQ(ToHex(r.ops), kEndApplication);
}

struct GacEnding : NamedCase {
    const char *cid;
    std::vector<Bytes> extra;  // in the GENERATE AC response
    const char *ops;
};

class FirstTapGacEnding : public ::testing::TestWithParam<GacEnding> {};

TEST_P(FirstTapGacEnding, CardDecidesAfterGenerateAc) {
    ScriptedHost host;
    FirstTap tap;
    tap.card.cid = GetParam().cid;
    tap.card.gacExtra = GetParam().extra;
    EXPECT_EQ(ToHex(tap.Run(host).ops), GetParam().ops);
}

INSTANTIATE_TEST_SUITE_P(
    Ccid, FirstTapGacEnding,
    ::testing::Values(GacEnding{"TcAskedAndAacGiven", "00", {}, kTryOtherInterface},
                      GacEnding{"TryOtherInterfaceInC5", "40", {T(0xC5, "20")}, kTryOtherInterface},
                      GacEnding{"OnDeviceCvmInC5", "40", {T(0xC5, "04")}, kOnDeviceCvm}),
    CaseName());

TEST(FirstTap, CommunicationErrorDuringGenerateAc) {
    ScriptedHost host;
    FirstTap tap;
    tap.gac = SignalInstead(tap.GacCommand(), 0xA5);
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), "7010F0F0C0F01300");
}

// ---- De-activation -------------------------------------------------------------------

TEST(FirstTap, ApprovalWithSignatureSetsTheReceiptBit) {
    ScriptedHost host;
    FirstTap tap;
    tap.purchase.amount = "000000006000";
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApprovedSignature);
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ((*p.uird)[0], 0x1A);
    EXPECT_EQ(RecordValue(p, 0x9F34), "1E0300");
}

TEST(FirstTap, OfflineDeclineCarriesItsDataRecord) {
    ScriptedHost host;
    FirstTap tap;
    tap.AskOnline("00");
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    const OutcomePacket p(r.out);
    EXPECT_EQ(RecordValue(p, 0x9F27), "00");
    EXPECT_EQ(RecordValue(p, 0x9F26), "1122334455667788");
    EXPECT_EQ(RecordValue(p, 0x5A), "5413330089601040");
    ASSERT_TRUE(p.uird);
    EXPECT_EQ((*p.uird)[0], 0x07);
}

TEST(FirstTap, OnlineRequest) {
    ScriptedHost host;
    FirstTap tap;
    tap.AskOnline();
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kOnlineRequest);
    EXPECT_EQ(Db(0x8A), "absent");
}

TEST(FirstTap, TcGivenWhenArqcWasAskedEndsTheApplication) {
    ScriptedHost host;
    FirstTap tap;
    tap.AskOnline("40");
    EXPECT_EQ(ToHex(tap.Run(host).ops), kEndApplication);
}

TEST(FirstTap, BalanceIsReadAndShownWithTheApproval) {
    ScriptedHost host;
    FirstTap tap;
    tap.reader.capabilities = "060000081800";
    tap.afterGac = {Respond(FromHex("80CA9F5000"), FromHex("9F5006000000001234 9000")),
                    Respond(FromHex("80CA00CD00"), FromHex("00FF CD020978 9000"))};
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ(ToHex(Bytes(p.uird->begin() + 13, p.uird->end())),
              "20"
              "000000001234"
              "0978");
}

}  // namespace
}  // namespace velk::test
