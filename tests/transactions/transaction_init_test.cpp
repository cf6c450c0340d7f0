// Transactions through pre-processing and transaction initialisation: the
// mandatory data of each kind of transaction, the step chosen next, the
// restart after an online response, the processing indicators and the TVR,
// the clean start of every call, and the transaction input's own checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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

const Bytes kCompletedOnErrorOps = FromHex("50 20 F0 F0 00 F0 FF 00");
const Bytes kErroneousReactivationOps = FromHex("40 F0 F0 F0 00 F0 FF 00");

struct Stop {
    uint32_t status = 0;
    uint32_t step = 0;  // the step chosen after transaction initialisation
    Bytes ops;
};

// Runs kernel start, pre-processing and transaction initialisation as the
// step machine does, and stops at the first step after them, where the whole
// transaction would go on to a later step's function.
Stop RunToChosenStep(ScriptedHost &host, const Bytes &input) {
    Bytes io(VELK_IO_BUFFER_MIN_LEN, 0);
    std::copy(input.begin(), input.end(), io.begin());
    uint32_t len = static_cast<uint32_t>(input.size());
    Stop stop;
    VelkCless_SetTransactionStep(0x1000);
    for (;;) {
        const uint32_t step = VelkCless_GetTransactionStep();
        if (step == 0x1000)
            stop.status = VelkCless_KernelStart_Step00(io.data(), &len);
        else if (step == 0x1200)
            stop.status = VelkCless_PreProcess();
        else if (step == 0x1100)
            stop.status = VelkCless_TransactionInitialisation(io.data(), &len);
        else
            break;
        if (stop.status != 0) break;
    }
    stop.step = VelkCless_GetTransactionStep();
    stop.ops.assign(8, 0);
    std::memcpy(stop.ops.data(), &host.g().FinalOutCome, 8);
    return stop;
}

// ---- First taps: mandatory data and the next step -----------------------------------

struct FirstTapCase {
    const char *name;
    std::string options;           // 9F9302
    std::vector<Bytes> params;     // 7F11's children
    std::vector<Bytes> aidParams;  // the D3 reply
    bool withCountryCode = true;   // 9F1A among the reader's data
    uint32_t step;                 // 0: Transaction Completed on Error
};
void PrintTo(const FirstTapCase &c, std::ostream *os) {
    *os << c.name;
}

std::vector<Bytes> Without(uint32_t tag) {
    std::vector<Bytes> params = PurchaseParams();
    std::erase_if(params, [tag](const Bytes &e) { return velk::host::ParseTlv(e)[0].tag == tag; });
    return params;
}

std::vector<FirstTapCase> FirstTapCases() {
    return {
        {"Purchase", "00", PurchaseParams(), {}, true, 0x2500},
        {"PurchaseWhereUpdatesAreAllowed", "40", PurchaseParams(), {}, true, 0x2610},
        {"PurchaseWithRetrievalAndUpdate", "C0", PurchaseParams(), {}, true, 0x2500},
        {"No9C", "00", Without(0x9C), {}, true, 0},
        {"No9F02", "00", Without(0x9F02), {}, true, 0},
        {"No5F2A", "00", Without(0x5F2A), {}, true, 0},
        {"No9A", "00", Without(0x9A), {}, true, 0},
        {"No9F1A", "00", PurchaseParams(), {}, false, 0},
        {"RetrievalWithBF71", "80", {T(0x9C, "78")}, {T(0xBF71, "9F700100")}, true, 0x2500},
        {"RetrievalWithoutBF71", "80", {T(0x9C, "78")}, {}, true, 0},
        {"UpdateWithBF70", "40", {T(0x9C, "79")}, {T(0xBF70, "9F700100")}, true, 0x2610},
        {"UpdateWithoutBF70", "40", {T(0x9C, "79")}, {}, true, 0},
        {"AuthenticationNeedsNoAmount", "10", {T(0x9C, "40")}, {T(0x9F9309, "4041")}, true, 0x2500},
        {"UnlistedTypeNeedsTheAmount", "10", {T(0x9C, "42")}, {T(0x9F9309, "4041")}, true, 0},
    };
}

class FirstTap : public ::testing::TestWithParam<FirstTapCase> {};

TEST_P(FirstTap, ChoosesItsStepOrEndsCompletedOnError) {
    const FirstTapCase &c = GetParam();
    ScriptedHost host;
    ConfigureFirstTap(host);
    host.ics = ReaderIcs("000000000000", c.options);
    if (!c.withCountryCode) host.ics.pop_back();
    host.aidParams = c.aidParams;
    const Stop stop = RunToChosenStep(host, TransactionInput(c.params));
    EXPECT_EQ(stop.status, 0u);
    EXPECT_EQ(stop.step, c.step);
    EXPECT_EQ(stop.ops, c.step == 0 ? kCompletedOnErrorOps : Bytes(8, 0));
}

