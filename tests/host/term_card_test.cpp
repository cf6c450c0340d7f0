// SPDX-License-Identifier: Apache-2.0
// The virtual card's answers beyond what a kernel asks of it: the refusals
// and counters command by command, its cryptograms recomputed from DES alone,
// the ARPC check. (Its certificates and signatures are checked by the kernel
// in every scenario with offline data authentication.)
#include <gtest/gtest.h>

#include <cstring>

#include "term/term_test.hpp"
#include "velk/card/emv_crypto.hpp"

namespace velk::term::test {
namespace {

using velk::card::VirtualCard;
using velk::host::Cat;
using velk::host::Tlv;

// A card selected and past GPO, with its first application at hand.
class CardTest : public ::testing::Test {
protected:
    void Open(const std::string &name) {
        card_ = std::make_unique<VirtualCard>(CardProfileNamed(name));
        card_->PowerOn();
        app_ = &card_->Profile().applications[0];
        ASSERT_EQ(Sw(card_->Transmit(Select(app_->aid))), 0x9000);
    }
    Bytes StartTransaction() { return card_->Transmit(Gpo(app_->pdol.RelatedLength())); }
    Bytes Cdol1Data() const {
        Bytes d(app_->cdol1.RelatedLength(), 0x00);
        d[5] = 0x42;  // an amount, so that the data is not all zeros
        return d;
    }

