// Data element retrieval (type 78) and update (type 79) transactions, and
// payments that retrieve and update around GPO and GENERATE AC, through
// Kernel_Start_VELK_: the GET DATA and PUT DATA commands byte for byte, 9F71
// and 9F74, the outcome with its discretionary data, cancellation by the
// reader at each moment, and where the host may put BF70 and BF71.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "data_elements.hpp"
#include "first_tap.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

constexpr char kCompleted[] = "40F0F0F080F0FF00";
constexpr char kCompletedWithData[] = "40F0F0F090F0FF00";
constexpr char kApprovedWithData[] = "10F0F0F0B0F0FF00";
constexpr char kDeclinedBeforeRecordsWithData[] = "20F0F0F090F0FF00";
constexpr char kCommunicationError[] = "7010F0F0C0F01300";

// A tap of type `type` whose reader has the options and answers D1 with the
// templates; the card script ends after the exchanges before GPO unless the
// test lets the tap go on.
FirstTap Tap(std::string type, std::string options, std::vector<Bytes> templates,
             std::vector<CardExchange> beforeGpo, bool untilGpo = true) {
    FirstTap tap;
    tap.purchase.type = std::move(type);
    tap.reader.options = std::move(options);
    tap.reader.extra = std::move(templates);
    tap.beforeGpo = std::move(beforeGpo);
    if (untilGpo) tap.endAfter = tap.beforeGpo.size();
    return tap;
}

struct Expect {
    uint32_t status;
    std::string ops;
    std::string result9F71;  // in the discretionary data; "absent"
    std::string result9F74;
};

void Check(ScriptedHost &host, const TapResult &r, const Expect &e) {
    EXPECT_EQ(r.status, e.status);
    EXPECT_EQ(ToHex(r.ops), e.ops);
    const OutcomePacket p(r.out);
    EXPECT_EQ(Discretionary(p, 0x9F71), e.result9F71);
    EXPECT_EQ(Discretionary(p, 0x9F74), e.result9F74);
    EXPECT_TRUE(host.CardDone());
}

// ---- Retrieval transactions ------------------------------------------------------------

struct RetrievalCase {
    const char *name;
    std::string gddol;
    std::vector<CardExchange> card;
    std::string result;  // 9F71, "absent"
};
void PrintTo(const RetrievalCase &c, std::ostream *os) {
    *os << c.name;
}

const Bytes kAtc = FromHex("9F3602000190 00");

std::vector<RetrievalCase> RetrievalCases() {
    const Bytes pan = FromHex("5A0854133300896010409000");
    return {
        {"EachTagInOrder",
         "9F3602 5A08",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x5A), pan)},
         "9F360200015A085413330089601040"},
        {"RefusedTagIsEmpty",
         "9F3602 9F4F00",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x9F4F), FromHex("6A88"))},
         "9F360200019F4F00"},
        {"RepeatedTagKeepsPlaceAndLaterValue",
         "9F3602 5A08 9F3602",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x5A), pan),
          Respond(GetData(0x9F36), FromHex("9F360200029000"))},
         "9F360200025A085413330089601040"},
        {"ResponseTagNotCompared",
         "9F3602",
         {Respond(GetData(0x9F36), FromHex("9F1302AABB9000"))},
         "9F3602AABB"},
        {"MalformedResponseIsEmpty",
         "9F3602",
         {Respond(GetData(0x9F36), FromHex("9F360500019000"))},
         "9F3600"},
        {"NoStatusWordIsEmpty", "9F3602", {Respond(GetData(0x9F36), FromHex("90"))}, "9F3600"},
        {"ConstructedTagNeedsElements",
         "BF0C05",
         {Respond(GetData(0xBF0C), FromHex("9F4D020B0A9000"))},
         "BF0C00"},
        {"TagInsideAnElementIsLeftOut",
         "BF0C05 9F4D02",
         {Respond(GetData(0xBF0C), FromHex("BF0C059F4D020B0A9000")),
          Respond(GetData(0x9F4D), FromHex("9F4D020C0C9000"))},
         "BF0C059F4D020B0A"},
        {"PaddingBetweenEntries", "00 9F3602", {Respond(GetData(0x9F36), kAtc)}, "9F36020001"},
        {"ExchangeFailureKeepsWhatWasRead",
         "9F3602 5A08 9F1302",
         {Respond(GetData(0x9F36), kAtc), SignalInstead(GetData(0x5A), VELK_SIGNAL_COMM_ERROR_A5)},
         "9F36020001"},
        {"ResponseTooLongForItsBufferStops",
         "9F3602 5A08",
         {Respond(GetData(0x9F36), Bytes(259, 0x90))},
         "absent"},
    };
}

