// Whole transactions that end at kernel start: the host's requests byte for
// byte, the FCI from a signal or from the input, and every way an FCI fails.
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "baseKernel.h"
#include "checked.hpp"
#include "scripted_host.hpp"
#include "tlv.h"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::Cat;
using velk::host::FromHex;
using velk::host::ToHex;

const Bytes kSelectNextOps = FromHex("50 20 F0 F0 00 F0 FF 00");
const Bytes kEndApplicationOps = FromHex("40 F0 F0 F0 80 F0 FF 00");

Bytes Ops(const ScriptedHost::Result &result) {
    return OutcomePacket(result.out).ops;
}

TEST(KernelStart, AFirstTapAsksForTerminalDataANumberAndTheAidsParametersByteForByte) {
    ScriptedHost host;
    ConfigureFirstTap(host);
    const auto result = host.Start(TransactionInput(PurchaseParams(), 0x03));

    EXPECT_EQ(result.status, 0u);
    ASSERT_EQ(host.messages.size(), 3u);
    EXPECT_EQ(ToHex(host.messages[0].raw), "7F0104DF0001D1");
    EXPECT_EQ(ToHex(host.messages[1].raw), "7F0104DF0001D5");
    EXPECT_EQ(ToHex(host.messages[2].raw),
              "7F0116DF0001D3"
              "9F0607A0000000031010"
              "9C0100"
              "5F2A020978");
    EXPECT_EQ(host.g().ucKernelID, 0x03);
    // The number is kept as 9F37; the AID as 9F06.
    EXPECT_EQ(DbHex(0x9F37), "11223344");
    EXPECT_EQ(DbHex(0x9F06), ToHex(kAid));
}

TEST(KernelStart, WithoutACurrencyCodeTheAidRequestCarriesOnlyTheAidAndTheType) {
    ScriptedHost host;
    ConfigureFirstTap(host);
    std::vector<Bytes> params = {T(0x9C, "20")};
    (void)host.Start(TransactionInput(params));
    const auto d3 = host.MessagesFor(VELK_CMD_AID_PARAMS);
    ASSERT_EQ(d3.size(), 1u);
    EXPECT_EQ(ToHex(d3[0].raw),
              "7F0111DF0001D3"
              "9F0607A0000000031010"
              "9C0120");
}

TEST(KernelStart, TheFciOfTheSignalIsCheckedStoredAndKeptWithoutItsStatusWord) {
    ScriptedHost host;
    ConfigureFirstTap(host);
    (void)host.Start(TransactionInput(PurchaseParams()));

    const Bytes fci = Fci(kAid, {T(0x50, "56454C4B")});
    EXPECT_EQ(DbHex(0x9F8201), ToHex(fci));
    // Its elements are in the database too, the constructed ones included.
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x84), 1);
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x50), 1);
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0xA5), 1);
    const uint8_t *kept = velk::DtpFind(0x9F8201);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(Bytes(kept, kept + TLV_GetTlvTotalLen(kept)), velk::host::Tlv(0x9F8201, fci));
}

TEST(KernelStart, AnFciThatCameWithTheInputServesWithoutASignal) {
    ScriptedHost host;
    host.ics = ReaderIcs();
    std::vector<Bytes> params = PurchaseParams();
    params.push_back(velk::host::Tlv(0x9F8201, Fci(kAid)));
    const auto result = host.Start(TransactionInput(params));
    EXPECT_EQ(result.status, 0u);
    EXPECT_EQ(host.Commands(), (std::vector<uint8_t>{0xD1, 0xD5, 0xD3}));
    // Not analysed at the start: its elements are not stored.
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x84), 0);
}

TEST(KernelStart, NoFciAtAllIsTheDatabasesMissingTagWithNoOutcome) {
    ScriptedHost host;
    host.ics = ReaderIcs();
    const auto result = host.Start(TransactionInput(PurchaseParams()));
    EXPECT_EQ(result.status, 0x31004u);
    EXPECT_EQ(host.Commands(), (std::vector<uint8_t>{0xD1, 0xD5}));
    EXPECT_EQ(Ops(result), Bytes(8, 0));
}

// ---- FCI failures -------------------------------------------------------------

