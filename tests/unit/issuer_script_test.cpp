// Issuer script processing: one kind of template at a time from a transaction
// input, against a scripted card — what is sent, the 5-byte results, the TVR
// and TSI bits, and the bounds on hostile templates.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "baseKernel.h"
#include "db_access.hpp"
#include "named_case.hpp"
#include "scripted_host.hpp"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::Tlv;

struct ScriptCase : NamedCase {
    uint8_t kind;                    // 71 or 72
    std::vector<Bytes> templates;    // children of 7F11
    std::vector<CardExchange> card;  // what the card answers
    uint32_t result;                 // of the after-GENERATE AC processing (72)
    const char *results;             // 9F8255 or 9F8256
    uint8_t tvr5;
};

const Bytes kRead = FromHex("8418000000");
const Bytes kWrite = FromHex("04DA9F580101");

std::vector<ScriptCase> Cases() {
    std::vector<ScriptCase> cases = {
        {{"TwoCommandsWithIdentifier"},
         0x71,
         {Constructed(0x71,
                      {T(0x9F18, "11223344"), T(0x86, "8418000000"), T(0x86, "04DA9F580101")})},
         {Respond(kRead, FromHex("9000")), Respond(kWrite, FromHex("9000"))},
         0,
         "2011223344",
         0x00},
        {{"SecondCommandRefusedNextScriptStillRuns"},
         0x72,
         {Constructed(0x72,
                      {T(0x86, "8418000000"), T(0x86, "04DA9F580101"), T(0x9F18, "00000009")}),
          Constructed(0x72, {T(0x86, "8418000000")})},
         {Respond(kRead, FromHex("9000")), Respond(kWrite, FromHex("6A82")),
          Respond(kRead, FromHex("6281"))},
         0,
         "1200000000"
         "2000000000",
         0x10},
        {{"WarningIsSuccess"},
         0x72,
         {Constructed(0x72, {T(0x86, "8418000000")})},
         {Respond(kRead, FromHex("63C2"))},
         0,
         "2000000000",
         0x00},
        {{"ResponseWithoutStatusWordFails"},
         0x72,
         {Constructed(0x72, {T(0x86, "8418000000")})},
         {Respond(kRead, FromHex("90"))},
         0x35003,
         "1100000000",
         0x10},
        {{"CommunicationErrorIsAFailedCommand"},
         0x72,
         {Constructed(0x72, {T(0x86, "8418000000")})},
         {SignalInstead(kRead, 0xA5)},
         0x30103,
         "1100000000",
         0x10},
        // Lc 04 with 10 bytes: nothing sent, the result stays as it was.
        {{"CommandLongerThanItsLc"},
         0x72,
         {Constructed(0x72, {T(0x86, "00A4040004A0000000031010")})},
         {},
         0x35004,
         "0000000000",
         0x10},
        {{"CommandShorterThanAHeader"},
         0x72,
         {Constructed(0x72, {T(0x86, "84180000")})},
         {},
         0x35004,
         "0000000000",
         0x10},
        {{"OtherTagInTheTemplate"},
         0x72,
         {Constructed(0x72, {T(0x9F18, "00000001"), T(0x80, "00")})},
         {},
         0x35005,
         "0000000001",
         0x10},
        {{"IdentifierOfAnotherLengthIgnored"},
         0x71,
         {Constructed(0x71, {T(0x9F18, "112233"), T(0x86, "8418000000")})},
         {Respond(kRead, FromHex("9000"))},
         0,
         "2000000000",
         0x00},
        {{"OnlyTheOwnKindRuns"},
         0x71,
         {Constructed(0x72, {T(0x86, "8418000000")}), Constructed(0x71, {T(0x86, "04DA9F580101")})},
         {Respond(kWrite, FromHex("9000"))},
         0,
         "2000000000",
         0x00},
    };

    // The 15th failing command and later ones report sequence F.
    std::vector<Bytes> fifteen;
    std::vector<CardExchange> answers;
    for (int i = 1; i <= 15; ++i) {
        const Bytes cmd = {0x84, 0x18, 0x00, static_cast<uint8_t>(i), 0x00};
        fifteen.push_back(Tlv(0x86, cmd));
        answers.push_back(Respond(cmd, FromHex(i < 15 ? "9000" : "6985")));
    }
    cases.push_back({{"FifteenthCommandFails"},
                     0x72,
                     {Constructed(0x72, fifteen)},
                     answers,
                     0x35003,
                     "1F00000000",
                     0x10});

    // Beyond the working table's 16 templates nothing is sent or recorded,
    // and the kind's failure bit tells the issuer.
    std::vector<Bytes> seventeen;
    std::vector<CardExchange> sixteen;
    std::string results;
    for (int i = 1; i <= 17; ++i) {
        const Bytes cmd = {0x84, 0x18, 0x00, static_cast<uint8_t>(i), 0x00};
        seventeen.push_back(Constructed(0x71, {Tlv(0x86, cmd)}));
        if (i <= 16) {
            sixteen.push_back(Respond(cmd, FromHex("9000")));
            results += "2000000000";
        }
    }
    static const std::string kSixteen = results;
    cases.push_back({{"SeventeenTemplates"}, 0x71, seventeen, sixteen, 0, kSixteen.c_str(), 0x20});
    return cases;
}

