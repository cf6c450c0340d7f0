// Data element retrieval (type 78) and update (type 79) transactions, and
// payments that retrieve and update around GPO and GENERATE AC, through
// Kernel_Start_VELK_: the GET DATA and PUT DATA commands byte for byte, 9F71
// and 9F74, the outcome with its discretionary data, cancellation by the
// reader at each moment, and where the host may put BF70 and BF71.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "data_elements.hpp"
#include "first_tap.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

// script ends: after `exchanges` exchanges, or with the whole tap.
constexpr size_t kWholeTap = SIZE_MAX;
struct Moments {
    std::vector<CardExchange> beforeGpo, afterGpo, afterGac;
    size_t exchanges = kWholeTap;
};
// Only exchanges before GPO, where the transaction ends.
Moments BeforeGpo(const std::vector<CardExchange> &card) {
    return {card, {}, {}, card.size()};
}

// A tap of type `type` whose reader has the options and answers D1 with the
// templates.
FirstTap Tap(std::string type, std::string options, std::vector<Bytes> templates,
             const Moments &m) {
    FirstTap tap;
    tap.purchase.type = std::move(type);
    tap.reader.options = std::move(options);
    tap.reader.extra = std::move(templates);
    tap.beforeGpo = m.beforeGpo;
    tap.afterGpo = m.afterGpo;
    tap.afterGac = m.afterGac;
    if (m.exchanges != kWholeTap) tap.endAfter = m.exchanges;
    return tap;
}

struct Expect {
    uint32_t status;
    std::string ops;
    std::string result9F71;  // in the discretionary data; "absent"
    std::string result9F74;
};

void Check(ScriptedHost &host, const TapResult &r, const Expect &e) {
    SCOPED_TRACE(ToHex(r.out));
    EXPECT_EQ(r.status, e.status);
    EXPECT_EQ(ToHex(r.ops), e.ops);
    const OutcomePacket p(r.out);
    EXPECT_EQ(Discretionary(p, 0x9F71), e.result9F71);
    EXPECT_EQ(Discretionary(p, 0x9F74), e.result9F74);
    EXPECT_TRUE(host.CardDone());
}

// A non-financial transaction that ends before GPO: the outcome announces
// discretionary data exactly when there is a result.
void RunNonFinancial(const std::string &type, const std::string &options, const Bytes &templ,
                     const std::vector<CardExchange> &card, const std::string &result9F71,
                     const std::string &result9F74) {
    ScriptedHost host;
    const TapResult r = Tap(type, options, {templ}, BeforeGpo(card)).Run(host);
    const bool any = result9F71 != "absent" || result9F74 != "absent";
    Check(host, r, {0, any ? kEndApplicationWithData : kEndApplication, result9F71, result9F74});
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ(ToHex({p.uird->data(), 2}), "1004");
}

// ---- Retrieval transactions ------------------------------------------------------------

struct RetrievalCase : NamedCase {
    std::string gddol;
    std::vector<CardExchange> card;
    std::string result;  // 9F71, "absent"
};

const Bytes kAtc = FromHex("9F3602000190 00");

std::vector<RetrievalCase> RetrievalCases() {
    const Bytes pan = FromHex("5A0854133300896010409000");
    return {
        {{"EachTagInOrder"},
         "9F3602 5A08",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x5A), pan)},
         "9F360200015A085413330089601040"},
        {{"RefusedTagIsEmpty"},
         "9F3602 9F4F00",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x9F4F), FromHex("6A88"))},
         "9F360200019F4F00"},
        {{"RepeatedTagKeepsPlaceAndLaterValue"},
         "9F3602 5A08 9F3602",
         {Respond(GetData(0x9F36), kAtc), Respond(GetData(0x5A), pan),
          Respond(GetData(0x9F36), FromHex("9F360200029000"))},
         "9F360200025A085413330089601040"},
        {{"ResponseTagNotCompared"},
         "9F3602",
         {Respond(GetData(0x9F36), FromHex("9F1302AABB9000"))},
         "9F3602AABB"},
        {{"MalformedResponseIsEmpty"},
         "9F3602",
         {Respond(GetData(0x9F36), FromHex("9F360500019000"))},
         "9F3600"},
        {{"NoStatusWordIsEmpty"}, "9F3602", {Respond(GetData(0x9F36), FromHex("90"))}, "9F3600"},
        {{"ConstructedTagNeedsElements"},
         "BF0C05",
         {Respond(GetData(0xBF0C), FromHex("9F4D020B0A9000"))},
         "BF0C00"},
        {{"TagInsideAnElementIsLeftOut"},
         "BF0C05 9F4D02",
         {Respond(GetData(0xBF0C), FromHex("BF0C059F4D020B0A9000")),
          Respond(GetData(0x9F4D), FromHex("9F4D020C0C9000"))},
         "BF0C059F4D020B0A"},
        {{"PaddingBetweenEntries"}, "00 9F3602", {Respond(GetData(0x9F36), kAtc)}, "9F36020001"},
        {{"ExchangeFailureKeepsWhatWasRead"},
         "9F3602 5A08 9F1302",
         {Respond(GetData(0x9F36), kAtc), SignalInstead(GetData(0x5A), VELK_SIGNAL_COMM_ERROR_A5)},
         "9F36020001"},
        {{"ResponseTooLongForItsBufferStops"},
         "9F3602 5A08",
         {Respond(GetData(0x9F36), Bytes(259, 0x90))},
         "absent"},
    };
}

