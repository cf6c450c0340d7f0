// Online transactions in two entries through Kernel_Start_VELK_: the long tap
// and the online tap storing their context, and the second entry with the
// issuer's response (scripts, second GENERATE AC, final outcome), against a
// scripted card, byte for byte.
#include <gtest/gtest.h>

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

using velk::host::Cat;
using velk::host::FromHex;
using velk::host::Tlv;
using velk::host::ToHex;

// 02, C5 bit 08 from the card) or the long tap (capability 0x210, option 04);
// both allow the restart after online (04 and 02).
FirstTap OnlineFirstTap(bool onlineTap) {
    FirstTap tap;
    tap.reader.capabilities = onlineTap ? "060080001800" : "060010001800";
    tap.reader.options = "06";
    tap.AskOnline();
    if (onlineTap) tap.card.gacExtra = {T(0xC5, "08")};
    return tap;
}

std::string RecordValue(const OutcomePacket &p, uint32_t tag) {
    if (!p.record) return "no record";
    const velk::host::TlvNode *n = velk::host::Find(*p.record, tag);
    return n == nullptr ? "absent" : ToHex(n->value);
}

// ---- The first entry -------------------------------------------------------------

struct FirstEntryCase : NamedCase {
    bool onlineTap;
    const char *ops;
    const char *restartUird;  // 9F8117: message and status
    bool cardReadShown;
};

class FirstEntry : public ::testing::TestWithParam<FirstEntryCase> {};

// The context follows the online data record (no cryptogram data), then
// 9F8217, 8D, 9F0D, 9F8201, the AIP as 9F9233, 9F9304, and CDOL2's objects
// not yet there (none here: 95 and 9F37 are in the record, 8A never goes).
TEST_P(FirstEntry, StoresTheContextAndEndsWithItsOnlineRequest) {
    const FirstEntryCase &c = GetParam();
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(c.onlineTap);
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), c.ops);
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.restartUird);
    EXPECT_EQ(ToHex(*p.restartUird).substr(0, 4), c.restartUird);
    EXPECT_EQ(RecordValue(p, 0x9F27), "80");

    const std::vector<Message> stored = host.MessagesFor(VELK_CMD_STORE_CONTEXT);
    ASSERT_EQ(stored.size(), 1u);
    std::vector<uint32_t> tags;
    for (const Bytes &e : host.context)
        tags.push_back(velk::host::ParseTlv(e)[0].tag);
    const std::vector<uint32_t> expected = {0x9F02, 0x82,   0x9F1A,   0x95,     0x5F2A,  0x9A,
                                            0x9C,   0x9F37, 0x9F35,   0x57,     0x9F34,  0x84,
                                            0x5A,   0x5F24, 0x5F28,   0x9F06,   0x50,    0x9F8217,
                                            0x8D,   0x9F0D, 0x9F8201, 0x9F9233, 0x9F9304};
    EXPECT_EQ(tags, expected);
    EXPECT_EQ(ToHex(host.context[17]), "9F821701F0");  // ucCVM: no CVM
    EXPECT_EQ(ToHex(host.context[21]), "9F9233021800");
    // The first tap ends at the online request: nothing follows GENERATE AC.
    EXPECT_EQ(host.capdus.size(), 4u);
    bool shown = false;
    for (const Bytes &uird : host.uirds)
        shown = shown || (!uird.empty() && uird[0] == 0x17);
    EXPECT_EQ(shown, c.cardReadShown);
}

INSTANTIATE_TEST_SUITE_P(
    Taps, FirstEntry,
    ::testing::Values(FirstEntryCase{{"LongTap"}, false, "303004F0E0F0FF00", "1603", false},
                      FirstEntryCase{{"OnlineTap"}, true, "301003F0E0F0FF00", "2102", true}),
    CaseName());

// ---- The second entry ------------------------------------------------------------

struct SecondEntryCase : NamedCase {
    IssuerResponse response;
    int p1;              // of the second GENERATE AC; -1: none is sent
    const char *answer;  // the card's CID ("40"), or its whole R-APDU in hex
    uint8_t signal;      // else the exchange breaks off with this signal
    uint32_t failure;    // else the callback fails with this
    const char *ops;
    uint32_t status = 0;
};

std::vector<CardExchange> CardFor(const SecondEntryCase &c, const FirstTap &tap) {
    if (c.p1 < 0) return {};
    const Bytes cmd = tap.SecondGacCommand(static_cast<uint8_t>(c.p1), c.response);
    if (c.signal != 0) return {SignalInstead(cmd, c.signal)};
    if (c.failure != 0) return {FailCallback(cmd, c.failure)};
    const std::string answer = c.answer;
    return {
        Respond(cmd, answer.size() == 2 ? tap.card.SecondGacResponse(answer) : FromHex(answer))};
}

IssuerResponse Declined() {
    IssuerResponse r;
    r.arc = "3035";
    return r;
}
IssuerResponse No91() {
    IssuerResponse r;
    r.iad = "";
    return r;
}

