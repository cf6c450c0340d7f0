// Scenarios: transaction types by name, expectations against a report, the
// verdicts, and a folder run in child processes.
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/term/outputs.hpp"
#include "velk/term/scenario.hpp"

namespace velk::term::test {
namespace {

using velk::card::Field;
using velk::card::Json;

TEST(Scenarios, TransactionTypesByName) {
    const TerminalProfile pos = TerminalNamed("pos");
    EXPECT_EQ(ParseTransactionType("purchase", pos), 0x00);
    EXPECT_EQ(ParseTransactionType("cashback", pos), 0x09);
    EXPECT_EQ(ParseTransactionType("refund", pos), 0x20);
    EXPECT_EQ(ParseTransactionType("retrieval", pos), 0x78);
    EXPECT_EQ(ParseTransactionType("update", pos), 0x79);
    EXPECT_EQ(ParseTransactionType("auth", pos), 0x7A);  // the terminal's 9F9309
    EXPECT_EQ(ParseTransactionType("31", pos), 0x31);
    EXPECT_THROW(ParseTransactionType("gift", pos), std::invalid_argument);
    TerminalProfile no_auth = pos;
    no_auth.parameters = velk::host::Tlv(0x9F9301, FromHex("00"));
    EXPECT_THROW(ParseTransactionType("auth", no_auth), std::invalid_argument);
}

TransactionReport Report() {
    TransactionReport r;
    KernelEntry first, second;
    first.outcome = ParseOutcomeParameters(FromHex("30300420E0F0FF00"));
    second.outcome = ParseOutcomeParameters(FromHex("10F0F020A0F0FF00"));
    second.ui = ParseUiRequest(FromHex("B0040000000000000000000000000000000000000000"));
    second.data_record = FromHex("9F2701409505 0000008000");
    second.status = 0x30101;
    r.entries = {first, second};
    r.result = "APPROVED";
    r.completed = true;
    r.online_flow = "long tap";
    r.aid = FromHex("F056454C4B1010");
    r.restarts = 1;
    return r;
}

TEST(Scenarios, ExpectationsThatHoldGiveNoDifference) {
    const Json expect =
        Json::parse(R"js({"result": "APPROVED", "outcomes": ["ONLINE REQUEST", "APPROVED"],
        "outcome": "APPROVED", "start": "not applicable", "cvm": "online PIN", "online": "long tap",
        "message": "Approved (after online authorisation)", "kernel_status": "0x30101", "restarts": 1,
        "selected": "F056454C4B1010", "completed": true, "data_record": {"9F27": "40", "95": "0000008000"}})js");
    EXPECT_EQ(CheckExpectations(expect, Report()), std::vector<std::string>{});
}

TEST(Scenarios, EachDifferenceIsOneLine) {
    const Json expect =
        Json::parse(R"({"outcome": "DECLINED", "outcomes": ["APPROVED"], "restarts": 0,
        "data_record": {"9F27": "00", "9F26": "00"}, "message": "Approved"})");
    EXPECT_EQ(CheckExpectations(expect, Report()),
              (std::vector<std::string>{
                  "outcome: expected DECLINED, got APPROVED",
                  "outcomes: expected [\"APPROVED\"], got [\"ONLINE REQUEST\",\"APPROVED\"]",
                  "restarts: expected 0, got 1", "data_record.9F27: expected 00, got 40",
                  "data_record.9F26: expected 00, got absent",
                  "message: expected Approved, got Approved (after online authorisation)"}));
    TransactionReport none;
    none.result = "NO TRANSACTION";
    EXPECT_EQ(
        CheckExpectations(Json::parse(R"({"outcome": "APPROVED", "message": "Approved"})"), none),
        (std::vector<std::string>{"outcome: expected APPROVED, got no outcome",
                                  "message: expected Approved, got no message"}));
}

