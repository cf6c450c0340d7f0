// SPDX-License-Identifier: Apache-2.0
// What the faulty card does to the card behind it at the exchange a fault
// hits: what the terminal sees is the [faults] and [fault-changes] rows of
// tests/cli/cases.txt.
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

}  // namespace
}  // namespace velk::term::test
