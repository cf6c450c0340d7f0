// The words velk-term puts on bytes: bit by bit for TVR, TSI, AIP and CVM
// Results, field by field for the outcome, with tag names for TLV data.
#include <gtest/gtest.h>

#include <set>

#include "velk/card/json_profile.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/explain.hpp"
#include "velk/term/tags.hpp"

namespace velk::term {
namespace {

using velk::host::FromHex;
using Lines = std::vector<std::string>;

TEST(Explain, TvrNamesEverySetBitAndReservedOnes) {
    EXPECT_EQ(ExplainTvr(FromHex("8000008000")),
              (Lines{"byte 1 bit 80: Offline data authentication was not performed",
                     "byte 4 bit 80: Transaction exceeds floor limit"}));
    EXPECT_EQ(ExplainTvr(FromHex("0000000000")), Lines{"no bit set"});
    EXPECT_EQ(ExplainTvr(FromHex("0100000000")), Lines{"byte 1 bit 01: reserved"});
    const Lines all = ExplainTvr(FromHex("FFFFFFFFFF"));
    ASSERT_EQ(all.size(), 40u);
    EXPECT_EQ(all[9], "byte 2 bit 40: Expired application");
    EXPECT_EQ(all[18], "byte 3 bit 20: PIN Try Limit exceeded");
    EXPECT_EQ(all[34], "byte 5 bit 20: Script processing failed before final GENERATE AC");
}

TEST(Explain, TsiAndAip) {
    EXPECT_EQ(ExplainTsi(FromHex("E800")),
              (Lines{"byte 1 bit 80: Offline data authentication was performed",
                     "byte 1 bit 40: Cardholder verification was performed",
                     "byte 1 bit 20: Card risk management was performed",
                     "byte 1 bit 08: Terminal risk management was performed"}));
    EXPECT_EQ(ExplainAip(FromHex("5900")),
              (Lines{"byte 1 bit 40: SDA supported",
                     "byte 1 bit 10: Cardholder verification is supported",
                     "byte 1 bit 08: Terminal risk management is to be performed",
                     "byte 1 bit 01: CDA supported"}));
}

TEST(Explain, CvmResultsCvmListAndAfl) {
    EXPECT_EQ(ExplainCvmResults(FromHex("420300")),
              (Lines{"CVM performed: Enciphered PIN verified online",
                     "condition: if the terminal supports the CVM", "result: unknown"}));
    EXPECT_EQ(ExplainCvmResults(FromHex("3F0000"))[1], "condition: none");
    EXPECT_EQ(ExplainCvmResults(FromHex("1E03")).size(), 1u);
    EXPECT_EQ(
        ExplainCvmList(FromHex("000003E8 00000000 4203 1F0A 1F")),
        (Lines{"amount X 1000, amount Y 0",
               "rule 4203: Enciphered PIN verified online, if the terminal supports the CVM, next "
               "rule if unsuccessful",
               "rule 1F0A: No CVM required, condition 0A (not defined), fail if unsuccessful",
               "odd length: the last byte is not a whole rule"}));
    EXPECT_EQ(ExplainAfl(FromHex("08010301 100101")),
              (Lines{"SFI 1, records 1 to 3, 1 for offline data authentication",
                     "length not a multiple of 4"}));
}

TEST(Explain, CryptogramInformationData) {
    EXPECT_EQ(ExplainCid(FromHex("80")), "ARQC (online authorisation requested)");
    EXPECT_EQ(ExplainCid(FromHex("4A")),
              "TC (approved offline), advice required, PIN try limit exceeded");
    EXPECT_EQ(ExplainCid(FromHex("C0")), "type C0 (not allowed)");
}

TEST(Explain, OutcomeParameterSetFieldByField) {
    const auto o = ParseOutcomeParameters(FromHex("30300420E0F0FF05"));
    ASSERT_TRUE(o);
    EXPECT_EQ(OutcomeStatusName(o->status), "ONLINE REQUEST");
    EXPECT_EQ(StartName(o->start), "D");
    EXPECT_EQ(OnlineResponseName(o->online_response),
              "long tap (the card stays in the field for the response)");
    EXPECT_EQ(OutcomeCvmName(o->cvm), "online PIN");
    EXPECT_EQ(PresenceWords(o->presence),
              (Lines{"UI request on outcome", "UI request on restart", "data record"}));
    EXPECT_EQ(FieldOffName(0x13), "field off, hold time 1900 ms");
    EXPECT_EQ(o->removal_timeout, 5);
    EXPECT_FALSE(ParseOutcomeParameters(FromHex("30")));
    EXPECT_EQ(OutcomeStatusName(0x99), "value 99");
}

TEST(Explain, UserInterfaceRequestData) {
    const auto ui = ParseUiRequest(FromHex("03 04 000013 656E000000000000 20 000000001500 0978"));
    ASSERT_TRUE(ui);
    EXPECT_EQ(DescribeUiRequest(*ui),
              "\"Approved\" (03), status Card read successfully, hold 1900 ms, language en, "
              "balance 15.00 EUR");
    EXPECT_FALSE(ParseUiRequest(FromHex("0304")));
    // A value whose currency is not BCD is shown without a currency.
    const auto odd = ParseUiRequest(FromHex("10 04 000000 0000000000000000 20 000000000100 FFFF"));
    EXPECT_EQ(DescribeUiRequest(*odd),
              "\"Remove card\" (10), status Card read successfully, balance 1.00");
}

TEST(Explain, KernelStatusesByCodeOrByArea) {
    EXPECT_EQ(KernelStatusText(0), "0x00000: success");
    EXPECT_EQ(KernelStatusText(0x30101), "0x30101: stopped by the host (signal A1)");
    EXPECT_EQ(KernelStatusText(0x31314), "0x31314: failure in issuer certificate");
    EXPECT_EQ(KernelStatusText(0x3FF02),
              "0x3FF02: failure in the terminal host (velk-term) failed to answer a request");
    EXPECT_EQ(KernelStatusText(0x12345), "0x12345: not a status this tool knows");
}

TEST(Explain, AmountsAndValues) {
    EXPECT_EQ(FormatAmount(FromHex("000000002500"), 2), "25.00");
    EXPECT_EQ(FormatAmount(FromHex("000000000005"), 2), "0.05");
    EXPECT_EQ(FormatAmount(FromHex("000000000000"), 0), "0");
    EXPECT_EQ(FormatAmount(FromHex("0000000A0000"), 2), "0000000A0000 (not BCD)");
    EXPECT_EQ(ShowValue(0x5A, FromHex("8999123456789F")), "8999123456789");
    EXPECT_EQ(ShowValue(0x50, FromHex("56454C4B")), "\"VELK\"");
    EXPECT_EQ(ShowValue(0x50, FromHex("0001")), "0001");
    EXPECT_EQ(ExplainValue(0x8A, FromHex("3030")), Lines{"approved by the issuer"});
    EXPECT_EQ(ExplainValue(0x8A, FromHex("3531")), Lines{"declined by the issuer"});
    EXPECT_EQ(ExplainValue(0x5F2A, FromHex("0840")), Lines{"USD"});
    EXPECT_EQ(ExplainValue(0x9F74, FromHex("0102")),
              Lines{"an update failed, 2 data element(s) updated"});
}

TEST(Explain, DecodeKeepsTagsThatStartWithFf) {
    // The outcome's data record is FF8105: FF is a tag byte here, not padding.
    const Lines lines = DecodeLines(FromHex("7F01 10 DF8129 08 10F0F0F0A0F0FF00 FF8105 00"));
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines[0], "7F01 Kernel message");
    EXPECT_EQ(lines[1], "  DF8129 Outcome Parameter Set: 10F0F0F0A0F0FF00");
    EXPECT_EQ(lines[2], "      - status APPROVED");
    EXPECT_EQ(lines[10], "  FF8105 Data Record");
    // Padding between a card's records is still skipped.
    EXPECT_EQ(DecodeLines(FromHex("9F3602000100FF")).size(), 1u);
    EXPECT_EQ(DecodeLines(FromHex("9F3605")), Lines{"not TLV (TLV: value past the end): 9F3605"});
    const auto json = DecodeJson(FromHex("9505 8000000000"));
    EXPECT_EQ(json[0]["name"], "Terminal Verification Results");
    EXPECT_EQ(json[0]["explain"][0],
              "byte 1 bit 80: Offline data authentication was not performed");
    EXPECT_EQ(DecodeJson(FromHex("95"))["hex"], "95");
}

TEST(TagDictionary, EachTagOnceAndEveryTagOfTheOutcomeNamed) {
    std::set<uint32_t> seen;
    for (uint32_t tag :
         {0xDF8129u, 0xDF8116u, 0x9F8117u, 0xFF8105u, 0xFF8106u, 0x9F8211u, 0x95u, 0x9F27u})
        EXPECT_NE(FindTag(tag), nullptr) << TagHex(tag);
    EXPECT_EQ(TagName(0xDF7F), "unknown tag");
    EXPECT_EQ(TagHex(0x9F02), "9F02");
    EXPECT_EQ(TagHex(0x5A), "5A");
    for (const TagInfo &t : AllTags()) {
        EXPECT_TRUE(seen.insert(t.tag).second) << TagHex(t.tag) << " twice";
        EXPECT_TRUE(velk::card::ParseTagText(TagHex(t.tag)))
            << TagHex(t.tag) << " is not a BER tag";
    }
}

}  // namespace
}  // namespace velk::term