class Retrieval : public ::testing::TestWithParam<RetrievalCase> {};

TEST_P(Retrieval, ReadsTheGddolIntoTheDiscretionaryData) {
    const RetrievalCase &c = GetParam();
    RunNonFinancial("78", "80", Bf71(c.gddol), c.card, c.result, "absent");
}

INSTANTIATE_TEST_SUITE_P(Cases, Retrieval, ::testing::ValuesIn(RetrievalCases()), CaseName());

TEST(Retrieval, WithoutItsOptionCompletesAtOnceWithoutTheCard) {
    RunNonFinancial("78", "00", Bf71("9F3602"), {}, "absent", "absent");
}

// ---- Update transactions -----------------------------------------------------------------

struct UpdateCase : NamedCase {
    std::vector<Bytes> entries;
    std::vector<CardExchange> card;
    std::string result;  // 9F74
};

std::vector<UpdateCase> UpdateCases() {
    const std::string big(2 * 300, 'E');
    return {
        {{"RefusedUpdate"},
         {Entry(0xA2, "9F4F03010203", 0x01)},
         {Respond(FromHex("00DA9F4F03010203"), FromHex("6A80"))},
         "0100"},
        {{"TwoUpdatesAndNothingAfterGpo"},
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "5F5002AABB", 0x00)},
         {Answer9000("00DA9F4F0101"), Answer9000("00DA5F5002AABB")},
         "0202"},
        {{"StopBitEndsBeforeGpoDespiteA3"},
         {Entry(0xA2, "9F4F0101", 0x01), Entry(0xA3, "9F4F0102")},
         {Respond(FromHex("00DA9F4F0101"), FromHex("6A80"))},
         "0100"},
        {{"EmptyValueGivesLcZero"}, {Entry(0xA2, "9F4F00")}, {Answer9000("00DA9F4F00")}, "0201"},
        {{"CommunicationErrorEndsTheUpdate"},
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0102")},
         {SignalInstead(FromHex("00DA9F4F0101"), VELK_SIGNAL_COMM_ERROR_A6)},
         "0100"},
        {{"EntryWithoutElementIsRefused"}, {Entry(0xA2, "")}, {}, "0100"},
        {{"ValueOver255BytesIsRefused"},
         {Entry(0xA2, "9F4F820100" + big.substr(0, 512))},
         {},
         "0100"},
        {{"EntryOver300BytesIsRefusedAfterASuccess"},
         {Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0101 DF01820128" + big.substr(0, 592))},
         {Answer9000("00DA9F4F0101")},
         "0101"},
        {{"EmptyTemplate"}, {}, {}, "absent"},
    };
}

class Update : public ::testing::TestWithParam<UpdateCase> {};

TEST_P(Update, WritesTheA2EntriesBeforeGpo) {
    const UpdateCase &c = GetParam();
    RunNonFinancial("79", "40", Bf70(c.entries), c.card, "absent", c.result);
}

INSTANTIATE_TEST_SUITE_P(Cases, Update, ::testing::ValuesIn(UpdateCases()), CaseName());

