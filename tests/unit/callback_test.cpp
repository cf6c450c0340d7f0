// The callback channel against the scripted host: the APDU exchange in both
// styles, the signals that stand in for a response, responses and replies
// that do not fit or do not parse, and the small requests.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "baseKernel.h"
#include "checked.hpp"
#include "scripted_host.hpp"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

const Bytes kReadRecord = FromHex("00B2010C00");

struct Exchanged {
    uint32_t status;
    Bytes rapdu;
    uint32_t len;  // as the kernel left it
    bool untouched;
};

// One exchange into a response buffer of `cap` bytes filled with EE.
Exchanged Exchange(const Bytes &capdu, uint32_t cap = 260) {
    Bytes buffer(cap, 0xEE);
    uint32_t len = cap;
    const uint32_t status = VelkCless_ExchangeAPDU(
        capdu.data(), static_cast<uint32_t>(capdu.size()), buffer.data(), &len);
    const bool untouched =
        std::all_of(buffer.begin(), buffer.end(), [](uint8_t b) { return b == 0xEE; });
    return {status, Bytes(buffer.begin(), buffer.begin() + std::min(len, cap)), len, untouched};
}

TEST(ExchangeApdu, SendsTheCommandInDf01AndTakesTheResponseFromDf03) {
    ScriptedHost host;
    host.card = {Respond(kReadRecord, FromHex("7003 5A01 11 9000"))};
    const Exchanged r = Exchange(kReadRecord);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.rapdu), "70035A01119000");
    ASSERT_EQ(host.messages.size(), 1u);
    EXPECT_EQ(ToHex(host.messages[0].raw), "7F010CDF0001F1DF010500B2010C00");
}

struct SignalCase {
    const char *name;
    CardExchange exchange;
    uint32_t status;
    std::string rapdu;  // hex; "-" when the buffer must stay untouched
};
void PrintTo(const SignalCase &c, std::ostream *os) {
    *os << c.name;
}

class AnsweredLater : public ::testing::TestWithParam<SignalCase> {};

TEST_P(AnsweredLater, TheSignalDecides) {
    const SignalCase &c = GetParam();
    ScriptedHost host;
    host.card = {c.exchange};
    const Exchanged r = Exchange(kReadRecord);
    EXPECT_EQ(r.status, c.status);
    if (c.rapdu == "-")
        EXPECT_TRUE(r.untouched);
    else
        EXPECT_EQ(ToHex(r.rapdu), c.rapdu);
}

INSTANTIATE_TEST_SUITE_P(
    Signals, AnsweredLater,
    ::testing::Values(
        SignalCase{"A4WithTwoBytes", RespondLater(kReadRecord, FromHex("6A83")), 0, "6A83"},
        SignalCase{"A1Stops", SignalInstead(kReadRecord, 0xA1), 0x30101, "-"},
        SignalCase{"A5IsACommunicationError", SignalInstead(kReadRecord, 0xA5), 0x30103, "-"},
        SignalCase{"A6IsACommunicationError", SignalInstead(kReadRecord, 0xA6), 0x30102, "-"},
        // Any other type leaves no response: the length becomes 0.
        SignalCase{"OtherTypeGivesNothing", SignalInstead(kReadRecord, 0xA0), 0, ""},
        SignalCase{"CallbackFailurePassesOn", FailCallback(kReadRecord, 0x4242), 0x4242, "-"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ExchangeApdu, AResponseLongerThanTheBufferIsRefusedWithNothingCopied) {
    for (const bool later : {false, true}) {
        ScriptedHost host;
        const Bytes big(261, 0x55);
        host.card = {later ? RespondLater(kReadRecord, big) : Respond(kReadRecord, big)};
        const Exchanged r = Exchange(kReadRecord, 260);
        EXPECT_EQ(r.status, velk::kErrResponseTooLong) << later;
        EXPECT_TRUE(r.untouched) << later;
        EXPECT_EQ(r.len, 260u) << later;
    }
}

TEST(ExchangeApdu, AResponseThatFillsTheBufferExactlyIsTaken) {
    ScriptedHost host;
    host.card = {Respond(kReadRecord, Bytes(260, 0x55))};
    const Exchanged r = Exchange(kReadRecord, 260);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(r.len, 260u);
}

TEST(ExchangeApdu, AReplyWhoseDf03ClaimsMoreThanTheExchangeBufferHoldsIsMalformed) {
    ScriptedHost host;
    host.On(VELK_CMD_APDU, [](const Message &) {
        return Answer::Raw(velk::host::Cat({FromHex("7F018207F0 DF03820800"), Bytes(16, 0x90)}));
    });
    const Exchanged r = Exchange(kReadRecord);
    EXPECT_EQ(r.status, velk::kErrHostReply);
    EXPECT_TRUE(r.untouched);
}

TEST(ExchangeApdu, ASignalWithoutDataButWithALengthIsAMalformedReply) {
    ScriptedHost host;
    host.On(VELK_CMD_APDU, [](const Message &) {
        ClessSignal_Message lie{VELK_SIGNAL_RAPDU, nullptr, 2};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&lie));
        return Answer::Reply({});
    });
    EXPECT_EQ(Exchange(kReadRecord).status, velk::kErrHostReply);
}