class Retrieval : public ::testing::TestWithParam<RetrievalCase> {};

TEST_P(Retrieval, ReadsTheGddolIntoTheDiscretionaryData) {
    const RetrievalCase &c = GetParam();
    ScriptedHost host;
    const TapResult r = Tap("78", "80", {Bf71(c.gddol)}, c.card).Run(host);
    const bool any = c.result != "absent";
    Check(host, r, {0, any ? kCompletedWithData : kCompleted, c.result, "absent"});
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ(ToHex({p.uird->data(), 2}), "1004");
}

INSTANTIATE_TEST_SUITE_P(Cases, Retrieval, ::testing::ValuesIn(RetrievalCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Retrieval, WithoutItsOptionCompletesAtOnceWithoutTheCard) {
    ScriptedHost host;
    const TapResult r = Tap("78", "00", {Bf71("9F3602")}, {}).Run(host);
    Check(host, r, {0, kCompleted, "absent", "absent"});
    EXPECT_TRUE(host.capdus.empty());
}

// ---- Update transactions -----------------------------------------------------------------

struct UpdateCase {
    const char *name;
    std::vector<Bytes> entries;
    std::vector<CardExchange> card;
    std::string result;  // 9F74
};
void PrintTo(const UpdateCase &c, std::ostream *os) {
    *os << c.name;
}

std::vector<UpdateCase> UpdateCases() {
    const std::string big(2 * 300, 'E');
    return {
        {"RefusedUpdate",
         {Entry(0xA2, "9F4F03010203", 0x01)},
         {Respond(FromHex("00DA9F4F03010203"), FromHex("6A80"))},
         "0100"},
        {"TwoUpdatesAndNothingAfterGpo",
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "5F5002AABB", 0x00)},
         {Answer9000("00DA9F4F0101"), Answer9000("00DA5F5002AABB")},
         "0202"},
        {"StopBitEndsBeforeGpoDespiteA3",
         {Entry(0xA2, "9F4F0101", 0x01), Entry(0xA3, "9F4F0102")},
         {Respond(FromHex("00DA9F4F0101"), FromHex("6A80"))},
         "0100"},
        {"EmptyValueGivesLcZero", {Entry(0xA2, "9F4F00")}, {Answer9000("00DA9F4F00")}, "0201"},
        {"CommunicationErrorEndsTheUpdate",
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0102")},
         {SignalInstead(FromHex("00DA9F4F0101"), VELK_SIGNAL_COMM_ERROR_A6)},
         "0100"},
        {"EntryWithoutElementIsRefused", {Entry(0xA2, "")}, {}, "0100"},
        {"ValueOver255BytesIsRefused",
         {Entry(0xA2, "9F4F820100" + big.substr(0, 512))},
         {},
         "0100"},
        {"EntryOver300BytesIsRefusedAfterASuccess",
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0101 DF01820128" + big.substr(0, 592))},
         {Answer9000("00DA9F4F0101")},
         "0101"},
        {"EmptyTemplate", {}, {}, "absent"},
    };
}

class Update : public ::testing::TestWithParam<UpdateCase> {};

TEST_P(Update, WritesTheA2EntriesBeforeGpo) {
    const UpdateCase &c = GetParam();
    ScriptedHost host;
    const TapResult r = Tap("79", "40", {Bf70(c.entries)}, c.card).Run(host);
    const bool any = c.result != "absent";
    Check(host, r, {0, any ? kCompletedWithData : kCompleted, "absent", c.result});
}

INSTANTIATE_TEST_SUITE_P(Cases, Update, ::testing::ValuesIn(UpdateCases()),
                         [](const auto &info) { return std::string(info.param.name); });