// The exchange byte for byte: the kernel's C-APDUs, chosen callbacks, the
// outcome packet by tag, each entry on its own.
TEST(Scenarios, ExchangesAndPacketsAreComparedByteForByte) {
    TransactionReport r = Report();
    r.entries[0].number = 1;
    r.entries[1].number = 2;
    r.entries[1].output = FromHex("7F010CDF812908 10F0F020A0F0FF00");
    r.trace.Apdu(0, "select", FromHex("00A4"), FromHex("9000"));  // the entry point's
    r.trace.Apdu(1, "gpo", FromHex("80A8000002830000"), FromHex("9000"));
    r.trace.Apdu(2, "gac", FromHex("80AE40000B"), FromHex("9000"));
    r.trace.Answer(r.trace.Callback(1, 0xD4, FromHex("7F010CDF0001D49F0605F056454C4B")),
                   FromHex("7F0100"), 0);
    const Json holds = Json::parse(R"({"apdus": ["80A8 0000 0283 0000", "80AE..."],
        "callbacks": [{"command": "D4", "payload": "9F0605F056454C4B", "reply": "", "status": "0x0"},
                      {"command": "E9", "never": true}],
        "packet": {"DF8129": "10F0F020A0F0FF00", "9F8117": "absent"},
        "entries": [{"apdus": ["80A8000002830000"]}, {"packet": "7F010CDF81290810F0F020A0F0FF00"}]})");
    EXPECT_EQ(CheckExpectations(holds, r), std::vector<std::string>{});
    const Json differs = Json::parse(R"({"apdus": ["80A8000002830001"],
        "callbacks": [{"command": "D4"}, {"command": "D4"}], "packet": {"DF8116": "00"},
        "entries": [{"kernel_status": "0x0"}]})");
    EXPECT_EQ(CheckExpectations(differs, r),
              (std::vector<std::string>{
                  "apdus[0]: expected 80A8000002830001, got 80A8000002830000",
                  "apdus[1]: the card was sent 80AE40000B, which the scenario does not expect",
                  "callbacks[1]: expected callback D4, never sent",
                  "packet.DF8116: expected 00, got absent",
                  "entries: expected 1 kernel entries, got 2"}));
}

// A value no report can say is the scenario's error, with the spellings.
TEST(Scenarios, ExpectationsThatNameNothingAreRefused) {
    for (const auto &[text, says] : std::vector<std::pair<std::string, std::string>>{
             {R"({"online": "long-tap"})",
              "expected one of \"none\", \"online request\", \"long tap\""},
             {R"({"outcome": "OK"})", "'OK' is nothing a report says"},
             {R"({"kernel_status": "30101"})", "expected a status in hex"},
             {R"({"packet": {"XYZ": "00"}})", "'XYZ' is not a tag"},
             {R"({"apdus": ["80A8Z"]})", "bad character 'Z'"},
             {R"({"callbacks": [{"payload": "00"}]})", "command"},
             {R"({"entries": [{"online": "long tap"}]})", "online"},
             {R"({"outcomes": ["APPROVED", "FINE"]})", "'FINE'"}}) {
        const Field f(velk::card::ParseJsonText(text, "expect"));
        try {
            CheckExpectationNames(f);
            ADD_FAILURE() << "accepted " << text;
        } catch (const velk::card::ProfileError &e) {
            EXPECT_NE(std::string(e.what()).find(says), std::string::npos) << e.what();
        }
    }
}

