// Whole transactions with offline data authentication against scripted cards
// that carry real certificate chains built at test time: SDA, DDA (in the
// authentication-only flow) and CDA succeeding, and each characteristic
// failure with its TVR bits, the CID turned into an AAC and the declined
// outcome.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "baseKernel.h"
#include "db_access.hpp"
#include "first_tap.hpp"
#include "named_case.hpp"
#include "oda_card.hpp"
#include "outcome_sets.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::Tlv;
using velk::host::ToHex;
namespace keys = pki::test_keys;

constexpr char kCaKeyRequest[] =
    "7F0111DF0001D4"
    "9F0607A0000000031010"
    "8F0192";
// The E9 request for the issuer certificate with serial number 00 00 01.
constexpr char kRevocationRequest[] =
    "7F0116DF0001E9"
    "9F0605A000000003"
    "8F0192"
    "DF810803000001";

std::string RecordValue(const OutcomePacket &p, uint32_t tag) {
    if (!p.record) return "no record";
    const velk::host::TlvNode *n = velk::host::Find(*p.record, tag);
    return n == nullptr ? "absent" : ToHex(n->value);
}

std::vector<std::string> Raw(const ScriptedHost &host, uint8_t command) {
    std::vector<std::string> raw;
    for (const Message &m : host.MessagesFor(command))
        raw.push_back(ToHex(m.raw));
    return raw;
}

// A first tap with the ODA card; `host` gets the card's CA directory unless
// the test installs its own afterwards.
struct OdaTap {
    FirstTap tap;
    OdaCard oda;
    CaDirectory directory;

    explicit OdaTap(Cam cam) {
        oda.cam = cam;
        // ODA selected: TVR byte 1 bit 0x80 cleared; SDA marks its selection.
        tap.tvr = cam == Cam::Sda ? "0200000000" : "0000000000";
        directory = oda.Directory();
    }
    TapResult Run(ScriptedHost &host) {
        oda.ApplyTo(tap);
        directory.Install(host);
        return tap.Run(host);
    }
    // For a card on which the method is not selected: the standard GENERATE
    // AC, without a signature, with this reference control parameter.
    TapResult RunUnselected(ScriptedHost &host, uint8_t p1) {
        oda.ApplyTo(tap);
        tap.gacP1 = p1;
        tap.gac = Respond(tap.GacCommand(), tap.card.GacResponse());
        directory.Install(host);
        return tap.Run(host);
    }
};

// ---- Success ---------------------------------------------------------------------------

TEST(OdaTransaction, CdaIsVerifiedAfterTheCryptogramAndApproved) {
    ScriptedHost host;
    OdaTap t(Cam::Cda);
    const TapResult r = t.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    ASSERT_EQ(host.capdus.size(), 6u);
    EXPECT_EQ(ToHex(host.capdus[3]), "00B2011400");
    EXPECT_EQ(ToHex(host.capdus[4]), "00B2021400");
    // TC with a CDA signature requested, TVR clean.
    EXPECT_EQ(ToHex(host.capdus[5]),
              "80AE50001D"
              "000000000100"
              "000000000000"
              "0978"
              "0000000000"
              "0978"
              "250101"
              "00"
              "11223344"
              "00");
    EXPECT_EQ(Raw(host, VELK_CMD_CA_KEY), std::vector<std::string>{kCaKeyRequest});
    EXPECT_EQ(Raw(host, VELK_CMD_REVOCATION), std::vector<std::string>{kRevocationRequest});
    // The keys recovered, the cryptogram and the dynamic number from the signature.
    EXPECT_EQ(Db(0x9F8232), ToHex(keys::Issuer864().n));
    EXPECT_EQ(Db(0x9F8233), ToHex(keys::Icc688().n));
    EXPECT_EQ(Db(0x9F26), t.tap.card.ac);
    EXPECT_EQ(Db(0x9F4C), ToHex(t.oda.iccDynamicNumber));
    EXPECT_EQ(Db(0x9F9306), "02");
    const OutcomePacket p(r.out);
    EXPECT_EQ(RecordValue(p, 0x9F27), "40");
    EXPECT_EQ(RecordValue(p, 0x95), "0000000000");
    EXPECT_EQ(RecordValue(p, 0x9F26), t.tap.card.ac);
}

