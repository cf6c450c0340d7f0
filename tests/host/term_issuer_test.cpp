// SPDX-License-Identifier: Apache-2.0
// The simulated issuer and the cryptography it shares with the virtual card:
// the MACs against published vectors, the ARQC check and the ARPC that the
// card accepts, what the issuer cannot check. (Its decisions and scripts as
// the command line sets them are the [issuer] rows of tests/cli/cases.txt.)
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/card/emv_crypto.hpp"
#include "velk/host/crypto.hpp"
#include "velk/term/issuer.hpp"
#include "velk/term/profiles.hpp"

namespace velk::term::test {
namespace {

using velk::card::CardKey;
using velk::card::CryptoAlgorithm;
using velk::host::Cat;
using velk::host::Tlv;

TEST(EmvCrypto, AesCmacMatchesRfc4493) {
    const Bytes key = FromHex("2b7e151628aed2a6abf7158809cf4f3c");
    EXPECT_EQ(velk::card::AesCmac(key, {}), FromHex("bb1d6929e95937287fa37d129b756746"));
    EXPECT_EQ(velk::card::AesCmac(key, FromHex("6bc1bee22e409f96e93d7e117393172a")),
              FromHex("070a16b46b4d4144f79bdd9dd04a287c"));
}

TEST(EmvCrypto, RetailMacIsMacAlgorithm3WithPaddingMethod2) {
    const Bytes key = FromHex("0123456789ABCDEFFEDCBA9876543210");
    // Lengths below, at and above a block boundary: padding method 2 always
    // adds 80, so a whole block of data gets a whole block of padding.
    for (const char *data :
         {"", "01", "4E6F772069732074", "4E6F77206973207468652074696D6520666F7220616C6C20"})
        EXPECT_EQ(velk::card::RetailMac(key, FromHex(data)), ReferenceRetailMac(key, FromHex(data)))
            << data;
    EXPECT_NE(velk::card::RetailMac(key, FromHex("00")),
              velk::card::RetailMac(key, FromHex("0000")));
    EXPECT_THROW(velk::card::RetailMac(FromHex("0011"), FromHex("00")), std::invalid_argument);
}

TEST(EmvCrypto, SessionKeysAndCryptogramsFollowTheAtc) {
    const CardKey tdes{CryptoAlgorithm::kTdes, FromHex("0123456789ABCDEFFEDCBA9876543210")};
    EXPECT_NE(velk::card::SessionKey(tdes, 1), velk::card::SessionKey(tdes, 2));
    EXPECT_EQ(velk::card::SessionKey(tdes, 1).size(), 16u);
    const CardKey aes{CryptoAlgorithm::kAes, FromHex("000102030405060708090A0B0C0D0E0F")};
    Bytes block(16, 0);
    block[1] = 0x05;
    block[2] = 0xF0;
    Bytes expected(16);
    velk::host::crypto::Aes(velk::host::crypto::Direction::kEncrypt, aes.master_key, block,
                            expected);
    EXPECT_EQ(velk::card::SessionKey(aes, 5), expected);
    Bytes mac = velk::card::AesCmac(expected, FromHex("0102"));
    mac.resize(8);
    EXPECT_EQ(velk::card::ApplicationCryptogram(aes, 5, FromHex("0102")), mac);
    EXPECT_THROW(velk::card::SessionKey(CardKey{CryptoAlgorithm::kAes, Bytes(15, 0)}, 1),
                 std::invalid_argument);
    EXPECT_THROW(velk::card::Arpc(tdes, 1, Bytes(7, 0), FromHex("3030")), std::invalid_argument);
}

// A first GENERATE AC of the online card, and the data record a kernel
// would send the issuer for it.
class IssuerTest : public ::testing::Test {
protected:
    IssuerTest() : card_(CardProfileNamed("online-cda")) {
        const auto &app = card_.Profile().applications[0];
        card_.PowerOn();
        card_.Transmit(Select(app.aid));
        card_.Transmit(Gpo(app.pdol.RelatedLength()));
        cdol_ = Bytes(app.cdol1.RelatedLength(), 0x00);
        cdol_[5] = 0x99;  // 9F02 = 000000000099
        const Bytes r = card_.Transmit(GenerateAc(0x80, cdol_));
        record_ = Cat({Tlv(0x9F02, FromHex("000000000099")), Tlv(0x9F26, *Find(r, 0x9F26)),
                       Tlv(0x9F36, *Find(r, 0x9F36)), Tlv(0x82, app.aip),
                       Tlv(0x5A, *app.RecordValue(0x5A))});
    }
    IssuerResponse Authorise(const Bytes &record, const std::string &decision = "approve") {
        return Issuer(IssuerConfig::FromDecision(decision), SecretsOf(card_)).Authorise(record);
    }

    velk::card::VirtualCard card_;
    Bytes cdol_, record_;
};

TEST_F(IssuerTest, TheArqcVerifiesAndTheCardAcceptsTheArpc) {
    const IssuerResponse r = Authorise(record_);
    EXPECT_EQ(r.arqc_check, "verified");
    ASSERT_EQ(r.authentication_data.size(), 10u);
    EXPECT_EQ(Bytes(r.authentication_data.end() - 2, r.authentication_data.end()), FromHex("3030"));
    // CDOL2: 8A, 91, TVR, UN.
    const Bytes second =
        card_.Transmit(GenerateAc(0x40, Cat({r.arc, r.authentication_data, Bytes(9, 0)})));
    EXPECT_EQ(Find(second, 0x9F27), Bytes{0x40});
}

TEST_F(IssuerTest, AChangedAmountDoesNotVerify) {
    Bytes record = record_;
    record[5] = 0x98;
    EXPECT_EQ(Authorise(record).arqc_check, "did not verify");
}

TEST_F(IssuerTest, WhatCannotBeCheckedIsSaid) {
    EXPECT_EQ(Authorise(Tlv(0x9F02, FromHex("000000000099"))).arqc_check,
              "not checked: the request lacks the cryptogram, the ATC or the AIP");
    const Bytes without_pan(record_.begin(), record_.end() - 10);
    EXPECT_EQ(Authorise(without_pan).arqc_check,
              "not checked: the issuer cannot tell which card this is");
    Bytes other_pan = record_;
    other_pan.back() ^= 0x01;
    const IssuerResponse r = Authorise(other_pan, "decline");
    EXPECT_EQ(r.arqc_check, "not checked: the issuer does not know this card's key");
    // Without the key the ARPC is zeros; the response code still travels.
    EXPECT_EQ(r.authentication_data, FromHex("00000000000000003035"));
}

TEST_F(IssuerTest, ScriptsAndTheArpcAsConfigured) {
    IssuerConfig config = IssuerConfig::FromDecision("approve");
    config.send_arpc = false;
    config.scripts = {FromHex("7105 860384 1E00"), FromHex("7200")};
    const IssuerResponse r = Issuer(config, nullptr).Authorise(record_);
    EXPECT_TRUE(r.authentication_data.empty());
    EXPECT_EQ(r.scripts, FromHex("7105 860384 1E00 7200"));
    EXPECT_EQ(r.arqc_check, "not checked: the issuer cannot tell which card this is");
}

}  // namespace
}  // namespace velk::term::test