std::vector<SecondEntryCase> SecondEntryCases() {
    return {
        {{"ApprovedByIssuerAndCard"}, {}, 0x40, "40", 0, 0, kApproved},
        {{"DeclinedByIssuer"}, Declined(), 0x00, "00", 0, 0, kDeclined},
        // Inverted flag: declined as invalid, without the data record.
        {{"CardApprovesWhatTheIssuerDeclined"},
         Declined(),
         0x00,
         "40",
         0,
         0,
         kDeclinedWithoutRecord},
        {{"DeclinedByCard"}, {}, 0x40, "00", 0, 0, kDeclined},
        {{"No91NoSecondGenerateAc"}, No91(), -1, "", 0, 0, kErroneousReactivation},
        {{"StatusWordOtherThan9000"}, {}, 0x40, "6985", 0, 0, kErroneousReactivation},
        {{"FormatOneResponseIsInvalid"},
         {},
         0x40,
         "800B40000288776655443322119000",
         0,
         0,
         kDeclinedWithoutRecord},
        {{"MissingApplicationCryptogram"},
         {},
         0x40,
         "770D9F2701409F360200029F1001019000",
         0,
         0,
         kDeclinedWithoutRecord},
        // A CID of 40 stored before the faulty element approves nothing.
        {{"MalformedTemplateAfterATcIsInvalid"},
         {},
         0x40,
         "770A9F2701409F36030000029000",
         0,
         0,
         kDeclinedWithoutRecord},
        {{"TornWithoutEchoIsACommunicationError"}, {}, 0x40, "", 0xA5, 0, kCommunicationError},
        {{"StoppedByTheReader"}, {}, 0x40, "", 0xA1, 0, kEndApplication, 0x30101},
        {{"CallbackFailureEndsTheApplication"}, {}, 0x40, "", 0, 0x31234, kEndApplication, 0x31234},
    };
}

class SecondEntry : public ::testing::TestWithParam<SecondEntryCase> {};