// 9F74 over the moments of an update transaction that goes on to GPO.
TEST(Update, CountsAcrossTheMomentsAndStopsAfterAFailure) {
    struct Case {
        std::vector<Bytes> entries;
        Moments card;
        std::string result;
    };
    // clang-format off
    const std::vector<Case> cases = {
        {{Entry(0xA2, "9F4F0101"), Entry(0xA2, "9F4F0102"), Entry(0xA3, "9F4F0103")},
         {{Answer9000("00DA9F4F0101"), Answer9000("00DA9F4F0102")},
          {Respond(FromHex("00DA9F4F0103"), FromHex("6A80"))}, {}, 4}, "0102"},
        // A failure without the stop bit: GPO, but nothing more is written.
        {{Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0103")},
         {{Respond(FromHex("00DA9F4F0101"), FromHex("6985"))}, {}, {}, 2}, "0100"},
        {{Entry(0xA3, "9F4F0103")}, {{}, {Answer9000("00DA9F4F0103")}, {}, 2}, "0201"},
    };
    // clang-format on
    for (const Case &c : cases) {
        ScriptedHost host;
        Check(host, Tap("79", "40", {Bf70(c.entries)}, c.card).Run(host),
              {0, kEndApplicationWithData, "absent", c.result});
    }
}

// ---- Payments ----------------------------------------------------------------------------

TEST(Payment, RetrievesAndUpdatesAroundGpoAndGenerateAc) {
    // The A4 conditions test 9F74's first byte (02): 0x20 is left out, 0x80 not.
    const std::vector<Bytes> templates = {
        Bf71("9F3602"), Bf70({Entry(0xA4, "9F4F0104", 0x80), Entry(0xA2, "9F4F0102"),
                              Entry(0xA3, "9F4F0103"), Entry(0xA4, "9F4F0105", 0x20)})};
    const Moments card{{Respond(GetData(0x9F36), kAtc), Answer9000("00DA9F4F0102")},
                       {Answer9000("00DA9F4F0103")},
                       {Answer9000("00DA9F4F0104")}};
    ScriptedHost host;
    const TapResult r = Tap("00", "C0", templates, card).Run(host);
    Check(host, r, {0, kApprovedWithData, "9F36020001", "0203"});
    EXPECT_EQ(ToHex(OutcomePacket(r.out).discretionary->value), "9F71059F360200019F74020203");
}

TEST(Payment, EndingsOfTheUpdates) {
    struct Case {
        const char *name;
        std::vector<Bytes> entries;
        Moments card;
        std::string ops, stored9F74;
    };
    const Bytes a2 = FromHex("00DA9F4F0101");
    const Bytes a3 = FromHex("00DA9F4F0102");
    const Bytes refused = FromHex("6A80");
    // clang-format off
    const std::vector<Case> cases = {
        {"StopBitBeforeGpo", {Entry(0xA2, "9F4F0101", 0x01)},
         BeforeGpo({Respond(a2, refused)}), kEndApplicationWithData, "0100"},
        {"StopBitAfterGpoDeclines", {Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0102", 0x01)},
         {{Respond(a2, FromHex("9000"))}, {Respond(a3, refused)}, {}, 3},
         kDeclinedBeforeRecordsWithData, "0101"},
        {"CommunicationErrorBeforeGpo", {Entry(0xA2, "9F4F0101")},
         BeforeGpo({SignalInstead(a2, VELK_SIGNAL_COMM_ERROR_A5)}), kCommunicationError, "0100"},
        {"CommunicationErrorAfterGpo", {Entry(0xA2, "9F4F0101"), Entry(0xA3, "9F4F0102")},
         {{Respond(a2, FromHex("9000"))}, {SignalInstead(a3, VELK_SIGNAL_COMM_ERROR_A5)}, {}, 3},
         kCommunicationError, "0201"},
        {"CommunicationErrorAfterGenerateAcOnlyStopsTheEntries",
         {Entry(0xA4, "9F4F0101"), Entry(0xA4, "9F4F0102")},
         {{}, {}, {SignalInstead(a2, VELK_SIGNAL_COMM_ERROR_A6)}}, kApprovedWithData, "0100"},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedHost host;
        const TapResult r = Tap("00", "40", {Bf70(c.entries)}, c.card).Run(host);
        EXPECT_EQ(r.status, 0u);
        EXPECT_EQ(ToHex(r.ops), c.ops);
        EXPECT_EQ(DbHex(0x9F74), c.stored9F74);
        EXPECT_TRUE(host.CardDone());
    }
}

// ---- Cancellation by the reader ----------------------------------------------------------

TEST(Cancellation, DuringEachExchangeEndsTheTransaction) {
    struct Case {
        const char *name;
        std::string type, options;
        Bytes templ;
        Moments card;
    };
    const CardExchange stop = SignalInstead(FromHex("00DA9F4F0101"), VELK_SIGNAL_STOP);
    // clang-format off
    const std::vector<Case> cases = {
        {"GetData", "78", "80", Bf71("9F3602"),
         BeforeGpo({SignalInstead(GetData(0x9F36), VELK_SIGNAL_STOP)})},
        {"PutDataBeforeGpo", "79", "40", Bf70({Entry(0xA2, "9F4F0101")}), BeforeGpo({stop})},
        {"PutDataAfterGpo", "00", "40", Bf70({Entry(0xA3, "9F4F0101")}), {{}, {stop}, {}, 2}},
        {"PutDataAfterGenerateAc", "00", "40", Bf70({Entry(0xA4, "9F4F0101")}), {{}, {}, {stop}}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedHost host;
        const TapResult r = Tap(c.type, c.options, {c.templ}, c.card).Run(host);
        EXPECT_EQ(r.status, 0x30101u);
        EXPECT_EQ(ToHex(r.ops), kEndApplication);
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
    FirstTap tap = Tap("79", "C0", {},
                       BeforeGpo({Respond(GetData(0x9F36), kAtc), Answer9000("00DA9F4F0101")}));
    if (GetParam() == From::Input) tap.purchase.extra = {bf71, bf70};
    if (GetParam() == From::IcsReply) tap.reader.extra = {bf71, bf70};
    if (GetParam() == From::AidReply) host.aidParams = {bf71, bf70};
    Check(host, tap.Run(host), {0, kEndApplicationWithData, "9F36020001", "0201"});
    EXPECT_EQ(DbHex(0xBF70), ToHex(bf70));
    EXPECT_EQ(DbHex(0xBF71), ToHex(bf71));
}

std::string PlaceName(const ::testing::TestParamInfo<From> &info) {
    static const char *const kNames[] = {"Input", "IcsReply", "AidReply"};
    return kNames[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Places, Templates,
                         ::testing::Values(From::Input, From::IcsReply, From::AidReply), PlaceName);

}  // namespace
}  // namespace velk::test