TEST(OdaTransaction, SdaIsVerifiedOnATcAndApproved) {
    ScriptedHost host;
    OdaTap t(Cam::Sda);
    const TapResult r = t.Run(host);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    ASSERT_EQ(host.capdus.size(), 6u);
    EXPECT_EQ(host.capdus[5][2], 0x40);  // no CDA
    EXPECT_EQ(Raw(host, VELK_CMD_CA_KEY), std::vector<std::string>{kCaKeyRequest});
    EXPECT_EQ(Raw(host, VELK_CMD_REVOCATION), std::vector<std::string>{kRevocationRequest});
    EXPECT_EQ(Db(0x9F45), "DAC1");
    EXPECT_EQ(Db(0x9F9306), "01");
    const OutcomePacket p(r.out);
    EXPECT_EQ(RecordValue(p, 0x9F27), "40");
    EXPECT_EQ(RecordValue(p, 0x95), "0200000000");
    EXPECT_EQ(RecordValue(p, 0x9F45), "DAC1");
}

// The authentication-only flow: implementation option 0x10, the transaction
// type listed in 9F9309, capability 0x340, and 0x301 to go through CAM
// checking. No GENERATE AC.
void AuthenticationOnly(FirstTap &tap) {
    tap.reader.options = "10";
    tap.reader.capabilities = "060000411800";
    tap.reader.extra = {Tlv(0x9F9309, FromHex("00"))};
    // The amounts are zeros in an authentication-only transaction.
    tap.gpoCommand = FromHex("80A800000E830C 000000000000 0978 11223344 00");
    tap.endAfter = 6;  // GPO, four READ RECORDs, INTERNAL AUTHENTICATE
}

TEST(OdaTransaction, DdaAuthenticatesTheCardInTheAuthenticationOnlyFlow) {
    ScriptedHost host;
    OdaTap t(Cam::Dda);
    AuthenticationOnly(t.tap);
    const TapResult r = t.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kEndApplicationWithRecord);
    ASSERT_EQ(host.capdus.size(), 6u);
    EXPECT_EQ(ToHex(host.capdus[5]),
              "0088000004"
              "11223344"
              "00");
    EXPECT_EQ(Raw(host, VELK_CMD_CA_KEY), std::vector<std::string>{kCaKeyRequest});
    EXPECT_EQ(Raw(host, VELK_CMD_REVOCATION), std::vector<std::string>{kRevocationRequest});
    EXPECT_EQ(Db(0x9F9315), "11223344");
    EXPECT_EQ(Db(0x9F4C), ToHex(t.oda.iccDynamicNumber));
    EXPECT_EQ(Db(0x9F9306), "03");
    const OutcomePacket p(r.out);
    EXPECT_EQ(RecordValue(p, 0x95), "0000000000");
    EXPECT_EQ(RecordValue(p, 0x82), "3800");
}

TEST(OdaTransaction, DdaFailuresAreReportedInTheTvr) {
    struct Case {
        const char *name;
        std::function<void(OdaTap &)> fault;
    };
    for (const Case &c :
         {Case{"AlteredStaticData", [](OdaTap &t) { t.oda.alterSignedRecord = true; }},
          Case{"InternalAuthenticateRefused",
               [](OdaTap &t) { t.oda.sddaResponse = FromHex("6985"); }},
          Case{"UnknownCaKey", [](OdaTap &t) { t.directory.index = 0x93; }}}) {
        ScriptedHost host;
        OdaTap t(Cam::Dda);
        AuthenticationOnly(t.tap);
        c.fault(t);
        if (t.directory.index != 0x92) t.tap.endAfter = 5;  // no INTERNAL AUTHENTICATE
        const TapResult r = t.Run(host);
        EXPECT_EQ(ToHex(r.ops), kEndApplicationWithRecord) << c.name;
        const OutcomePacket p(r.out);
        // ICC data missing as well when the key never came.
        EXPECT_EQ(RecordValue(p, 0x95), t.directory.index != 0x92 ? "2800000000" : "0800000000")
            << c.name;
    }
}

// ---- CDA and SDA failures: the CID becomes an AAC ----------------------------------------

struct Failure : NamedCase {
    Cam cam;
    std::function<void(OdaTap &)> fault;
    bool revocationAsked;
};

class OdaFailure : public ::testing::TestWithParam<Failure> {};