INSTANTIATE_TEST_SUITE_P(Kinds, FirstTap, ::testing::ValuesIn(FirstTapCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(TransactionInitialisation, AFirstTapWithout9CIsCompletedOnErrorThroughTheEntryPoint) {
    ScriptedHost host;
    ConfigureFirstTap(host);
    const auto result = host.Start(TransactionInput(Without(0x9C)));
    EXPECT_EQ(result.status, 0u);
    const OutcomePacket packet(result.out);
    EXPECT_EQ(packet.ops, kCompletedOnErrorOps);
    EXPECT_EQ(packet.order, std::vector<uint32_t>{0xDF8129});
}

// ---- Restart after an online response ------------------------------------------------

// The second entry: the issuer's response (8A) with the steering byte 30, the
// amount, the AID and the FCI of the first tap.
std::vector<Bytes> OnlineResponseParams() {
    return {T(0x8A, "3030"),
            T(0x9F872B, "30"),
            T(0x9F02, "000000000100"),
            T(0x5F2A, "0978"),
            velk::host::Tlv(0x9F06, kAid),
            velk::host::Tlv(0x9F8201, Fci(kAid, {T(0x50, "41")}))};
}

TEST(TransactionInitialisation, AnOnlineResponseOnTheSameCardGoesToOnlineResponseProcessing) {
    ScriptedHost host;
    host.ics = ReaderIcs("000000000000", "06");
    host.Post(0xA4, FromHex("9000"));  // left over: the restart empties the queue
    const Stop stop = RunToChosenStep(host, TransactionInput(OnlineResponseParams()));
    EXPECT_EQ(stop.status, 0u);
    EXPECT_EQ(stop.step, 0x2800u);
    EXPECT_EQ(host.g().CommunicationProblemIndicator, 0);
    EXPECT_EQ(host.Commands(), (std::vector<uint8_t>{0xD1, 0xD5, 0xA3, 0xD3}));
    EXPECT_EQ(ToHex(host.MessagesFor(0xD3)[0].payload), "9F0607A00000000310109C01005F2A020978");
    EXPECT_EQ(EMV_Queue_isEmpty(&host.g().EmvQueue), 1);
}

TEST(TransactionInitialisation, AnOnlineResponseOnAnotherCardMarksTheCommunicationProblem) {
    ScriptedHost host;
    host.ics = ReaderIcs("000000000000", "06");
    host.aidParams = {velk::host::Tlv(0x9F8201, Fci(FromHex("A0000000041010"), {T(0x50, "41")}))};
    const Stop stop = RunToChosenStep(host, TransactionInput(OnlineResponseParams()));
    EXPECT_EQ(stop.step, 0x2800u);
    EXPECT_EQ(host.g().CommunicationProblemIndicator, 3);
}

TEST(TransactionInitialisation, ScriptsWithoutAnFciNeedTheCapabilityAndTheOption) {
    for (const std::string caps : {"000010000000", "000000000000"}) {
        ScriptedHost host;
        host.ics = ReaderIcs(caps, "06");
        const std::vector<Bytes> params = {T(0x8A, "3030"), T(0x9F872B, "30"),
                                           T(0x9F02, "000000000100"), T(0x5F2A, "0978"),
                                           T(0x91, "11223344556677880000")};
        const Stop stop = RunToChosenStep(host, TransactionInput(params));
        const bool allowed = caps == "000010000000";
        EXPECT_EQ(stop.status, allowed ? 0u : 0x33001u) << caps;
        EXPECT_EQ(stop.step, allowed ? 0x2800u : 0u) << caps;
    }
}

struct RefusedRestart {
    const char *name;
    std::string options;
    std::vector<Bytes> params;
};
void PrintTo(const RefusedRestart &c, std::ostream *os) {
    *os << c.name;
}

class RestartRefused : public ::testing::TestWithParam<RefusedRestart> {};

TEST_P(RestartRefused, IsAnErroneousReactivationWithItsCode) {
    const RefusedRestart &c = GetParam();
    ScriptedHost host;
    host.ics = ReaderIcs("000000000000", c.options);
    const auto result = host.Start(TransactionInput(c.params));
    EXPECT_EQ(result.status, 0x33001u);
    const OutcomePacket packet(result.out);
    EXPECT_EQ(packet.ops, kErroneousReactivationOps);
    EXPECT_EQ(packet.order, std::vector<uint32_t>{0xDF8129});
}

std::vector<RefusedRestart> RefusedRestarts() {
    std::vector<Bytes> no9F02 = OnlineResponseParams();
    no9F02.erase(no9F02.begin() + 2);
    std::vector<Bytes> noScripts = OnlineResponseParams();
    noScripts.pop_back();  // no FCI, no scripts
    return {
        {"Missing9F02", "06", no9F02},
        {"RestartNotAllowed", "02", OnlineResponseParams()},
        {"NoOnlineResponseProcessing", "04", OnlineResponseParams()},
        {"NeitherFciNorScripts", "06", noScripts},
    };
}

INSTANTIATE_TEST_SUITE_P(Cases, RestartRefused, ::testing::ValuesIn(RefusedRestarts()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(TransactionInitialisation, AFailedAidRequestOnTheRestartEndsTheApplication) {
    ScriptedHost host;
    host.ics = ReaderIcs("000000000000", "06");
    host.On(VELK_CMD_AID_PARAMS, [](const Message &) { return Answer::Fail(1); });
    const auto result = host.Start(TransactionInput(OnlineResponseParams()));
    EXPECT_EQ(result.status, 0x3020Cu);
    EXPECT_EQ(OutcomePacket(result.out).ops, FromHex("40 F0 F0 F0 80 F0 FF 00"));
}

// ---- Processing indicators and the TVR -----------------------------------------------

struct IndicatorCase {
    const char *name;
    std::string amount;
    std::vector<Bytes> limits;  // the reader's, with the D3 reply
    uint8_t preProcessing;
    uint8_t ttpi1;  // ucTTPI[1]
    uint8_t tvr4;   // TVR byte 4
};
void PrintTo(const IndicatorCase &c, std::ostream *os) {
    *os << c.name;
}

// clang-format off
std::vector<IndicatorCase> IndicatorCases() {
    return {
        {"BelowEveryLimit", "000000000100", {T(0x9F8208, "000000010000"), T(0x9F820A, "000000010000"), T(0x9F8209, "000000010000")}, 0x00, 0x04, 0x00},
        {"AtTheFloorLimit", "000000000100", {T(0x9F820A, "000000000100")}, 0x10, 0x84, 0x80},
        {"AtTheFloorLimitFrom9F1B", "000000000100", {T(0x9F1B, "00000064")}, 0x10, 0x84, 0x80},
        {"AtTheCvmLimit", "000000000100", {T(0x9F8209, "000000000100")}, 0x20, 0x44, 0x00},
        {"OneUnitWithStatusCheck", "000000000100", {T(0x9F8221, "01"), T(0x5F36, "02")}, 0x80, 0x24, 0x00},
        {"ZeroAmount", "000000000000", {}, 0x40, 0x14, 0x00},
        {"AtTheTransactionLimit", "000000000100", {T(0x9F8208, "000000000100")}, 0x08, 0x04, 0x00},
        };
    // clang-format on
}

class Indicators : public ::testing::TestWithParam<IndicatorCase> {};

// Capabilities 06 00 FF FF 00 00: byte 0 (the CVM bits) is taken as it is,
// byte 2 keeps E0, byte 3 goes but its bit 0x01 becomes 0x04 of byte 1.
TEST_P(Indicators, ReachTheProcessingIndicatorsAndTheTvr) {
    const IndicatorCase &c = GetParam();
    ScriptedHost host;
    ConfigureFirstTap(host);
    host.ics = ReaderIcs("0600FFFF0000");
    host.aidParams = c.limits;
    const Stop stop = RunToChosenStep(host, TransactionInput(PurchaseParams(c.amount)));
    ASSERT_EQ(stop.status, 0u);
    EXPECT_EQ(host.g().Contactless_Pre_Processing_Indicators, c.preProcessing);
    const uint8_t ttpi[6] = {0x06, c.ttpi1, 0xE0, 0x00, 0x00, 0x00};
    EXPECT_EQ(ToHex({host.g().ucTTPI, 6}), ToHex(ttpi));
    const uint8_t tvr[5] = {0x80, 0x00, 0x00, c.tvr4, 0x00};
    EXPECT_EQ(ToHex({host.g().ucTVR, 5}), ToHex(tvr));
}

INSTANTIATE_TEST_SUITE_P(Limits, Indicators, ::testing::ValuesIn(IndicatorCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(TransactionInitialisation, EchoIsSupportedWhenTheFciHas9F75AndTheReaderSupportsIt) {
    struct Case {
        bool identifier;
        std::string capabilities;
        uint8_t supported;
    };
    for (const Case &c : {Case{true, "000020000000", 1}, Case{true, "000000000000", 0},
                          Case{false, "000020000000", 0}}) {
        ScriptedHost host;
        host.ics = ReaderIcs(c.capabilities);
        std::vector<Bytes> a5 = {T(0x50, "41")};
        if (c.identifier) a5.push_back(T(0x9F75, "0102"));
        host.Post(VELK_SIGNAL_FCI, With9000(Fci(kAid, a5)));
        const Stop stop = RunToChosenStep(host, TransactionInput(PurchaseParams()));
        ASSERT_EQ(stop.step, 0x2500u);
        EXPECT_EQ(VelkCless_Get_ECHO_Command_supported(), c.supported) << c.capabilities;
        EXPECT_EQ(DbHex(0x9F9304), c.supported ? "01" : "00");
        // No offline method is chosen yet, and the record says so.
        EXPECT_EQ(DbHex(0x9F9306), "00");
    }
}

// ---- Every call from the host starts clean -------------------------------------------

struct Trace {
    ScriptedHost::Result result;
    std::vector<Bytes> requests;
    Bytes ttpi, tvr;
    uint8_t indicators;
};

Trace Tap(ScriptedHost &host, const std::string &amount) {
    ConfigureFirstTap(host);
    host.ics = ReaderIcs("0600FFFF0000");
    host.aidParams = {T(0x9F820A, "000000001000"), T(0x9F8209, "000000001000")};
    const size_t before = host.messages.size();
    Trace t{host.Start(TransactionInput(PurchaseParams(amount))), {}, {}, {}, 0};
    for (size_t i = before; i < host.messages.size(); ++i)
        t.requests.push_back(host.messages[i].raw);
    t.ttpi.assign(host.g().ucTTPI, host.g().ucTTPI + 6);
    t.tvr.assign(host.g().ucTVR, host.g().ucTVR + 5);
    t.indicators = host.g().Contactless_Pre_Processing_Indicators;
    return t;
}

TEST(TransactionInitialisation, TwoFirstTapsInARowOnOneBoundBlockBehaveLikeTheFirst) {
    ScriptedHost fresh;
    const Trace alone = Tap(fresh, "000000000100");

    ScriptedHost reused;
    const Trace big = Tap(reused, "000000009999");
    ASSERT_EQ(big.indicators, 0x30);
    const Trace second = Tap(reused, "000000000100");

    EXPECT_EQ(second.result.status, alone.result.status);
    EXPECT_EQ(second.result.out, alone.result.out);
    EXPECT_EQ(second.requests, alone.requests);
    EXPECT_EQ(second.ttpi, alone.ttpi);
    EXPECT_EQ(second.tvr, alone.tvr);
    EXPECT_EQ(second.indicators, 0);
}

// ---- The transaction input -----------------------------------------------------------

struct BadInput {
    const char *name;
    Bytes input;
    uint32_t len;
};
void PrintTo(const BadInput &c, std::ostream *os) {
    *os << c.name;
}

std::vector<BadInput> BadInputs() {
    const Bytes good = TransactionInput(PurchaseParams());
    const auto size = static_cast<uint32_t>(good.size());
    Bytes cut = good;
    cut[cut.size() - 2] = 0x7F;  // the last child (9C) runs past 7F11
    return {
        {"LongerThanTheBuffer", good, VELK_IO_BUFFER_MIN_LEN + 1},
        {"LengthCutsTheTemplate", good, size - 1},
        {"LengthAddsAStrayByte", velk::host::Cat({good, FromHex("9F")}), size + 1},
        {"ChildRunsPastTheTemplate", cut, size},
        {"OnlyATag", FromHex("DF"), 1},
    };
}

class MalformedInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(MalformedInput, EndsTheApplicationWithoutRunningAStep) {
    const BadInput &c = GetParam();
    ScriptedHost host;
    ConfigureFirstTap(host);
    const auto result = host.Start(c.input, c.len);
    EXPECT_EQ(result.status, velk::kErrInput);
    EXPECT_TRUE(host.messages.empty());
    const OutcomePacket packet(result.out);
    EXPECT_EQ(packet.ops, FromHex("40 F0 F0 F0 80 F0 FF 00"));
    EXPECT_EQ(packet.uird, FromHex("1C 05" + std::string(40, '0')));
}

INSTANTIATE_TEST_SUITE_P(Cases, MalformedInput, ::testing::ValuesIn(BadInputs()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(TransactionInput, WhatTheHostLeftBehindTheInputIsClearedAndTopLevelDataAfter7F11Ignored) {
    ScriptedHost host;
    ConfigureFirstTap(host);
    host.aidParams = {T(0x9F820A, "000000001000")};
    const Bytes input =
        velk::host::Cat({TransactionInput(PurchaseParams(), 0x02), T(0x9F02, "999999999999")});
    const auto result = host.Start(input, {}, 0xEE);
    EXPECT_EQ(result.status, 0u);
    const size_t end = std::max(input.size(), result.out.size());
    EXPECT_TRUE(std::all_of(result.io.begin() + static_cast<long>(end), result.io.end(),
                            [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(host.g().Contactless_Pre_Processing_Indicators & 0x30, 0);
}

}  // namespace
}  // namespace velk::test