struct FciCase {
    const char *name;
    Bytes response;  // as the A0 signal carries it
    uint32_t code;   // of the check
};
void PrintTo(const FciCase &c, std::ostream *os) {
    *os << c.name;
}

Bytes Padded(size_t n) {
    return Bytes(n, 0x11);
}

std::vector<FciCase> FciCases() {
    const Bytes good = Fci(kAid, {T(0x50, "56454C4B")});
    Bytes longer = good;
    longer[1] += 1;  // 6F claims one byte more than it has
    Bytes broken = good;
    broken[broken.size() - 5] = 0x7F;  // 50 runs past A5
    const Bytes bigName = Fci(Padded(33));
    return {
        {"StatusWord6A82", Cat({good, FromHex("6A82")}), 0x30203},
        {"NoStatusWordAtAll", FromHex("90"), 0x30203},
        {"OnlyAStatusWord", FromHex("9000"), 0x30204},
        {"LengthMismatch", With9000(longer), 0x30204},
        {"TrailingByte", With9000(Cat({good, FromHex("00")})), 0x30204},
        {"NotWellFormed", With9000(broken), 0x30201},
        {"No6F",
         With9000(velk::host::Tlv(
             0x70, {velk::host::Tlv(0x84, kAid), velk::host::Tlv(0xA5, FromHex("500141"))})),
         0x30206},
        {"Empty6F", With9000(FromHex("6F00")), 0x30206},
        {"No84", With9000(velk::host::Tlv(0x6F, {velk::host::Tlv(0xA5, Bytes{})})), 0x30208},
        {"NoA5", With9000(velk::host::Tlv(0x6F, {velk::host::Tlv(0x84, kAid)})), 0x30207},
        {"EmptyA5", With9000(Fci(kAid)), 0x30207},
        {"LongerThan300", Padded(301), velk::kErrFciTooLong},
        // The check passes; kernel start refuses the name.
        {"DfNameOf33Bytes", With9000(Fci(Padded(33), {T(0x50, "41")})), 0},
    };
}

class FciFailure : public ::testing::TestWithParam<FciCase> {};

TEST_P(FciFailure, TheCheckGivesItsCodeAndTheTransactionSelectsTheNextApplication) {
    const FciCase &c = GetParam();
    {
        BoundKernel kernel;
        Bytes copy = c.response;
        ClessSignal_Message signal{VELK_SIGNAL_FCI, copy.data(),
                                   static_cast<uint32_t>(copy.size())};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
        uint8_t dtp[] = {0x7F, 0x01, 0x00};
        std::memcpy(kernel.g().ucDynamicTransactionParameters, dtp, sizeof dtp);
        kernel.g().uiDynamicTransactionParametersLen = sizeof dtp;
        EXPECT_EQ(VelkCless_Process_FCI(), c.code);
    }
    ScriptedHost host;
    host.ics = ReaderIcs();
    host.Post(VELK_SIGNAL_FCI, c.response);
    const auto result = host.Start(TransactionInput(PurchaseParams()));
    EXPECT_EQ(result.status, 0u);
    EXPECT_EQ(host.Commands(), (std::vector<uint8_t>{0xD1, 0xD5}));
    const OutcomePacket packet(result.out);
    EXPECT_EQ(packet.ops, kSelectNextOps);
    EXPECT_EQ(packet.order, std::vector<uint32_t>{0xDF8129});
}

TEST(KernelStart, AnFciOfExactly300BytesWithItsStatusWordFitsItsWorkArea) {
    BoundKernel kernel;
    Bytes response = With9000(Fci(kAid, {velk::host::Tlv(0x50, Bytes(16, 0x41)),
                                         velk::host::Tlv(0xDF8102, Bytes(257, 0x00))}));
    ASSERT_EQ(response.size(), 300u);
    ClessSignal_Message signal{VELK_SIGNAL_FCI, response.data(), 300};
    Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
    const uint8_t dtp[] = {0x7F, 0x01, 0x00};
    std::memcpy(kernel.g().ucDynamicTransactionParameters, dtp, sizeof dtp);
    kernel.g().uiDynamicTransactionParametersLen = sizeof dtp;
    EXPECT_EQ(VelkCless_Process_FCI(), 0u);
}

