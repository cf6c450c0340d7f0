// SPDX-License-Identifier: Apache-2.0
// The test PKI's own rules on every backend of the build: what it refuses to
// lay out, how records contribute to the static data, and that the backends
// agree byte for byte. That the kernel accepts what it signs, field by field,
// is checked by the ODA tests.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "portable_pki_backend.hpp"
#include "velk/host/tlv.hpp"
#include "velk/pki/pki.hpp"
#include "velk/pki/fixed_keys.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using pki::RsaKey;
namespace keys = pki::fixed_keys;

class PkiTest : public ::testing::TestWithParam<const pki::Backend *> {
protected:
    const pki::Backend &backend() const { return *GetParam(); }
};

// Two ODA records (SFI 1: the 70 template's value; SFI 11: the whole record)
// and the AIP.
Bytes SampleStaticData() {
    const pki::OdaRecord records[] = {
        {1, FromHex("70 0A 5A 08 54 13 33 00 89 01 00 12")},
        {11, FromHex("70 05 9F 4A 01 82 00")},
    };
    return pki::StaticDataToAuthenticate(records, FromHex("1980"));
}

// The kernel's acceptance of these objects is checked in the ODA tests; here
// the PKI's own recovery refuses other signed data.
TEST_P(PkiTest, RecoveryNoticesOtherSignedData) {
    const Bytes static_data = SampleStaticData();
    const pki::IccCertificate cert =
        pki::MakeIccCertificate(backend(), keys::Issuer744(), keys::Icc768(),
                                {.pan = "5413330089010012345", .static_data = static_data});
    const pki::RecoveredKey back =
        pki::RecoverIccCertificate(backend(), keys::Issuer744().Public(), cert, static_data);
    EXPECT_TRUE(back.recovered.hash_matches);
    EXPECT_EQ(back.identity, FromHex("5413330089010012345F"));
    EXPECT_EQ(back.key.n, keys::Icc768().n);
    EXPECT_FALSE(pki::RecoverIccCertificate(backend(), keys::Issuer744().Public(), cert, {})
                     .recovered.hash_matches);
    const Bytes number = FromHex("0102030405060708"), ddol = FromHex("CAFEBABE");
    const Bytes sdad =
        pki::SignDynamicData(backend(), keys::Icc688(), pki::DdaDynamicData(number), ddol);
    const pki::RecoveredDynamicData dynamic =
        pki::RecoverDynamicData(backend(), keys::Icc688().Public(), sdad, ddol);
    EXPECT_TRUE(dynamic.recovered.hash_matches);
    EXPECT_EQ(dynamic.icc_dynamic_number, number);
    EXPECT_FALSE(
        pki::RecoverDynamicData(backend(), keys::Icc688().Public(), sdad, FromHex("CAFEBABF"))
            .recovered.hash_matches);
}