TEST_P(OdaFailure, DeclinesTheTransaction) {
    const Failure &f = GetParam();
    ScriptedHost host;
    OdaTap t(f.cam);
    f.fault(t);
    const TapResult r = t.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    EXPECT_EQ(Db(0x9F27), "00");
    const OutcomePacket p(r.out);
    ASSERT_TRUE(p.uird);
    EXPECT_EQ((*p.uird)[0], 0x07);  // declined
    EXPECT_EQ(RecordValue(p, 0x9F27), "00");
    // Found after the cryptogram: the TVR keeps what it had at GENERATE AC.
    EXPECT_EQ(RecordValue(p, 0x95), t.tap.tvr);
    EXPECT_EQ(host.MessagesFor(VELK_CMD_REVOCATION).size(), f.revocationAsked ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cda, OdaFailure,
    ::testing::Values(
        Failure{"WrongCaKey", Cam::Cda,
                [](OdaTap &t) { t.directory.key = keys::Ca1152().Public(); }, false},
        Failure{"AlteredStaticData", Cam::Cda, [](OdaTap &t) { t.oda.alterSignedRecord = true; },
                true},
        Failure{"ExpiredIssuerCertificate", Cam::Cda,
                [](OdaTap &t) { t.oda.issuerRequest.expiry = "1224"; }, false},
        Failure{"ExpiredIccCertificate", Cam::Cda,
                [](OdaTap &t) { t.oda.iccRequest.expiry = "1224"; }, true},
        Failure{"RevokedIssuerCertificate", Cam::Cda,
                [](OdaTap &t) {
                    t.directory.revoked = {t.directory.Entry(t.oda.issuerRequest.serial)};
                },
                true},
        Failure{"PanMismatch", Cam::Cda, [](OdaTap &t) { t.oda.iccPan = "5413330089601041"; },
                true},
        Failure{"IssuerIdentifierMismatch", Cam::Cda,
                [](OdaTap &t) { t.oda.issuerIdentifier = "541334"; }, false},
        Failure{"MissingIssuerRemainder", Cam::Cda,
                [](OdaTap &t) { t.oda.certificateRecord[0x92] = std::nullopt; }, false},
        Failure{"MissingIccRemainder", Cam::Cda,
                [](OdaTap &t) { t.oda.certificateRecord[0x9F48] = std::nullopt; }, true},
        Failure{"TransactionDataHashMismatch", Cam::Cda,
                [](OdaTap &t) { t.oda.alterTransactionData = true; }, true}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Sda, OdaFailure,
    ::testing::Values(Failure{"WrongCaKey", Cam::Sda,
                              [](OdaTap &t) { t.directory.key = keys::Ca1152().Public(); }, false},
                      Failure{"AlteredStaticData", Cam::Sda,
                              [](OdaTap &t) { t.oda.alterSignedRecord = true; }, true},
                      Failure{"ExpiredIssuerCertificate", Cam::Sda,
                              [](OdaTap &t) { t.oda.issuerRequest.expiry = "1224"; }, false},
                      Failure{"RevokedIssuerCertificate", Cam::Sda,
                              [](OdaTap &t) {
                                  t.directory.revoked = {
                                      t.directory.Entry(t.oda.issuerRequest.serial)};
                              },
                              true},
                      Failure{"MissingIssuerRemainder", Cam::Sda,
                              [](OdaTap &t) { t.oda.certificateRecord[0x92] = std::nullopt; },
                              false}),
    CaseName());

// The card signs a CID other than the one it returned: the signed one replaces
// 9F27 and is then turned into an AAC.
TEST(OdaTransaction, ASignedCidOtherThanTheReturnedOneDeclines) {
    ScriptedHost host;
    OdaTap t(Cam::Cda);
    t.oda.signedCid = 0x80;
    const TapResult r = t.Run(host);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    EXPECT_EQ(Db(0x9F27), "00");
    EXPECT_EQ(Db(0x9F26), "absent");
}

// Without a key for the card's CA index CDA cannot be selected: the TVR says
// so at GENERATE AC, the reader's denial code refuses it, and no signature is
// asked for.
TEST(OdaTransaction, NoCaKeyForTheIndexFailsCdaAtSelection) {
    ScriptedHost host;
    OdaTap t(Cam::Cda);
    t.directory.index = 0x93;
    t.tap.reader.tacDenial = "0400000000";
    t.tap.tvr = "0400000000";
    t.tap.card.cid = "00";
    const TapResult r = t.RunUnselected(host, 0x00);
    EXPECT_EQ(ToHex(r.ops), kDeclined);
    EXPECT_EQ(Db(0x9F9306), "00");
    EXPECT_TRUE(host.MessagesFor(VELK_CMD_REVOCATION).empty());
    EXPECT_EQ(RecordValue(OutcomePacket(r.out), 0x95), "0400000000");
}

// A certificate record the card cannot deliver whole: ICC data missing and
// CDA failed, at selection.
TEST(OdaTransaction, CdaWithoutTheIccCertificateIsNotSelected) {
    ScriptedHost host;
    OdaTap t(Cam::Cda);
    t.oda.certificateRecord[0x9F46] = std::nullopt;
    t.tap.tvr = "2400000000";
    const TapResult r = t.RunUnselected(host, 0x40);
    EXPECT_EQ(ToHex(r.ops), kApproved);
    EXPECT_EQ(Db(0x9F9306), "00");
    EXPECT_EQ(RecordValue(OutcomePacket(r.out), 0x95), "2400000000");
}

}  // namespace
}  // namespace velk::test
