// Torn GENERATE AC recovered with the ECHO command, through Kernel_Start_VELK_:
// the restart message, the card presented again, the re-selection, the ECHO
// in both forms, and the roads where recovery fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "baseKernel.h"
#include "db_access.hpp"
#include "first_tap.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "scripted_host.hpp"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::Tlv;
using velk::host::ToHex;

const Bytes kSelect = FromHex("00A4040007A000000003101000");
const Bytes kEchoFirst = FromHex(
    "80DF01000411223344"
    "00");
const Bytes kEchoSecond = FromHex(
    "80DF0200081122334455667788"
    "00");

// A card with an ECHO identifier in its FCI on a reader that supports ECHO
// (capability byte 2 bit 0x20) and recovery (option 0x10).
FirstTap EchoTap() {
    FirstTap tap;
    tap.reader.capabilities = "060020001800";
    tap.reader.options = "10";
    tap.card.fciExtra = {T(0x9F75, "0102")};
    return tap;
}

// ---- The first GENERATE AC torn -------------------------------------------------------

struct FirstGacCase : NamedCase {
    uint8_t cardActive = kCardPresentSignal;  // the signal after D6
    // The exchanges after the torn GENERATE AC (tap: the standard card).
    std::vector<CardExchange> (*after)(const FirstTap &tap);
    const char *ops;
    size_t restarts = 1;  // FE messages
};

std::vector<FirstGacCase> FirstGacCases() {
    return {
        {{"EchoBringsTheResponse"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              Respond(kEchoFirst, t.card.GacResponse())};
         },
         kApproved},
        {{"EchoNot9000"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              Respond(kEchoFirst, FromHex("6A88"))};
         },
         kCompletedOnError},
        {{"EchoTorn"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              SignalInstead(kEchoFirst, 0xA5)};
         },
         kCommunicationError},
        {{"EchoStopped"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              SignalInstead(kEchoFirst, 0xA1)};
         },
         kEndApplication},
        // Any other failure of the ECHO leaves no response to judge.
        {{"EchoCallbackFails"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              FailCallback(kEchoFirst, 0x31234)};
         },
         kCompletedOnError},
        {{"CardNotPresentedAgain"},
         0xA1,
         [](const FirstTap &) { return std::vector<CardExchange>{}; },
         kErroneousReactivation},
        {{"SelectRefused"},
         kCardPresentSignal,
         [](const FirstTap &) {
             return std::vector<CardExchange>{Respond(kSelect, FromHex("6A82"))};
         },
         kErroneousReactivation},
        {{"SelectWithoutStatusWord"},
         kCardPresentSignal,
         [](const FirstTap &) {
             return std::vector<CardExchange>{Respond(kSelect, FromHex("6F"))};
         },
         kErroneousReactivation},
        {{"SelectLongerThanItsBuffer"},
         kCardPresentSignal,
         [](const FirstTap &) {
             return std::vector<CardExchange>{Respond(kSelect, Bytes(300, 0x90))};
         },
         kErroneousReactivation},
        // A SELECT torn as well: another restart, another tap.
        {{"SelectTornThenRecovered"},
         kCardPresentSignal,
         [](const FirstTap &t) {
             return std::vector<CardExchange>{SignalInstead(kSelect, 0xA5),
                                              Respond(kSelect, With9000(t.card.Fci())),
                                              Respond(kEchoFirst, t.card.GacResponse())};
         },
         kApproved,
         2},
    };
}

class TornFirstGac : public ::testing::TestWithParam<FirstGacCase> {};

TEST_P(TornFirstGac, IsRecoveredOrEndsWithItsOutcome) {
    const FirstGacCase &c = GetParam();
    ScriptedHost host;
    host.cardActiveSignal = c.cardActive;
    FirstTap tap = EchoTap();
    tap.gac = SignalInstead(tap.GacCommand(), 0xA5);
    tap.afterGac = c.after(tap);
    const TapResult r = tap.Run(host);
    EXPECT_EQ(ToHex(r.ops), c.ops);
    EXPECT_EQ(Db(0x9F9303), "01");
    ASSERT_EQ(host.restarts.size(), c.restarts);
    // The restart message is the outcome packet of the communication error.
    const OutcomePacket restart(host.restarts[0]);
    EXPECT_EQ(ToHex(restart.ops), kCommunicationError);
    EXPECT_EQ(restart.order, (std::vector<uint32_t>{0xDF8129, 0xDF8116, 0x9F8117}));
    const std::vector<uint8_t> commands = host.Commands();
    const auto fe = std::find(commands.begin(), commands.end(), VELK_CMD_RESTART);
    ASSERT_NE(fe, commands.end());
    EXPECT_EQ(*(fe + 1), VELK_CMD_CARD_ACTIVE);
}

