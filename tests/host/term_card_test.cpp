// The virtual card as a kernel meets it: what each command returns, that its
// cryptograms are the ones an issuer recomputes, that its certificates and
// signatures open with the test PKI, and that its counters count.
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/card/emv_crypto.hpp"
#include "velk/pki/openssl_backend.hpp"
#include "velk/pki/test_keys.hpp"

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

TEST_F(CardTest, PpseListsTheApplicationsWithTheirPriority) {
    Open("two-apps");
    const std::string_view name = velk::card::kPpseName;
    const Bytes r = card_->Transmit(Select(Bytes(name.begin(), name.end())));
    ASSERT_EQ(Sw(r), 0x9000);
    const auto nodes = velk::card::ParseTlvData(velk::card::ResponseData(r));
    const auto *dir = velk::host::Find(nodes, 0xBF0C);
    ASSERT_NE(dir, nullptr);
    ASSERT_EQ(dir->children.size(), 2u);
    EXPECT_EQ(velk::host::Find(dir->children[0].children, 0x87)->value, Bytes{0x01});
    EXPECT_EQ(velk::host::Find(dir->children[1].children, 0x4F)->value, FromHex("F056454C4B1010"));
}

TEST_F(CardTest, ACardWithoutPpseAndUnknownApplicationsAnswerFileNotFound) {
    Open("no-ppse");
    const std::string_view name = velk::card::kPpseName;
    EXPECT_EQ(Sw(card_->Transmit(Select(Bytes(name.begin(), name.end())))), 0x6A82);
    EXPECT_EQ(Sw(card_->Transmit(Select(FromHex("A000000000")))), 0x6A82);
    // Partial selection: the start of the AID finds the application.
    EXPECT_EQ(Sw(card_->Transmit(Select(FromHex("F056454C4B")))), 0x9000);
}

TEST_F(CardTest, GpoChecksThePdolDataAndCountsTheAtc) {
    Open("offline-cda");
    EXPECT_EQ(Sw(card_->Transmit(Gpo(app_->pdol.RelatedLength() + 1))), 0x6700);
    const uint16_t before = card_->Atc();
    const Bytes r = StartTransaction();
    ASSERT_EQ(Sw(r), 0x9000);
    EXPECT_EQ(Find(r, 0x82), app_->aip);
    EXPECT_EQ(Find(r, 0x94), app_->afl);
    EXPECT_EQ(card_->Atc(), before + 1);
    EXPECT_EQ(Find(card_->Transmit(FromHex("80CA9F3600")), 0x9F36),
              (Bytes{static_cast<uint8_t>((before + 1) >> 8), static_cast<uint8_t>(before + 1)}));
    StartTransaction();
    EXPECT_EQ(card_->Atc(), before + 2);
}

TEST_F(CardTest, EveryRecordOfTheAflIsThereAndOthersAreNot) {
    Open("offline-cda");
    StartTransaction();
    for (size_t i = 0; i < app_->afl.size(); i += 4)
        for (int n = app_->afl[i + 1]; n <= app_->afl[i + 2]; ++n) {
            const Bytes r = card_->Transmit(Bytes{0x00, 0xB2, static_cast<uint8_t>(n),
                                                  static_cast<uint8_t>(app_->afl[i] | 4), 0x00});
            EXPECT_EQ(Sw(r), 0x9000);
            EXPECT_EQ(r[0], 0x70);
        }
    EXPECT_EQ(Sw(card_->Transmit(FromHex("00B2090C00"))), 0x6A83);
}