TEST(Scenarios, CasesShareTheirFilesFieldsAndAFilterPicksThem) {
    TempDir dir;
    dir.Write("cases.json", R"({"name": "shared", "card": {"profile": "offline-cda"},
        "amount": "1.00", "expect": {"outcome": "APPROVED"}, "cases": [
          {"name": "one", "card": {"patch": {"application": {"fci": {"9F38": null}}}}},
          {"name": "two", "description": "the second", "amount": "2.00",
           "faults": [{"fault": "tear@gac2", "may_not_fire": true}]}]})");
    const auto scenarios = LoadScenarios(dir.Path() / "cases.json");
    ASSERT_EQ(scenarios.size(), 2u);
    EXPECT_EQ(scenarios[0].case_name, "one");
    EXPECT_TRUE(scenarios[0].card_patch["application"]["fci"]["9F38"].is_null());
    EXPECT_EQ(scenarios[0].amount, "1.00");
    EXPECT_EQ(scenarios[1].name, "the second");
    EXPECT_EQ(scenarios[1].amount, "2.00");
    EXPECT_EQ(scenarios[1].may_not_fire, std::vector<std::string>{"tear@gac2"});
    EXPECT_EQ(scenarios[1].terminal.filename(), "pos.json");  // as pay
    dir.Write("dup.json", R"({"name": "x", "card": "sda", "expect": {},
        "cases": [{"name": "a"}, {"name": "a"}]})");
    EXPECT_THROW(LoadScenarios(dir.Path() / "dup.json"), velk::card::ProfileError);
    const auto none = RunScenarios(dir.Path(), "/nonexistent", std::chrono::seconds(5), {}, "zz");
    ASSERT_EQ(none.size(), 1u);
    EXPECT_EQ(none[0].verdict, Verdict::kError);
    EXPECT_FALSE(AllPassed(none));
    TempDir empty;
    const auto nothing = RunScenarios(empty.Path(), "/nonexistent", std::chrono::seconds(5));
    ASSERT_EQ(nothing.size(), 1u);
    EXPECT_EQ(nothing[0].details[0], "no scenario file (*.json) here");
}

TEST(Scenarios, PendingScenariosDoNotFailARun) {
    std::vector<ScenarioResult> results(3);
    results[0].verdict = Verdict::kPass;
    results[1].verdict = Verdict::kPendingFail;
    results[2].verdict = Verdict::kPendingPass;
    EXPECT_TRUE(AllPassed(results));
    for (Verdict v : {Verdict::kFail, Verdict::kError, Verdict::kCrash, Verdict::kTimeout}) {
        results[0].verdict = v;
        EXPECT_FALSE(AllPassed(results)) << VerdictName(v);
    }
}

TEST(Scenarios, AFolderRunsEachScenarioInItsOwnProcess) {
    TempDir dir;
    const std::string cards = (Profiles() / "cards").string(),
                      terminals = (Profiles() / "terminals").string();
    dir.Write("a-good.json", R"({"name": "good", "card": ")" + cards +
                                 R"(/offline-cda.json", "terminal": ")" + terminals +
                                 R"(/pos.json", "expect": {}})");
    dir.Write("b-broken.json", R"({"name": )");
    dir.Write("c-pending.json", R"({"name": "later", "card": ")" + cards +
                                    R"(/none.json", "terminal": "pos", "expect": {},
                                    "needs": ["second-entry"]})");
    dir.Write("notes.txt", "not a scenario");
    const auto results = RunScenarioFolder(dir.Path(), "/nonexistent/libvelk.so.1",
                                           std::chrono::seconds(30), {"second-entry"});
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0].file, "a-good.json");
    EXPECT_EQ(results[0].verdict, Verdict::kError);  // the kernel library cannot be loaded
    EXPECT_NE(results[0].details[0].find("cannot load the kernel /nonexistent/libvelk.so.1"),
              std::string::npos);
    EXPECT_EQ(results[1].verdict, Verdict::kError);
    EXPECT_NE(results[1].details[0].find("b-broken.json:1:"), std::string::npos)
        << results[1].details[0];
    EXPECT_EQ(results[2].verdict, Verdict::kError);  // pending does not hide a broken scenario
    std::ostringstream table;
    PrintScenarioTable(table, results, false);
    EXPECT_NE(table.str().find("3 scenario(s): 3 ERROR"), std::string::npos) << table.str();
}

}  // namespace
}  // namespace velk::term::test