TEST(ExchangeApdu, ACommandTooLongForTheExchangeBufferIsNotSent) {
    ScriptedHost host;
    const Bytes huge(VELK_EXCHANGE_BUFFER_LEN, 0x00);
    EXPECT_EQ(Exchange(huge).status, velk::kErrInput);
    EXPECT_TRUE(host.messages.empty());
}

// ---- Card activation -------------------------------------------------------------

TEST(CardActive, WaitsForTheSignalAndMapsItsType) {
    const std::vector<std::pair<uint8_t, uint32_t>> cases = {
        {0xA1, 0x30101}, {0xA5, 0x30103}, {0xA6, 0x30102}, {kCardPresentSignal, 0}, {0xA4, 0}};
    for (const auto &[signal, status] : cases) {
        ScriptedHost host;
        host.cardActiveSignal = signal;
        EXPECT_EQ(VelkCless_Card_Active(), status) << int(signal);
        EXPECT_EQ(ToHex(host.messages.at(0).raw), "7F0104DF0001D6");
    }
    ScriptedHost failing;
    failing.On(VELK_CMD_CARD_ACTIVE, [](const Message &) { return Answer::Fail(0x77); });
    EXPECT_EQ(VelkCless_Card_Active(), 0x77u);
}

// ---- Unpredictable numbers ------------------------------------------------------------

TEST(UnpredictableNumber, IsKeptAsFourBytesAndCopiedUpToTheCallersLength) {
    ScriptedHost host;
    host.unpredictableNumber = FromHex("0102030405060708");
    ASSERT_EQ(VelkCless_Get_Unpredictable_Number(), 0u);
    EXPECT_EQ(DbHex(0x9F37), "01020304");

    uint8_t random[8] = {};
    ASSERT_EQ(VelkCless_GetUnpredictableNumber(random, 3), 0u);
    EXPECT_EQ(ToHex({random, 8}), "0102030000000000");
    host.unpredictableNumber = FromHex("AABB");
    ASSERT_EQ(VelkCless_GetUnpredictableNumber(random, 8), 0u);
    EXPECT_EQ(ToHex({random, 8}), "AABB030000000000");
}

TEST(UnpredictableNumber, AShortAnswerIsPaddedAndAMissingOneIsAnError) {
    ScriptedHost host;
    host.unpredictableNumber = FromHex("AABB");
    ASSERT_EQ(VelkCless_Get_Unpredictable_Number(), 0u);
    EXPECT_EQ(DbHex(0x9F37), "AABB0000");

    host.On(VELK_CMD_UNPREDICTABLE_NUMBER, [](const Message &) { return Answer::Reply({}); });
    EXPECT_EQ(VelkCless_Get_Unpredictable_Number(), 0x3020Au);
    uint8_t random[4] = {};
    EXPECT_EQ(VelkCless_GetUnpredictableNumber(random, 4), 0x3020Au);
}

// ---- Parameters, display and power-off --------------------------------------------------

TEST(Requests, ParameterRepliesAreStoredAndTheAidRequestReportsTheLastStore) {
    ScriptedHost host;
    host.ics = {T(0x9F1A, "0978"), T(0x5A, "1234"), T(0x5A, "5678")};
    EXPECT_EQ(VelkCless_GetICS_Param(), 0u);  // whatever the stores say
    host.aidParams = {T(0x9F35, "22"), T(0x5A, "9999")};
    EXPECT_EQ(VelkCless_Transaction_Get_AID_Parameter(kAid.data(), 7), 0x31001u);
    EXPECT_EQ(DbHex(0x5A), "1234");
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x9F35), 1);
    host.aidParams = {};
    EXPECT_EQ(VelkCless_Transaction_Get_AID_Parameter(kAid.data(), 7), 0u);
}

TEST(Requests, DisplayAndPowerOffIgnoreTheHost) {
    ScriptedHost host;
    EXPECT_EQ(VelkCless_Display_UIRD_Stand(0x1B, 0x04), 0u);
    ASSERT_EQ(host.uirds.size(), 1u);
    EXPECT_EQ(ToHex(host.uirds[0]), "1B04" + std::string(40, '0'));
    host.On(VELK_CMD_POWER_OFF, [](const Message &) { return Answer::Fail(9); });
    EXPECT_EQ(VelkCless_CardPowerOff(), 0u);
    EXPECT_EQ(host.Commands(), (std::vector<uint8_t>{0xD7, 0xDF}));
}

}  // namespace
}  // namespace velk::test