TEST_F(CardTest, GenerateAcNeedsGpoAndTheExactCdolLength) {
    Open("offline-cda");
    EXPECT_EQ(Sw(card_->Transmit(GenerateAc(0x40, Cdol1Data()))), 0x6985);
    StartTransaction();
    EXPECT_EQ(Sw(card_->Transmit(GenerateAc(0x40, Bytes(3, 0)))), 0x6700);
    EXPECT_EQ(Sw(card_->Transmit(GenerateAc(0x40, Cdol1Data()))), 0x9000);
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

TEST_F(CardTest, TheSecondGenerateAcIsAcceptedAfterTheCardIsSelectedAgain) {
    Open("online-tap");
    StartTransaction();
    const Bytes first = card_->Transmit(GenerateAc(0x80, Cdol1Data()));
    EXPECT_EQ(Find(first, 0xC5), Bytes{0x08});
    card_->PowerOff();
    card_->PowerOn();
    ASSERT_EQ(Sw(card_->Transmit(Select(app_->aid))), 0x9000);
    const Bytes arpc =
        velk::card::Arpc(app_->key, card_->Atc(), *Find(first, 0x9F26), Bytes{'0', '0'});
    const Bytes r = card_->Transmit(
        GenerateAc(0x40, Cat({FromHex("3030"), arpc, FromHex("3030"), Bytes(9, 0)})));
    EXPECT_EQ(Find(r, 0x9F27), Bytes{0x40});
}

TEST_F(CardTest, EchoReturnsTheLastGenerateAcResponseOnlyOnCardsThatKeepIt) {
    Open("echo");
    StartTransaction();
    EXPECT_EQ(Sw(card_->Transmit(FromHex("80DF0100041122334400"))), 0x6985);
    const Bytes gac = card_->Transmit(GenerateAc(0x40, Cdol1Data()));
    EXPECT_EQ(card_->Transmit(FromHex("80DF0100041122334400")), gac);
    Open("offline-cda");
    StartTransaction();
    card_->Transmit(GenerateAc(0x40, Cdol1Data()));
    EXPECT_EQ(Sw(card_->Transmit(FromHex("80DF0100041122334400"))), 0x6D00);
}

TEST_F(CardTest, PutDataChangesWhatGetDataReturnsForAcceptedTagsOnly) {
    Open("data-storage");
    EXPECT_EQ(Find(card_->Transmit(FromHex("80CADF5100")), 0xDF51), FromHex("00000064"));
    EXPECT_EQ(Sw(card_->Transmit(FromHex("00DADF5104000000C8"))), 0x9000);
    EXPECT_EQ(Find(card_->Transmit(FromHex("80CADF5100")), 0xDF51), FromHex("000000C8"));
    EXPECT_EQ(Sw(card_->Transmit(FromHex("00DA9F5006000000009999"))), 0x6A81);
    EXPECT_EQ(Sw(card_->Transmit(FromHex("80CADF5900"))), 0x6A88);
}

TEST_F(CardTest, ScriptCommandsAndUnknownInstructions) {
    Open("offline-cda");
    EXPECT_EQ(Sw(card_->Transmit(FromHex("841E0000081122334455667788"))), 0x9000);
    EXPECT_EQ(Sw(card_->Transmit(FromHex("80EE000000"))), 0x6D00);
    EXPECT_EQ(Sw(card_->Transmit(FromHex("80"))), 0x6700);
}

TEST_F(CardTest, ACardOutOfTheFieldOrUnpoweredDoesNotAnswer) {
    Open("offline-cda");
    card_->PowerOff();
    EXPECT_THROW(card_->Transmit(Select(app_->aid)), velk::card::CardError);
    card_->SetPresent(false);
    EXPECT_THROW(card_->PowerOn(), velk::card::CardError);
    EXPECT_FALSE(card_->WaitPresent(std::chrono::milliseconds(0)));
}

// ---- Offline data authentication material --------------------------------

const pki::Backend &Backend() {
    return pki::OpenSslBackend();
}

// The CA key from the terminal's bundled key store: the card's certificates
// must open with what a terminal holds, not with the PKI's private copy.
pki::RsaKey CaFromKeyStore(const velk::card::Application &app) {
    const auto keys = LoadCaKeys(Profiles() / "keys" / "ca.json");
    const Bytes index = *app.RecordValue(0x8F);
    for (const CaKey &k : keys)
        if (k.rid == Bytes(app.aid.begin(), app.aid.begin() + 5) && k.index == index[0])
            return {k.modulus, k.exponent, {}};
    ADD_FAILURE() << "no CA key " << velk::host::ToHex(index);
    return {};
}

Bytes StaticData(const velk::card::Application &app) {
    std::vector<pki::OdaRecord> records;
    for (size_t i = 0; i < app.afl.size(); i += 4)
        for (int n = app.afl[i + 1]; n < app.afl[i + 1] + app.afl[i + 3]; ++n)
            records.push_back({static_cast<uint8_t>(app.afl[i] >> 3),
                               app.FindRecord(app.afl[i] >> 3, static_cast<uint8_t>(n))->Encode()});
    return pki::StaticDataToAuthenticate(records, app.aip);
}

pki::RsaKey IssuerKey(const velk::card::Application &app) {
    const pki::IssuerCertificate cert{
        *app.RecordValue(0x90), app.RecordValue(0x92).value_or(Bytes{}), *app.RecordValue(0x9F32)};
    const auto issuer = pki::RecoverIssuerCertificate(Backend(), CaFromKeyStore(app), cert);
    EXPECT_TRUE(issuer.recovered.hash_matches);
    // The issuer identifier is the start of the PAN.
    EXPECT_EQ(velk::host::ToHex(issuer.identity).substr(0, 6),
              velk::host::ToHex(*app.RecordValue(0x5A)).substr(0, 6));
    return issuer.key;
}

pki::RsaKey IccKey(const velk::card::Application &app) {
    const pki::IccCertificate cert{*app.RecordValue(0x9F46),
                                   app.RecordValue(0x9F48).value_or(Bytes{}),
                                   *app.RecordValue(0x9F47)};
    const auto icc = pki::RecoverIccCertificate(Backend(), IssuerKey(app), cert, StaticData(app));
    EXPECT_TRUE(icc.recovered.hash_matches);
    EXPECT_EQ(velk::host::ToHex(icc.identity).substr(0, 16),
              velk::host::ToHex(*app.RecordValue(0x5A)));
    return icc.key;
}

TEST_F(CardTest, CdaCardCertificatesOpenWithTheTerminalsCaKey) {
    Open("offline-cda");
    EXPECT_EQ(IccKey(*app_).n, pki::test_keys::Icc768().n);
}

TEST_F(CardTest, SdaCardSignedStaticDataOpensOverItsRecordsAndAip) {
    Open("sda");
    const auto sda = pki::RecoverStaticData(Backend(), IssuerKey(*app_), *app_->RecordValue(0x93),
                                            StaticData(*app_));
    EXPECT_TRUE(sda.recovered.hash_matches);
    EXPECT_EQ(sda.data_authentication_code, FromHex("DAC1"));
}

TEST_F(CardTest, InternalAuthenticateSignsTheDdolData) {
    Open("dda-auth");
    StartTransaction();
    const Bytes un = FromHex("01020304");
    const Bytes r = card_->Transmit(Cat({FromHex("0088000004"), un, FromHex("00")}));
    ASSERT_EQ(Sw(r), 0x9000);
    ASSERT_EQ(r[0], 0x80);  // format 1
    const auto dda = pki::RecoverDynamicData(Backend(), IccKey(*app_), *Find(r, 0x80), un);
    EXPECT_TRUE(dda.recovered.hash_matches);
    EXPECT_EQ(dda.icc_dynamic_number.size(), 4u);
    EXPECT_EQ(Sw(card_->Transmit(FromHex("0088000002010200"))), 0x6700);
}

TEST_F(CardTest, CdaSignatureCarriesTheCryptogramAndHashesWhatTheTerminalSent) {
    Open("offline-cda");
    const Bytes pdol(app_->pdol.RelatedLength(), 0x00);
    StartTransaction();
    Bytes data = Cdol1Data();
    const Bytes un = FromHex("CAFEF00D");
    size_t un_at = 0;
    for (const auto &e : app_->cdol1.Entries()) {
        if (e.tag == 0x9F37) break;
        un_at += e.length;
    }
    std::copy(un.begin(), un.end(), data.begin() + static_cast<std::ptrdiff_t>(un_at));
    const Bytes r = card_->Transmit(GenerateAc(0x50, data));
    ASSERT_EQ(Sw(r), 0x9000);
    EXPECT_FALSE(Find(r, 0x9F26));  // the cryptogram is inside the signature
    const auto dyn = pki::RecoverDynamicData(Backend(), IccKey(*app_), *Find(r, 0x9F4B), un);
    EXPECT_TRUE(dyn.recovered.hash_matches);
    EXPECT_EQ(dyn.cid, 0x40);
    const Bytes rest = pki::GacDataWithoutSdad(velk::card::ResponseData(r));
    EXPECT_EQ(dyn.transaction_data_hash, pki::TransactionDataHash(Backend(), pdol, data, rest));
    const uint16_t atc = card_->Atc();
    EXPECT_EQ(dyn.application_cryptogram,
              velk::card::ApplicationCryptogram(
                  app_->key, atc,
                  Cat({data, app_->aip,
                       Bytes{static_cast<uint8_t>(atc >> 8), static_cast<uint8_t>(atc)}})));
    // An AAC is never signed.
    Open("declining");
    StartTransaction();
    const Bytes aac = card_->Transmit(GenerateAc(0x10, Cdol1Data()));
    EXPECT_FALSE(Find(aac, 0x9F4B));
    EXPECT_EQ(Find(aac, 0x9F27), Bytes{0x00});
}

}  // namespace
}  // namespace velk::term::test