TEST_P(PkiTest, RefusesWhatCannotBeLaidOut) {
    const RsaKey &icc = keys::Icc688();
    // 86-byte key: 61 bytes of dynamic data fit, 62 do not.
    EXPECT_NO_THROW(pki::SignDynamicData(backend(), icc, Bytes(61, 1), {}));
    EXPECT_THROW(pki::SignDynamicData(backend(), icc, Bytes(62, 1), {}), std::invalid_argument);
    pki::IccCertificateRequest long_pan;
    long_pan.pan = "54133300890100123456";
    EXPECT_THROW(pki::MakeIccCertificate(backend(), keys::Issuer1024(), icc, long_pan),
                 std::invalid_argument);
    pki::IssuerCertificateRequest bad_expiry;
    bad_expiry.expiry = "12/49";
    EXPECT_THROW(
        pki::MakeIssuerCertificate(backend(), keys::Ca1152(), keys::Issuer744(), bad_expiry),
        std::invalid_argument);
    EXPECT_THROW(pki::CdaDynamicData({}, 0x80, Bytes(7, 0), Bytes(20, 0)), std::invalid_argument);
    // A signature that is not as long as the key, and a remainder that does
    // not complete the key.
    EXPECT_THROW(pki::RecoverStaticData(backend(), keys::Issuer744(), Bytes(92, 1), {}),
                 std::invalid_argument);
    pki::IssuerCertificate cert =
        pki::MakeIssuerCertificate(backend(), keys::Ca1024(), keys::Issuer864());
    cert.remainder.pop_back();
    EXPECT_THROW(pki::RecoverIssuerCertificate(backend(), keys::Ca1024(), cert),
                 std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(Backends, PkiTest, ::testing::ValuesIn(AllPkiBackends()),
                         [](const auto &info) { return std::string(info.param->Name()); });

TEST(Pki, OdaRecordsContributeAsTheKernelCollectsThem) {
    const Bytes record = FromHex("70 03 5F 25 00");
    EXPECT_EQ(pki::OdaRecordData(1, record), FromHex("5F2500"));
    EXPECT_EQ(pki::OdaRecordData(10, record), FromHex("5F2500"));
    EXPECT_EQ(pki::OdaRecordData(11, record), record);
    EXPECT_EQ(pki::OdaRecordData(30, record), record);
    EXPECT_TRUE(pki::OdaRecordData(11, FromHex("6F 00")).empty());
    EXPECT_THROW(pki::OdaRecordData(0, record), std::invalid_argument);
    EXPECT_THROW(pki::OdaRecordData(31, record), std::invalid_argument);
    EXPECT_EQ(SampleStaticData(),
              FromHex("5A 08 54 13 33 00 89 01 00 12  70 05 9F 4A 01 82 00  1980"));
}

TEST(Pki, GacDataDropsEvery9F4BAndKeepsTheRestInOrder) {
    const Bytes sdad(130, 0x5D);
    const Bytes list =
        host::Cat({FromHex("9F27 01 40"), host::Tlv(0x9F4B, sdad), FromHex("9F36 02 0001")});
    const Bytes expected = FromHex("9F27 01 40 9F36 02 0001");
    EXPECT_EQ(pki::GacDataWithoutSdad(list), expected);
    EXPECT_EQ(pki::GacDataWithoutSdad(host::Tlv(0x77, list)), expected);
    EXPECT_EQ(pki::GacDataWithoutSdad(expected), expected);
}

TEST(Pki, DigitsAreLeftAlignedAndFPadded) {
    EXPECT_EQ(pki::PadDigits("541333", 4), FromHex("541333FF"));
    EXPECT_EQ(pki::PadDigits("54133", 4), FromHex("54133FFF"));
    EXPECT_EQ(pki::PadDigits("", 2), FromHex("FFFF"));
    EXPECT_THROW(pki::PadDigits("123456789", 4), std::invalid_argument);
    EXPECT_THROW(pki::PadDigits("12a4", 4), std::invalid_argument);
}

#ifdef VELK_PKI_OPENSSL
TEST(Pki, BackendsAgreeByteForByte) {
    const auto issue = [](const pki::Backend &b) {
        return pki::MakeIssuerCertificate(b, keys::Ca1152(), keys::Issuer1024()).certificate;
    };
    EXPECT_EQ(issue(pki::OpenSslBackend()), issue(PortablePkiBackend()));
}

TEST(Pki, OpenSslMakesFreshKeysThePortableBackendCannot) {
    const RsaKey key = pki::OpenSslBackend().GenerateKey(872, 3);
    ASSERT_EQ(key.Size(), 109u);
    // One byte longer than a 1152-bit CA's certificate holds.
    const auto cert = pki::MakeIssuerCertificate(pki::OpenSslBackend(), keys::Ca1152(), key);
    EXPECT_EQ(cert.remainder.size(), 1u);
    EXPECT_THROW(PortablePkiBackend().GenerateKey(768, 3), std::logic_error);
}
#endif

}  // namespace
}  // namespace velk::test
