// Scenarios: transaction types by name, expectations against a report, the
// verdicts, and a folder run in child processes.
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/term/outputs.hpp"
#include "velk/term/scenario.hpp"

namespace velk::term::test {
namespace {

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
