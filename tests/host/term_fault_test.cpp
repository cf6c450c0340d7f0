// What each change of a fault does to a response, and what the faulty card
// does at the exchange it hits (how faults are read and refused: the [faults]
// rows of tests/cli/cases.txt).
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/card/faulty_card.hpp"

namespace velk::term::test {
namespace {

using velk::card::CardError;
using velk::card::CardErrorKind;
using velk::card::Fault;
using velk::card::FaultyCard;
using velk::card::VirtualCard;

Bytes Mutated(const char *fault, const char *response) {
    return velk::card::Mutate(Fault::Parse(fault), FromHex(response));
}

TEST(FaultMutate, EachChangeDoesWhatItSays) {
    const char *gpo = "770A 8202 1900 9404 08010100 9000";
    EXPECT_EQ(Mutated("mutate@gpo:sw=6985", gpo), FromHex("770A82021900940408010100 6985"));
    // Dropping or doubling an element keeps the templates' lengths right.
    EXPECT_EQ(Mutated("mutate@gpo:drop=82", gpo), FromHex("7706 940408010100 9000"));
    EXPECT_EQ(Mutated("mutate@gpo:dup=82", gpo),
              FromHex("770E 82021900 82021900 940408010100 9000"));
    EXPECT_EQ(Mutated("mutate@gpo:drop=5A", gpo), FromHex(gpo));  // absent: unchanged
    EXPECT_EQ(Mutated("mutate@gpo:truncate=3", gpo), FromHex("770A82021900940408 9000"));
    EXPECT_EQ(Mutated("mutate@gpo:truncate=99", gpo), FromHex("9000"));
    EXPECT_EQ(Mutated("mutate@gpo:length=+2", gpo), FromHex("770C82021900940408010100 9000"));
    EXPECT_EQ(Mutated("mutate@gpo:length=-1", "9F4B 8103 010203 9000"),
              FromHex("9F4B8102010203 9000"));
    EXPECT_EQ(Mutated("mutate@gpo:append=FF00", gpo), FromHex("770A82021900940408010100FF00 9000"));
    // Data that is not TLV cannot lose an element.
    EXPECT_EQ(Mutated("mutate@gpo:drop=82", "0102 9000"), FromHex("0102 9000"));
}

class FaultyCardTest : public ::testing::Test {
protected:
    FaultyCardTest() : card_(CardProfileNamed("offline-cda")) { card_.PowerOn(); }
    FaultyCard With(std::initializer_list<const char *> faults) {
        std::vector<Fault> list;
        for (const char *f : faults)
            list.push_back(Fault::Parse(f));
        return FaultyCard(card_, list);
    }
    void Start(FaultyCard &c) {
        c.Transmit(Select(card_.Profile().applications[0].aid));
        c.Transmit(Gpo(card_.Profile().applications[0].pdol.RelatedLength()));
    }
    Bytes Gac(FaultyCard &c) {
        return c.Transmit(
            GenerateAc(0x80, Bytes(card_.Profile().applications[0].cdol1.RelatedLength(), 0)));
    }
    static CardErrorKind KindOf(const std::function<void()> &f) {
        try {
            f();
        } catch (const CardError &e) {
            return e.kind();
        }
        ADD_FAILURE() << "no CardError";
        return CardErrorKind::kReader;
    }