INSTANTIATE_TEST_SUITE_P(Roads, TornFirstGac, ::testing::ValuesIn(FirstGacCases()), CaseName());

TEST(TornFirstGac, TheRecoveredResponseIsAnalysedAndRecordedAsTheCardsOwn) {
    ScriptedHost host;
    FirstTap tap = EchoTap();
    tap.gac = SignalInstead(tap.GacCommand(), 0xA6);
    tap.afterGac = {Respond(kSelect, With9000(tap.card.Fci())),
                    Respond(kEchoFirst, tap.card.GacResponse())};
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.record);
    EXPECT_EQ(ToHex(velk::host::Find(*p.record, 0x9F26)->value), "1122334455667788");
    // Six exchanges: GPO, two records, the torn GENERATE AC, SELECT, ECHO.
    EXPECT_EQ(host.capdus.size(), 6u);
    EXPECT_EQ(Db(0x9F8201), ToHex(tap.card.Fci()));
}

// ---- The second GENERATE AC torn -------------------------------------------------------

// An online tap on the ECHO card: capabilities for the online tap and ECHO,
// options for recovery, restart and online response processing.
FirstTap EchoOnlineTap() {
    FirstTap tap = EchoTap();
    tap.reader.capabilities = "0600A0001800";
    tap.reader.options = "16";
    tap.AskOnline();
    tap.card.gacExtra = {T(0xC5, "08")};
    return tap;
}

struct SecondGacCase : NamedCase {
    std::vector<CardExchange> (*after)(const FirstTap &tap);
    const char *ops;
    uint32_t status = 0;
    size_t restarts = 1;
};

std::vector<SecondGacCase> SecondGacCases() {
    return {
        {{"EchoBringsTheResponse"},
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              Respond(kEchoSecond, t.card.SecondGacResponse("40"))};
         },
         kApproved},
        {{"EchoNot9000"},
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              Respond(kEchoSecond, FromHex("6985"))};
         },
         kErroneousReactivation,
         0x33001},
        // The ECHO torn too: another restart and selection, then the
        // transaction starts again from kernel start without its context, and
        // no second GENERATE AC can be sent.
        {{"EchoTornRestartsFromKernelStart"},
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              SignalInstead(kEchoSecond, 0xA5),
                                              Respond(kSelect, With9000(t.card.Fci()))};
         },
         kErroneousReactivation,
         0,
         2},
        {{"EchoTornAndCardNotBack"},
         [](const FirstTap &t) {
             return std::vector<CardExchange>{Respond(kSelect, With9000(t.card.Fci())),
                                              SignalInstead(kEchoSecond, 0xA5),
                                              Respond(kSelect, FromHex("6A82"))};
         },
         kErroneousReactivation,
         0x31213,
         2},
    };
}

class TornSecondGac : public ::testing::TestWithParam<SecondGacCase> {};

TEST_P(TornSecondGac, IsRecoveredOrEndsInErroneousReactivation) {
    const SecondGacCase &c = GetParam();
    ScriptedHost host;
    const FirstTap tap = EchoOnlineTap();
    ASSERT_EQ(ToHex(tap.Run(host).ops).substr(0, 6), "301003");
    const IssuerResponse response;
    std::vector<CardExchange> card = {SignalInstead(tap.SecondGacCommand(0x40, response), 0xA5)};
    for (const CardExchange &e : c.after(tap))
        card.push_back(e);
    const TapResult r = tap.RunSecondEntry(host, response, card);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(ToHex(r.ops), c.ops);
    EXPECT_EQ(host.restarts.size(), c.restarts);
}

INSTANTIATE_TEST_SUITE_P(Roads, TornSecondGac, ::testing::ValuesIn(SecondGacCases()), CaseName());

TEST(TornSecondGac, TheEchoSendsZerosForAMissing91AndKeepsTheTornMark) {
    ScriptedHost host;
    FirstTap tap = EchoOnlineTap();
    // With 91 absent the ECHO's data are eight zeros.
    tap.Run(host);
    VelkDataBase_Del_TAG(0x91);
    VelkCless_Set_CommunicationProblemIndicator(2);
    host.card.push_back(Respond(FromHex("80DF020008000000000000000000"), FromHex("9000")));
    EXPECT_EQ(VelkCless_RecoveryTrans_Send_ECHO_Command(), 0u);
    EXPECT_EQ(host.g().uiLastRAPDULen, 2u);
}

}  // namespace
}  // namespace velk::test