TEST_P(SecondEntry, EndsWithTheOutcomeOfTheIssuerAndTheCard) {
    const SecondEntryCase &c = GetParam();
    for (const bool onlineTap : {false, true}) {
        ScriptedHost host;
        const FirstTap tap = OnlineFirstTap(onlineTap);
        ASSERT_EQ(tap.Run(host).ops[0], 0x30);
        const TapResult r = tap.RunSecondEntry(host, c.response, CardFor(c, tap));
        EXPECT_EQ(r.status, c.status) << onlineTap;
        EXPECT_EQ(ToHex(r.ops), c.ops) << onlineTap;
        EXPECT_TRUE(host.CardDone());
        EXPECT_EQ(Db(0x9F73), "absent");
        // The context was asked for once, on the second entry.
        EXPECT_EQ(host.MessagesFor(VELK_CMD_FETCH_CONTEXT).size(), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(Responses, SecondEntry, ::testing::ValuesIn(SecondEntryCases()),
                         CaseName());

TEST(SecondEntry, ApprovedCarriesTheNewCryptogramAndTheApprovalMessage) {
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(true);
    tap.Run(host);
    const IssuerResponse response;
    const TapResult r = tap.RunSecondEntry(
        host, response,
        {Respond(tap.SecondGacCommand(0x40, response), tap.card.SecondGacResponse("40"))});
    // CDOL2 8A02 9505 9F3704: the issuer's 8A, the restored TVR and number.
    EXPECT_EQ(ToHex(host.capdus.back()),
              "80AE40000B"
              "3030"
              "8000000000"
              "11223344"
              "00");
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ(ToHex(*p.uird).substr(0, 4), "B004");
    EXPECT_EQ(RecordValue(p, 0x9F27), "40");
    EXPECT_EQ(RecordValue(p, 0x9F26), "8877665544332211");
    EXPECT_EQ(RecordValue(p, 0x5A), "5413330089601040");
}

TEST(SecondEntry, AnotherCardIsDeclinedWithoutACommandAndWithoutScripts) {
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(true);
    tap.Run(host);
    IssuerResponse response;
    response.fci = Fci(FromHex("A0000000041010"), {T(0x50, "41")});
    response.scripts = {Constructed(0x71, {T(0x86, "8418000000")})};
    const TapResult r = tap.RunSecondEntry(host, response, {});
    EXPECT_EQ(ToHex(r.ops), kDeclinedWithoutRecord);
    EXPECT_EQ(host.capdus.size(), 4u);
    EXPECT_EQ(host.g().CommunicationProblemIndicator, 3);
}

// Template 71: identifier, a command answered 9000 and one refused (6A82);
// template 72: a command answered with a warning (63C2).
TEST(SecondEntry, ScriptsBeforeAndAfterTheSecondGenerateAcReachTheResultsTvrAndTsi) {
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(false);
    tap.Run(host);
    IssuerResponse response;
    response.scripts = {
        Constructed(0x71, {T(0x9F18, "00000001"), T(0x86, "8418000000"), T(0x86, "841E000000")}),
        Constructed(0x72, {T(0x86, "04DA9F580101"), T(0x9F18, "00000002")})};
    const TapResult r =
        tap.RunSecondEntry(host, response,
                           {Respond(FromHex("8418000000"), FromHex("9000")),
                            Respond(FromHex("841E000000"), FromHex("6A82")),
                            Respond(tap.SecondGacCommand(0x40, response, "8000000020"),
                                    tap.card.SecondGacResponse("40")),
                            Respond(FromHex("04DA9F580101"), FromHex("63C2"))});
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(Db(0x9F8255), "1200000001");
    EXPECT_EQ(Db(0x9F8256), "2000000002");
    const OutcomePacket p(r.out);
    EXPECT_EQ(RecordValue(p, 0x9F73), "12000000012000000002");
    EXPECT_EQ(RecordValue(p, 0x95), "8000000020");
    EXPECT_EQ(Db(0x9B), "0400");
}

TEST(SecondEntry, ScriptsWithoutA91EndInErroneousReactivationWithTheRecord) {
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(false);
    tap.Run(host);
    IssuerResponse response = No91();
    response.scripts = {Constructed(0x72, {T(0x86, "8418000000")})};
    const TapResult r =
        tap.RunSecondEntry(host, response, {Respond(FromHex("8418000000"), FromHex("6283"))});
    EXPECT_EQ(ToHex(r.ops), kErroneousReactivationWithRecord);
    EXPECT_EQ(RecordValue(OutcomePacket(r.out), 0x9F73), "2000000000");
}

// ---- The context the host hands back ----------------------------------------------

struct ContextCase : NamedCase {
    // Changes the context (or the A3 answer) the host gives back.
    void (*edit)(ScriptedHost &host);
    bool secondGac;   // CDOL2 restored: the second GENERATE AC is sent
    const char *tvr;  // the TVR in the second GENERATE AC
};

std::vector<ContextCase> ContextCases() {
    return {
        {{"AsStored"}, [](ScriptedHost &) {}, true, "8000000000"},
        // 8A and 91 come with the issuer's response, never from the context.
        {{"StaleIssuerDataIgnored"},
         [](ScriptedHost &h) {
             h.context.push_back(T(0x8A, "5A31"));
             h.context.push_back(T(0x91, "0000000000000000"));
         },
         true,
         "8000000000"},
        // The restored TVR is taken only with its 5 bytes.
        {{"ShortTvrKeepsTheKernelsOwn"},
         [](ScriptedHost &h) {
             for (Bytes &e : h.context)
                 if (e[0] == 0x95) e = T(0x95, "FFFF");
         },
         true,
         "0000000000"},
        {{"HostLiesAboutTheReplyLength"},
         [](ScriptedHost &h) {
             h.On(VELK_CMD_FETCH_CONTEXT, [](const Message &) {
                 return Answer::Raw(Cat({FromHex("7F01820FFF8D03"), Bytes(20, 0x9F)}));
             });
         },
         false,
         ""},
        {{"ChildRunsPastTheReply"},
         [](ScriptedHost &h) {
             h.On(VELK_CMD_FETCH_CONTEXT,
                  [](const Message &) { return Answer::Raw(FromHex("7F01058D0A8A02")); });
         },
         false,
         ""},
        {{"PrimitiveRoot"},
         [](ScriptedHost &h) {
             h.On(VELK_CMD_FETCH_CONTEXT,
                  [](const Message &) { return Answer::Raw(FromHex("8D028A02")); });
         },
         false,
         ""},
        {{"CallbackFails"},
         [](ScriptedHost &h) {
             h.On(VELK_CMD_FETCH_CONTEXT, [](const Message &) { return Answer::Fail(7); });
         },
         false,
         ""},
        // Nearly the whole exchange buffer of elements the kernel does not use.
        {{"OversizedContext"},
         [](ScriptedHost &h) {
             for (int i = 0; i < 15; ++i)
                 h.context.push_back(Tlv(0xDF8301 + i, Bytes(100, 0xAB)));
         },
         true,
         "8000000000"},
    };
}

class RestoredContext : public ::testing::TestWithParam<ContextCase> {};

TEST_P(RestoredContext, GivesADefinedSecondEntry) {
    const ContextCase &c = GetParam();
    ScriptedHost host;
    const FirstTap tap = OnlineFirstTap(true);
    tap.Run(host);
    c.edit(host);
    const IssuerResponse response;
    std::vector<CardExchange> card;
    if (c.secondGac)
        card = {
            Respond(tap.SecondGacCommand(0x40, response, c.tvr), tap.card.SecondGacResponse("40"))};
    const TapResult r = tap.RunSecondEntry(host, response, card);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), c.secondGac ? kApproved : kErroneousReactivation);
    EXPECT_EQ(Db(0x8A), "3030");
}

INSTANTIATE_TEST_SUITE_P(Replies, RestoredContext, ::testing::ValuesIn(ContextCases()), CaseName());

}  // namespace
}  // namespace velk::test