INSTANTIATE_TEST_SUITE_P(EachCheck, FciFailure, ::testing::ValuesIn(FciCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(KernelStart, AnFciFailureEndsTheApplicationForTheReaderOnTheContextFirstRoad) {
    ScriptedHost host;
    host.ics = ReaderIcs();
    host.Post(VELK_SIGNAL_FCI, FromHex("6A82"));
    std::vector<Bytes> params = PurchaseParams();
    params.push_back(T(0x9F872B, "10"));
    params.push_back(T(0x9F8211, "01"));
    const auto result = host.Start(TransactionInput(params));
    EXPECT_EQ(result.status, 0u);
    const OutcomePacket packet(result.out);
    EXPECT_EQ(packet.ops, kEndApplicationOps);
    EXPECT_EQ(packet.reader, FromHex("01"));
    EXPECT_EQ(packet.order.back(), 0x9F8211u);
}

TEST(KernelStart, AnFciFromTheInputWithoutADfNameOrNotWellFormedSelectsTheNextApplication) {
    for (const Bytes &fci :
         {velk::host::Tlv(0x6F, {velk::host::Tlv(0xA5, Bytes{})}), FromHex("6F0584")}) {
        ScriptedHost host;
        host.ics = ReaderIcs();
        std::vector<Bytes> params = PurchaseParams();
        params.push_back(velk::host::Tlv(0x9F8201, fci));
        const auto result = host.Start(TransactionInput(params));
        EXPECT_EQ(result.status, 0u) << ToHex(fci);
        EXPECT_EQ(Ops(result), kSelectNextOps) << ToHex(fci);
    }
}

// ---- The dynamic transaction parameters' bound ------------------------------------

// 7F11's children fill the 7F01 of the dynamic transaction parameters to
// exactly `total` bytes (from 270 on): the header 7F 01 82 LL LL, a filler
// DF 81 01 82 LL LL with its value, and 9C 01 00 last.
Bytes InputFillingDtp(uint32_t total) {
    const Bytes value(total - 5 - 6 - 3, 0x22);
    return TransactionInput({velk::host::Tlv(0xDF8101, value), T(0x9C, "00")});
}

TEST(KernelStart, DynamicParametersOf511BytesAreAcceptedAnd512Refused) {
    for (uint32_t total : {511u, 512u}) {
        ScriptedHost host;
        ConfigureFirstTap(host);
        const auto result = host.Start(InputFillingDtp(total));
        if (total == 511) {
            EXPECT_EQ(result.status, 0u);
            EXPECT_EQ(host.g().uiDynamicTransactionParametersLen, 511u);
        } else {
            EXPECT_EQ(result.status, 0x31007u);
            EXPECT_TRUE(host.messages.empty());
            // The element that did not fit is in the database all the same.
            EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x9C), 1);
        }
    }
}

// ---- Host replies that are not what they claim --------------------------------------

class MalformedReply : public ::testing::TestWithParam<uint8_t> {};

TEST_P(MalformedReply, IsRefusedWithTheHostReplyCode) {
    const uint8_t command = GetParam();
    ScriptedHost host;
    host.ics = ReaderIcs();
    // The reply's length runs far past the exchange buffer.
    host.On(command, [](const Message &) { return Answer::Raw(FromHex("7F0182FFFF")); });
    switch (command) {
        case VELK_CMD_ICS_PARAMS:
            EXPECT_EQ(VelkCless_GetICS_Param(), velk::kErrHostReply);
            break;
        case VELK_CMD_AID_PARAMS:
            EXPECT_EQ(VelkCless_Transaction_Get_AID_Parameter(kAid.data(), 7), velk::kErrHostReply);
            break;
        case VELK_CMD_UNPREDICTABLE_NUMBER:
            EXPECT_EQ(VelkCless_Get_Unpredictable_Number(), velk::kErrHostReply);
            break;
        default: {
            uint8_t rapdu[260];
            uint32_t len = sizeof rapdu;
            EXPECT_EQ(VelkCless_ExchangeAPDU(FromHex("00B2010C00").data(), 5, rapdu, &len),
                      velk::kErrHostReply);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Requests, MalformedReply,
                         ::testing::Values(VELK_CMD_ICS_PARAMS, VELK_CMD_AID_PARAMS,
                                           VELK_CMD_UNPREDICTABLE_NUMBER, VELK_CMD_APDU));

}  // namespace
}  // namespace velk::test