// 9F74 over the moments of an update transaction that goes on to GPO.
TEST(Update, CountsAcrossTheMomentsAndStopsAfterAFailure) {
    struct Case {
        std::vector<Bytes> entries;
        std::vector<CardExchange> beforeGpo, afterGpo;
        std::string result;
    };
    const std::vector<Case> cases = {
        {{Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0102"), Entry(0xA3, "9F4F0103")},
         {Answer9000("00DA9F4F0101"), Answer9000("00DA9F4F0102")},
         {Respond(FromHex("00DA9F4F0103"), FromHex("6A80"))},
         "0102"},
        // A failure without the stop bit: GPO, but nothing more is written.
        {{Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0103")},
         {Respond(FromHex("00DA9F4F0101"), FromHex("6985"))},
         {},
         "0100"},
        {{Entry(0xA3, "9F4F0103")}, {}, {Answer9000("00DA9F4F0103")}, "0201"},
    };
    for (const Case &c : cases) {
        ScriptedHost host;
        FirstTap tap = Tap("79", "40", {Bf70(c.entries)}, c.beforeGpo, false);
        tap.afterGpo = c.afterGpo;
        tap.endAfter = c.beforeGpo.size() + 1 + c.afterGpo.size();
        Check(host, tap.Run(host), {0, kCompletedWithData, "absent", c.result});
    }
}

// ---- Payments ----------------------------------------------------------------------------

TEST(Payment, RetrievesAndUpdatesAroundGpoAndGenerateAc) {
    ScriptedHost host;
    FirstTap tap =
        Tap("00", "C0",
            {Bf71("9F3602"), Bf70({Entry(0xA4, "9F4F0104", 0x80), Entry(0xA2, "9F4F0102"),
                                   Entry(0xA3, "9F4F0103"), Entry(0xA4, "9F4F0105", 0x20)})},
            {Respond(GetData(0x9F36), kAtc), Answer9000("00DA9F4F0102")}, false);
    tap.afterGpo = {Answer9000("00DA9F4F0103")};
    // The A4 conditions test 9F74's first byte (02): 0x20 is left out, 0x80 not.
    tap.afterGac = {Answer9000("00DA9F4F0104")};
    const TapResult r = tap.Run(host);
    Check(host, r, {0, kApprovedWithData, "9F36020001", "0203"});
    EXPECT_EQ(ToHex(OutcomePacket(r.out).discretionary->value), "9F71059F360200019F74020203");
}

TEST(Payment, EndingsOfTheUpdates) {
    struct Case {
        const char *name;
        std::vector<Bytes> entries;
        std::vector<CardExchange> beforeGpo, afterGpo, afterGac;
        size_t exchanges;  // 0: the whole tap
        std::string ops, stored9F74;
    };
    const Bytes refused = FromHex("6A80");
    const std::vector<Case> cases = {
        {"StopBitBeforeGpo",
         {Entry(0xA2, "9F4F0101", 0x01)},
         {Respond(FromHex("00DA9F4F0101"), refused)},
         {},
         {},
         1,
         kCompletedWithData,
         "0100"},
        {"StopBitAfterGpoDeclines",
         {Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0102", 0x01)},
         {Answer9000("00DA9F4F0101")},
         {Respond(FromHex("00DA9F4F0102"), refused)},
         {},
         3,
         kDeclinedBeforeRecordsWithData,
         "0101"},
        {"CommunicationErrorBeforeGpo",
         {Entry(0xA2, "9F4F0101")},
         {SignalInstead(FromHex("00DA9F4F0101"), VELK_SIGNAL_COMM_ERROR_A5)},
         {},
         {},
         1,
         kCommunicationError,
         "0100"},
        {"CommunicationErrorAfterGpo",
         {Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0102")},
         {Answer9000("00DA9F4F0101")},
         {SignalInstead(FromHex("00DA9F4F0102"), VELK_SIGNAL_COMM_ERROR_A5)},
         {},
         3,
         kCommunicationError,
         "0201"},
        {"CommunicationErrorAfterGenerateAcOnlyStopsTheEntries",
         {Entry(0xA4, "9F4F0101"), Entry(0xA4, "9F4F0102")},
         {},
         {},
         {SignalInstead(FromHex("00DA9F4F0101"), VELK_SIGNAL_COMM_ERROR_A6)},
         0,
         kApprovedWithData,
         "0100"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedHost host;
        FirstTap tap = Tap("00", "40", {Bf70(c.entries)}, c.beforeGpo, false);
        tap.afterGpo = c.afterGpo;
        tap.afterGac = c.afterGac;
        if (c.exchanges != 0) tap.endAfter = c.exchanges;
        const TapResult r = tap.Run(host);
        EXPECT_EQ(r.status, 0u);
        EXPECT_EQ(ToHex(r.ops), c.ops);
        EXPECT_EQ(DbHex(0x9F74), c.stored9F74);
        EXPECT_TRUE(host.CardDone());
    }
}

// ---- Cancellation by the reader ----------------------------------------------------------

TEST(Cancellation, DuringEachExchangeEndsTheTransaction) {
    const Bytes put = FromHex("00DA9F4F0101");
    struct Case {
        const char *name;
        std::string type, options;
        Bytes templ;
        std::vector<CardExchange> beforeGpo, afterGpo, afterGac;
        size_t exchanges;  // 0: the whole tap
    };
    const CardExchange stop = SignalInstead(put, VELK_SIGNAL_STOP);
    const std::vector<Case> cases = {
        {"GetData",
         "78",
         "80",
         Bf71("9F3602"),
         {SignalInstead(GetData(0x9F36), VELK_SIGNAL_STOP)},
         {},
         {},
         1},
        {"PutDataBeforeGpo", "79", "40", Bf70({Entry(0xA2, "9F4F0101")}), {stop}, {}, {}, 1},
        {"PutDataAfterGpo", "00", "40", Bf70({Entry(0xA3, "9F4F0101")}), {}, {stop}, {}, 2},
        {"PutDataAfterGenerateAc", "00", "40", Bf70({Entry(0xA4, "9F4F0101")}), {}, {}, {stop}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedHost host;
        FirstTap tap = Tap(c.type, c.options, {c.templ}, c.beforeGpo, false);
        tap.afterGpo = c.afterGpo;
        tap.afterGac = c.afterGac;
        if (c.exchanges != 0) tap.endAfter = c.exchanges;
        const TapResult r = tap.Run(host);
        EXPECT_EQ(r.status, 0x30101u);
        EXPECT_EQ(ToHex(r.ops), kCompleted);
        const OutcomePacket p(r.out);
        ASSERT_TRUE(p.uird);
        EXPECT_EQ(ToHex({p.uird->data(), 2}), "1C05");
        EXPECT_TRUE(host.CardDone());
    }
}

// ---- Where the host puts BF70 and BF71 -----------------------------------------------------

enum class From { Input, IcsReply, AidReply };

class Templates : public ::testing::TestWithParam<From> {};

TEST_P(Templates, ArriveInTheirNaturalShapeAndAreKeptWhole) {
    const Bytes bf71 = Bf71("9F3602");
    const Bytes bf70 = Bf70({Entry(0xA2, "9F4F0101")});
    ScriptedHost host;
    FirstTap tap =
        Tap("79", "C0", {}, {Respond(GetData(0x9F36), kAtc), Answer9000("00DA9F4F0101")});
    if (GetParam() == From::Input) tap.purchase.extra = {bf71, bf70};
    if (GetParam() == From::IcsReply) tap.reader.extra = {bf71, bf70};
    if (GetParam() == From::AidReply) host.aidParams = {bf71, bf70};
    Check(host, tap.Run(host), {0, kCompletedWithData, "9F36020001", "0201"});
    EXPECT_EQ(DbHex(0xBF70), ToHex(bf70));
    EXPECT_EQ(DbHex(0xBF71), ToHex(bf71));
}

INSTANTIATE_TEST_SUITE_P(Places, Templates,
                         ::testing::Values(From::Input, From::IcsReply, From::AidReply),
                         [](const auto &info) {
                             constexpr const char *kNames[] = {"Input", "IcsReply", "AidReply"};
                             return std::string(kNames[static_cast<int>(info.param)]);
                         });

}  // namespace
}  // namespace velk::test