    VirtualCard card_;
};

TEST_F(FaultyCardTest, TearLetsTheCardWorkButLosesItsAnswer) {
    FaultyCard c = With({"tear@gac1"});
    Start(c);
    EXPECT_EQ(KindOf([&] { Gac(c); }), CardErrorKind::kNoResponse);
    // The card did produce the cryptogram: the next GENERATE AC is the second.
    const auto &app = card_.Profile().applications[0];
    EXPECT_EQ(Sw(c.Transmit(GenerateAc(0x40, Bytes(app.cdol2.RelatedLength(), 0)))), 0x9000);
    EXPECT_EQ(c.Fired(), std::vector<std::string>{"tear@gac1"});
    EXPECT_TRUE(c.Present());
}

TEST_F(FaultyCardTest, CancelStopsBeforeTheCardSeesTheCommand) {
    FaultyCard c = With({"cancel@gpo"});
    c.Transmit(Select(card_.Profile().applications[0].aid));
    const uint16_t atc = card_.Atc();
    EXPECT_EQ(
        KindOf([&] { c.Transmit(Gpo(card_.Profile().applications[0].pdol.RelatedLength())); }),
        CardErrorKind::kCancelled);
    EXPECT_EQ(card_.Atc(), atc);
}

TEST_F(FaultyCardTest, ARemovedCardStaysAway) {
    FaultyCard c = With({"remove@read-record#2"});
    Start(c);
    EXPECT_EQ(Sw(c.Transmit(FromHex("00B2010C00"))), 0x9000);
    EXPECT_EQ(KindOf([&] { c.Transmit(FromHex("00B2011400")); }), CardErrorKind::kRemoved);
    EXPECT_EQ(KindOf([&] { c.Transmit(FromHex("00B2010C00")); }), CardErrorKind::kRemoved);
    EXPECT_FALSE(c.Present());
    EXPECT_FALSE(c.WaitPresent(std::chrono::milliseconds(0)));
    EXPECT_EQ(KindOf([&] { c.PowerOn(); }), CardErrorKind::kRemoved);
}

TEST_F(FaultyCardTest, OccurrencesCountPerCommandAndGenerateAcsCountFromTheGpo) {
    FaultyCard c =
        With({"mutate@any#3:sw=6A80", "mutate@gac2:sw=6985", "mutate@get-data#2:sw=6A88"});
    Start(c);  // SELECT, GPO: exchanges 1 and 2 of "any"
    EXPECT_EQ(Sw(c.Transmit(FromHex("80CA9F3600"))), 0x6A80);  // any #3
    EXPECT_EQ(Sw(c.Transmit(FromHex("80CA9F3600"))), 0x6A88);  // get-data #2
    EXPECT_EQ(Sw(Gac(c)), 0x9000);                             // gac1
    const auto &app = card_.Profile().applications[0];
    EXPECT_EQ(Sw(c.Transmit(GenerateAc(0x40, Bytes(app.cdol2.RelatedLength(), 0)))), 0x6985);
    EXPECT_EQ(c.Fired().size(), 3u);
    EXPECT_EQ(c.NotFired(), std::vector<std::string>{});
    // A new GPO starts the count of GENERATE ACs again; the fired fault stays spent.
    c.Transmit(Gpo(app.pdol.RelatedLength()));
    EXPECT_EQ(Sw(Gac(c)), 0x9000);
    EXPECT_EQ(Sw(c.Transmit(GenerateAc(0x40, Bytes(app.cdol2.RelatedLength(), 0)))), 0x9000);
}

TEST_F(FaultyCardTest, AGivenResponseLetsTheCardWorkAndCountsByTheCommandsBytes) {
    FaultyCard c = With({"respond@80CA9F36#2:6A88", "respond@gac1:6985", "tear@gac2"});
    Start(c);
    EXPECT_EQ(Sw(c.Transmit(FromHex("80CA9F3600"))), 0x9000);
    EXPECT_EQ(Sw(c.Transmit(FromHex("80CA9F1300"))), 0x9000);  // another command's bytes
    EXPECT_EQ(c.Transmit(FromHex("80CA9F3600")), FromHex("6A88"));
    EXPECT_EQ(Sw(Gac(c)), 0x6985);
    // The card did produce the cryptogram: the next GENERATE AC is its second.
    const auto &app = card_.Profile().applications[0];
    EXPECT_EQ(Sw(card_.Transmit(GenerateAc(0x40, Bytes(app.cdol2.RelatedLength(), 0)))), 0x9000);
    EXPECT_EQ(c.NotFired(), std::vector<std::string>{"tear@gac2"});
}

}  // namespace
}  // namespace velk::term::test