class Scripts : public ::testing::TestWithParam<ScriptCase> {};

TEST_P(Scripts, SendRecordAndFlag) {
    const ScriptCase &c = GetParam();
    ScriptedHost host;
    host.card = c.card;
    Bytes input = TransactionInput(c.templates);
    auto len = static_cast<uint32_t>(input.size());
    const uint32_t result = c.kind == 0x71
                                ? VelkCless_BeforeGAC_Script_Processing(input.data(), &len)
                                : VelkCless_AfterGAC_Script_Processing(input.data(), &len);
    EXPECT_EQ(result, c.kind == 0x71 ? 0u : c.result);
    EXPECT_TRUE(host.CardDone());
    EXPECT_EQ(Db(c.kind == 0x71 ? 0x9F8255 : 0x9F8256), c.results);
    EXPECT_EQ(Db(0x9B), "0400");
    EXPECT_EQ(host.g().ucTVR[4], c.tvr5);
    EXPECT_EQ(Db(0x95), c.tvr5 != 0 ? "00000000" + velk::host::ToHex(Bytes{c.tvr5}) : "absent");
}

INSTANTIATE_TEST_SUITE_P(Templates, Scripts, ::testing::ValuesIn(Cases()), CaseName());

TEST(Scripts, NoTemplateOrNoInputTemplateLeavesNoTrace) {
    ScriptedHost host;
    for (const Bytes &input :
         {TransactionInput({T(0x9F02, "000000000100")}), FromHex("DF090100")}) {
        // The input lies in the host's buffer of VELK_IO_BUFFER_MIN_LEN bytes.
        Bytes io = input;
        auto len = static_cast<uint32_t>(io.size());
        io.resize(VELK_IO_BUFFER_MIN_LEN, 0x00);
        EXPECT_EQ(VelkCless_AfterGAC_Script_Processing(io.data(), &len), 0u);
        EXPECT_EQ(VelkCless_Check_Script_IsPresent(io.data(), 0x72), 0);
    }
    EXPECT_EQ(Db(0x9B), "absent");
    EXPECT_EQ(Db(0x9F8256), "absent");
}

TEST(Scripts, AMalformedTemplateIsRefusedWithoutACommand) {
    ScriptedHost host;
    // 71 06 { 86 09 ... }: the command runs past its template.
    const Bytes tpl = FromHex("7106860984180000");
    uint8_t result[5] = {};
    EXPECT_EQ(VelkCless_Script_Process(tpl.data(), static_cast<uint32_t>(tpl.size()), result),
              0x35004u);
    EXPECT_EQ(host.g().ucTVR[4], 0x20);
    EXPECT_TRUE(host.capdus.empty());
}

}  // namespace
}  // namespace velk::test