    std::unique_ptr<VirtualCard> card_;
    const velk::card::Application *app_ = nullptr;
};

// Commands in turn, each with the status word (4 digits) or the whole
// response it must get. A row naming another card starts on that card,
// powered and unselected; "select", "gpo", "gpo+1" (one byte too many),
// "gac" (P1 40), "gac10" (an AAC with CDA) and "gac/3" (3 bytes of data)
// are the application's commands.
TEST_F(CardTest, AnswersCommandByCommand) {
    const struct {
        const char *card, *command, *expect;
    } rows[] = {
        {"no-ppse", "00A404000E325041592E5359532E444446303100", "6A82"},
        {"no-ppse", "00A4040005A00000000000", "6A82"},
        {"no-ppse", "00A4040005F056454C4B00", "9000"},  // the start of the AID selects
        {"offline-cda", "select", "9000"},
        {"offline-cda", "gac", "6985"},  // before GPO
        {"offline-cda", "gpo+1", "6700"},
        {"offline-cda", "gpo", "9000"},
        {"offline-cda", "80CA9F3600", "9F360200119000"},  // the ATC counts the GPO
        {"offline-cda", "gpo", "9000"},
        {"offline-cda", "80CA9F3600", "9F360200129000"},
        {"offline-cda", "gac/3", "6700"},
        {"offline-cda", "00B2090C00", "6A83"},
        {"offline-cda", "841E0000081122334455667788", "9000"},
        {"offline-cda", "80EE000000", "6D00"},
        {"offline-cda", "80", "6700"},
        {"offline-cda", "gac", "9000"},
        {"offline-cda", "80DF0100041122334400", "6D00"},  // no ECHO on this card
        {"echo", "select", "9000"},
        {"echo", "gpo", "9000"},
        {"echo", "80DF0100041122334400", "6985"},  // nothing to echo yet
        {"data-storage", "select", "9000"},
        {"data-storage", "80CADF5100", "DF5104000000649000"},
        {"data-storage", "00DADF5104000000C8", "9000"},
        {"data-storage", "80CADF5100", "DF5104000000C89000"},
        {"data-storage", "00DA9F5006000000009999", "6A81"},  // a tag PUT DATA does not take
        {"data-storage", "80CADF5900", "6A88"},
        {"declining", "select", "9000"},
        {"declining", "gpo", "9000"},
        {"declining", "gac10",  // an AAC is never signed: 9F26, no 9F4B
         "771E9F2701009F360200119F2608B5B8F363A1359ECC9F100706010A03A000009000"},
        {"dda-auth", "select", "9000"},
        {"dda-auth", "gpo", "9000"},
        {"dda-auth", "0088000002010200", "6700"},  // not the DDOL's length
    };
    std::string open;
    for (const auto &row : rows) {
        if (open != row.card) {
            card_ = std::make_unique<VirtualCard>(CardProfileNamed(row.card));
            card_->PowerOn();
            app_ = &card_->Profile().applications[0];
            open = row.card;
        }
        const std::string c = row.command;
        const Bytes apdu = c == "select"  ? Select(app_->aid)
                           : c == "gpo"   ? Gpo(app_->pdol.RelatedLength())
                           : c == "gpo+1" ? Gpo(app_->pdol.RelatedLength() + 1)
                           : c == "gac"   ? GenerateAc(0x40, Cdol1Data())
                           : c == "gac10" ? GenerateAc(0x10, Cdol1Data())
                           : c == "gac/3" ? GenerateAc(0x40, Bytes(3, 0))
                                          : FromHex(c);
        const Bytes r = card_->Transmit(apdu);
        const std::string got =
            velk::host::ToHex(std::strlen(row.expect) == 4 ? Bytes(r.end() - 2, r.end()) : r);
        EXPECT_EQ(got, row.expect) << row.card << " " << c;
    }
}

// The cryptogram is ISO 9797-1 MAC algorithm 3 under the ATC's session key
// over the CDOL1 data, the AIP and the ATC: recomputed here from DES alone.
TEST_F(CardTest, TheCryptogramIsTheIssuersMacOverTheCdolDataAipAndAtc) {
    Open("offline-cda");
    StartTransaction();
    const Bytes data = Cdol1Data();
    const Bytes r = card_->Transmit(GenerateAc(0x40, data));
    const uint16_t atc = card_->Atc();
    const Bytes atc_bytes{static_cast<uint8_t>(atc >> 8), static_cast<uint8_t>(atc)};
    Bytes sk = DesEcb(app_->key.master_key, Cat({atc_bytes, FromHex("F00000000000")}), true);
    const Bytes right =
        DesEcb(app_->key.master_key, Cat({atc_bytes, FromHex("0F0000000000")}), true);
    sk.insert(sk.end(), right.begin(), right.end());
    const Bytes mac = ReferenceRetailMac(sk, Cat({data, app_->aip, atc_bytes}));
    // Without CDA the cryptogram travels in 9F26.
    EXPECT_EQ(Find(r, 0x9F26), mac);
    EXPECT_EQ(Find(r, 0x9F27), Bytes{0x40});
    EXPECT_EQ(Find(r, 0x9F36), atc_bytes);
}

TEST_F(CardTest, ThePolicyDecidesTheCryptogramAndTheSecondGenerateAcChecksTheArpc) {
    Open("online-cda");
    StartTransaction();
    const Bytes first = card_->Transmit(GenerateAc(0x40, Cdol1Data()));
    EXPECT_EQ(Find(first, 0x9F27), Bytes{0x80});  // asked for a TC, answers ARQC
    const Bytes arqc = *Find(first, 0x9F26);
    const Bytes arc{'0', '0'};
    const Bytes arpc = velk::card::Arpc(app_->key, card_->Atc(), arqc, arc);
    // CDOL2: 8A, 91 (ARPC and response code), TVR, UN.
    const Bytes good = Cat({arc, arpc, arc, Bytes(9, 0x00)});
    Bytes bad = good;
    bad[2] ^= 0x01;
    auto second = [&](const Bytes &cdol2) {
        Open("online-cda");
        StartTransaction();
        card_->Transmit(GenerateAc(0x40, Cdol1Data()));
        return card_->Transmit(GenerateAc(0x40, cdol2));
    };
    const uint16_t last_online = card_->LastOnlineAtc();
    EXPECT_EQ(Find(second(good), 0x9F27), Bytes{0x40});
    EXPECT_EQ(card_->LastOnlineAtc(), card_->Atc());
    EXPECT_EQ(Find(second(bad), 0x9F27), Bytes{0x00});
    EXPECT_EQ(card_->LastOnlineAtc(), last_online);
    // No third GENERATE AC in one transaction.
    EXPECT_EQ(Sw(card_->Transmit(GenerateAc(0x40, good))), 0x6985);
}

TEST_F(CardTest, ACardOutOfTheFieldOrUnpoweredDoesNotAnswer) {
    Open("offline-cda");
    card_->PowerOff();
    EXPECT_THROW(card_->Transmit(Select(app_->aid)), velk::card::CardError);
    card_->SetPresent(false);
    EXPECT_THROW(card_->PowerOn(), velk::card::CardError);
    EXPECT_FALSE(card_->WaitPresent(std::chrono::milliseconds(0)));
}

}  // namespace
}  // namespace velk::term::test
