// The entry point: which applications become candidates, in which order,
// and what happens when the card has no PPSE.
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/term/entry_point.hpp"

namespace velk::term::test {
namespace {

using velk::host::Cat;
using velk::host::Tlv;

Bytes Entry(const char *aid, int priority = -1) {
    Bytes e = Tlv(0x4F, FromHex(aid));
    if (priority >= 0) e = Cat({e, Tlv(0x87, Bytes{static_cast<uint8_t>(priority)})});
    return Tlv(0x61, e);
}

Bytes Ppse(std::initializer_list<Bytes> entries) {
    return Tlv(0x6F, Cat({Tlv(0x84, FromHex("325041592E5359532E4444463031")),
                          Tlv(0xA5, Tlv(0xBF0C, Cat(entries)))}));
}

std::vector<std::string> Aids(const std::vector<Candidate> &c) {
    std::vector<std::string> out;
    for (const Candidate &x : c)
        out.push_back(velk::host::ToHex(x.aid));
    return out;
}

TEST(EntryPointCandidates, OrderedByPriorityWithoutPriorityLastAndTiesInCardOrder) {
    const TerminalProfile pos = TerminalNamed("pos");
    const Bytes fci = Ppse({Entry("F056454C4B4010"), Entry("F056454C4B3010", 2),
                            Entry("F056454C4B2010", 1), Entry("F056454C4B1010", 2)});
    EXPECT_EQ(Aids(CandidatesFromPpse(pos, fci)),
              (std::vector<std::string>{"F056454C4B2010", "F056454C4B3010", "F056454C4B1010",
                                        "F056454C4B4010"}));
}

TEST(EntryPointCandidates, OnlyApplicationsTheTerminalSupportsAndTheLowNibbleIsThePriority) {
    const TerminalProfile pos = TerminalNamed("pos");
    // 0x81: "cardholder confirmation required", priority 1.
    const Bytes fci = Ppse({Entry("A0000000999999", 1), Entry("F056454C4B101001", 0x82),
                            Entry("F056454C4B2010", 0x81)});
    const auto c = CandidatesFromPpse(pos, fci);
    EXPECT_EQ(Aids(c), (std::vector<std::string>{"F056454C4B2010", "F056454C4B101001"}));
    EXPECT_EQ(c[0].priority, 1);
    // Nothing usable in data that is not a PPSE.
    EXPECT_TRUE(CandidatesFromPpse(pos, FromHex("6F03840100")).empty());
    EXPECT_TRUE(CandidatesFromPpse(pos, FromHex("6F05")).empty());
}

TEST(EntryPointCandidates, AnExactTerminalApplicationRefusesLongerCardAids) {
    TerminalApplication app;
    app.aid = FromHex("F056454C4B1010");
    app.partial = false;
    EXPECT_TRUE(app.Matches(FromHex("F056454C4B1010")));
    EXPECT_FALSE(app.Matches(FromHex("F056454C4B101001")));
    app.partial = true;
    EXPECT_TRUE(app.Matches(FromHex("F056454C4B101001")));
    EXPECT_FALSE(app.Matches(FromHex("F056454C4B10")));
}

class EntryPointTest : public ::testing::Test {
protected:
    std::optional<Selection> FirstSelection(const std::string &card_name,
                                            EntryPoint **out = nullptr) {
        card_ = std::make_unique<velk::card::VirtualCard>(CardProfileNamed(card_name));
        entry_ = std::make_unique<EntryPoint>(pos_, *card_, trace_);
        entry_->Start();
        if (out) *out = entry_.get();
        return entry_->SelectNext();
    }

    TerminalProfile pos_ = TerminalNamed("pos");
    Trace trace_;
    std::unique_ptr<velk::card::VirtualCard> card_;
    std::unique_ptr<EntryPoint> entry_;
};

TEST_F(EntryPointTest, SelectsTheHighestPriorityFirstAndTheNextOnRequest) {
    const auto first = FirstSelection("two-apps");
    ASSERT_TRUE(first);
    EXPECT_TRUE(entry_->UsedPpse());
    EXPECT_EQ(velk::host::ToHex(first->aid), "F056454C4B2010");
    EXPECT_EQ(first->label, "VELK DEBIT");
    EXPECT_EQ(velk::card::StatusWord(first->response), 0x9000);
    EXPECT_EQ(first->response[0], 0x6F);
    const auto second = entry_->SelectNext();
    ASSERT_TRUE(second);
    EXPECT_EQ(velk::host::ToHex(second->aid), "F056454C4B1010");
    EXPECT_FALSE(entry_->SelectNext());
}

TEST_F(EntryPointTest, WithoutPpseTheTerminalsListIsTriedInOrder) {
    const auto s = FirstSelection("no-ppse");
    ASSERT_TRUE(s);
    EXPECT_FALSE(entry_->UsedPpse());
    EXPECT_EQ(velk::host::ToHex(s->aid), "F056454C4B1010");
    // The other terminal applications are not on the card: nothing after it.
    EXPECT_FALSE(entry_->SelectNext());
    size_t selects = 0;
    for (const TraceEvent &e : trace_.Events())
        selects += e.type == TraceEvent::Type::kApdu;
    EXPECT_EQ(selects, 1u + pos_.applications.size());  // the PPSE and every terminal AID
}

TEST_F(EntryPointTest, AnApplicationThatRefusesItsSelectIsSkipped) {
    TempDir dir;
    const std::string base = (Profiles() / "cards" / "two-apps.json").string();
    const auto p = dir.Write("x.json", R"({"extends": ")" + base + R"("})");
    auto profile = velk::card::LoadCardProfile(p);
    profile.applications[0].select_sw = 0x6A81;  // the debit application is blocked
    card_ = std::make_unique<velk::card::VirtualCard>(profile);
    EntryPoint entry(pos_, *card_, trace_);
    entry.Start();
    const auto s = entry.SelectNext();
    ASSERT_TRUE(s);
    EXPECT_EQ(velk::host::ToHex(s->aid), "F056454C4B1010");
    EXPECT_NE(entry.Notes()[1].find("answered 6A 81"), std::string::npos) << entry.Notes()[1];
}

TEST_F(EntryPointTest, APpseRefusedOtherwiseLeavesNoCandidate) {
    auto profile = CardProfileNamed("offline-cda");
    profile.ppse_raw = Bytes{};
    card_ = std::make_unique<velk::card::VirtualCard>(profile);
    EntryPoint entry(pos_, *card_, trace_);
    entry.Start();  // an empty PPSE answer is a directory with nothing in it
    EXPECT_TRUE(entry.Candidates().empty());
    EXPECT_FALSE(entry.SelectNext());
}

TEST_F(EntryPointTest, ReselectReturnsTheResponseWhateverItsStatus) {
    ASSERT_TRUE(FirstSelection("offline-cda"));
    EXPECT_EQ(velk::card::StatusWord(entry_->Reselect(FromHex("F056454C4B1010"))), 0x9000);
    EXPECT_EQ(velk::card::StatusWord(entry_->Reselect(FromHex("F056454C4B9999"))), 0x6A82);
}

}  // namespace
}  // namespace velk::term::test
