// The test PKI's objects, opened with the public operation and read by
// position as the kernel reads them, on every backend of the build; and the
// backends agree byte for byte.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "portable_pki_backend.hpp"
#include "velk/host/tlv.hpp"
#include "velk/pki/pki.hpp"
#include "velk/pki/test_keys.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using pki::RsaKey;
namespace keys = pki::test_keys;

Bytes Slice(const Bytes &b, size_t pos, size_t len) {
    return Bytes(b.begin() + static_cast<long>(pos), b.begin() + static_cast<long>(pos + len));
}

// Opens a signature with the public key and checks the frame all formats
// share: header 6A, trailer BC, and the hash over positions 1 .. size - 22
// followed by the data signed beside the block.
Bytes OpenFrame(const pki::Backend &backend, const RsaKey &key, const Bytes &signature,
                const Bytes &beside) {
    EXPECT_EQ(signature.size(), key.Size());
    const Bytes block = backend.RsaPublic(key.Public(), signature);
    const size_t size = block.size();
    EXPECT_EQ(block[0], 0x6A);
    EXPECT_EQ(block[size - 1], 0xBC);
    Bytes hashed = Slice(block, 1, size - 22);
    hashed.insert(hashed.end(), beside.begin(), beside.end());
    EXPECT_EQ(Slice(block, size - 21, 20), backend.Sha1(hashed));
    return block;
}

bool AllPad(const Bytes &b) {
    return std::all_of(b.begin(), b.end(), [](uint8_t v) { return v == 0xBB; });
}

class PkiTest : public ::testing::TestWithParam<const pki::Backend *> {
protected:
    const pki::Backend &backend() const { return *GetParam(); }
};

struct KeyPair {
    const char *name;
    const RsaKey &(*signer)();
    const RsaKey &(*subject)();
    size_t remainder;
};

// Certificates whose key fits (exactly, in two cases) and ones that need
// remainders of 1 to 45 bytes.
const KeyPair kIssuerCases[] = {
    {"ca1152_issuer744", keys::Ca1152, keys::Issuer744, 0},
    {"ca1152_issuer864_exact", keys::Ca1152, keys::Issuer864, 0},
    {"ca1152_issuer1024", keys::Ca1152, keys::Issuer1024, 20},
    {"ca1024_issuer744_one_byte", keys::Ca1024, keys::Issuer744, 1},
    {"ca1024_issuer864", keys::Ca1024, keys::Issuer864, 16},
    {"ca1024_issuer1024", keys::Ca1024, keys::Issuer1024, 36},
};

const KeyPair kIccCases[] = {
    {"issuer1024_icc688_exact", keys::Issuer1024, keys::Icc688, 0},
    {"issuer1024_icc768", keys::Issuer1024, keys::Icc768, 10},
    {"issuer1024_icc1024", keys::Issuer1024, keys::Icc1024, 42},
    {"issuer864_icc688", keys::Issuer864, keys::Icc688, 20},
    {"issuer744_icc768", keys::Issuer744, keys::Icc768, 45},
};

// Modulus as the kernel assembles it: the key field's first digits, then the
// remainder when the key is longer than the field.
Bytes AssembledModulus(const Bytes &block, size_t key_pos, size_t key_len, const Bytes &remainder) {
    const size_t field = block.size() - 22 - (key_pos - 1);
    if (key_len <= field) {
        EXPECT_TRUE(remainder.empty());
        EXPECT_TRUE(AllPad(Slice(block, key_pos + key_len, field - key_len)));
        return Slice(block, key_pos, key_len);
    }
    Bytes n = Slice(block, key_pos, field);
    n.insert(n.end(), remainder.begin(), remainder.end());
    return n;
}

// Checks a recovered certificate from position 1: format, then identity,
// expiry and serial (hex, in that order), hash and key algorithm 01, key and
// exponent lengths, and the key with its remainder. Returns the key's
// position.
size_t ExpectCertificateFields(const Bytes &block, uint8_t format,
                               std::initializer_list<const char *> fields, const RsaKey &subject,
                               const Bytes &remainder) {
    EXPECT_EQ(block[1], format);
    size_t pos = 2;
    for (const char *hex : fields) {
        const Bytes field = FromHex(hex);
        EXPECT_EQ(Slice(block, pos, field.size()), field) << "at " << pos;
        pos += field.size();
    }
    EXPECT_EQ(block[pos], 0x01);
    EXPECT_EQ(block[pos + 1], 0x01);
    EXPECT_EQ(block[pos + 2], subject.Size());
    EXPECT_EQ(block[pos + 3], subject.e.size());
    pos += 4;
    EXPECT_EQ(AssembledModulus(block, pos, subject.Size(), remainder), subject.n);
    return pos;
}

TEST_P(PkiTest, IssuerCertificateFieldsSitWhereTheKernelReadsThem) {
    for (const KeyPair &c : kIssuerCases) {
        SCOPED_TRACE(c.name);
        const RsaKey &ca = c.signer(), &issuer = c.subject();
        const pki::IssuerCertificate cert = pki::MakeIssuerCertificate(
            backend(), ca, issuer,
            {.issuer_identifier = "54133", .expiry = "0728", .serial = {0x12, 0x34, 0x56}});
        ASSERT_EQ(cert.remainder.size(), c.remainder);
        EXPECT_EQ(cert.exponent, issuer.e);

        const Bytes beside = host::Cat({cert.remainder, cert.exponent});
        const Bytes block = OpenFrame(backend(), ca, cert.certificate, beside);
        EXPECT_EQ(ExpectCertificateFields(block, 0x02, {"54133FFF", "0728", "123456"}, issuer,
                                          cert.remainder),
                  15u);

        const pki::RecoveredKey back = pki::RecoverIssuerCertificate(backend(), ca.Public(), cert);
        EXPECT_TRUE(back.recovered.hash_matches);
        EXPECT_EQ(back.key.n, issuer.n);
        EXPECT_EQ(back.key.e, issuer.e);
        EXPECT_EQ(back.serial, FromHex("123456"));
    }
}

// Two ODA records (SFI 1: the 70 template's value; SFI 11: the whole record)
// and the AIP.
Bytes SampleStaticData() {
    const pki::OdaRecord records[] = {
        {1, FromHex("70 0A 5A 08 54 13 33 00 89 01 00 12")},
        {11, FromHex("70 05 9F 4A 01 82 00")},
    };
    return pki::StaticDataToAuthenticate(records, FromHex("1980"));
}

TEST_P(PkiTest, IccCertificateFieldsSitWhereTheKernelReadsThem) {
    const Bytes static_data = SampleStaticData();
    for (const KeyPair &c : kIccCases) {
        SCOPED_TRACE(c.name);
        const RsaKey &issuer = c.signer(), &icc = c.subject();
        const pki::IccCertificate cert = pki::MakeIccCertificate(backend(), issuer, icc,
                                                                 {.pan = "5413330089010012345",
                                                                  .expiry = "1225",
                                                                  .serial = {0xAB, 0xCD, 0xEF},
                                                                  .static_data = static_data});
        ASSERT_EQ(cert.remainder.size(), c.remainder);

        const Bytes beside = host::Cat({cert.remainder, cert.exponent, static_data});
        const Bytes block = OpenFrame(backend(), issuer, cert.certificate, beside);
        EXPECT_EQ(ExpectCertificateFields(block, 0x04, {"5413330089010012345F", "1225", "ABCDEF"},
                                          icc, cert.remainder),
                  21u);

        const pki::RecoveredKey back =
            pki::RecoverIccCertificate(backend(), issuer.Public(), cert, static_data);
        EXPECT_TRUE(back.recovered.hash_matches);
        EXPECT_EQ(back.identity, FromHex("5413330089010012345F"));
        EXPECT_EQ(back.key.n, icc.n);
        // Other static data, or none, no longer matches.
        EXPECT_FALSE(pki::RecoverIccCertificate(backend(), issuer.Public(), cert, {})
                         .recovered.hash_matches);
    }
}

TEST_P(PkiTest, SignedStaticDataCarriesTheCodeAndPadding) {
    const Bytes static_data = SampleStaticData();
    for (const auto issuer : {keys::Issuer744, keys::Issuer1024}) {
        const RsaKey &key = issuer();
        SCOPED_TRACE(key.Size());
        const Bytes ssad = pki::SignStaticData(backend(), key, {{0x5A, 0xC3}, static_data});
        const Bytes block = OpenFrame(backend(), key, ssad, static_data);
        EXPECT_EQ(block[1], 0x03);
        EXPECT_EQ(block[2], 0x01);
        EXPECT_EQ(Slice(block, 3, 2), FromHex("5AC3"));
        EXPECT_TRUE(AllPad(Slice(block, 5, key.Size() - 26)));

        const pki::RecoveredStaticData back =
            pki::RecoverStaticData(backend(), key.Public(), ssad, static_data);
        EXPECT_TRUE(back.recovered.hash_matches);
        EXPECT_EQ(back.data_authentication_code, FromHex("5AC3"));
    }
}

TEST_P(PkiTest, DdaSignatureCoversTheDdolData) {
    const Bytes number = FromHex("0102030405060708"), ddol_data = FromHex("CAFEBABE");
    for (const auto icc : {keys::Icc688, keys::Icc1024}) {
        const RsaKey &key = icc();
        SCOPED_TRACE(key.Size());
        const Bytes sdad =
            pki::SignDynamicData(backend(), key, pki::DdaDynamicData(number), ddol_data);
        const Bytes block = OpenFrame(backend(), key, sdad, ddol_data);
        EXPECT_EQ(block[1], 0x05);
        EXPECT_EQ(block[2], 0x01);
        EXPECT_EQ(block[3], 9);
        EXPECT_EQ(block[4], 8);
        EXPECT_EQ(Slice(block, 5, 8), number);
        EXPECT_TRUE(AllPad(Slice(block, 13, key.Size() - 34)));

        const pki::RecoveredDynamicData back =
            pki::RecoverDynamicData(backend(), key.Public(), sdad, ddol_data);
        EXPECT_TRUE(back.recovered.hash_matches);
        EXPECT_EQ(back.icc_dynamic_number, number);
        EXPECT_TRUE(back.transaction_data_hash.empty());
        EXPECT_FALSE(pki::RecoverDynamicData(backend(), key.Public(), sdad, FromHex("CAFEBABF"))
                         .recovered.hash_matches);
    }
}

TEST_P(PkiTest, CdaSignatureCarriesCryptogramAndTransactionDataHash) {
    const Bytes response = FromHex(
        "77 1F 9F27 01 80 9F36 02 0011 9F4B 03 AABBCC 9F26 08 1122334455667788"
        " 9F10 02 0A0B");
    pki::CdaRequest request;
    request.icc_dynamic_number = FromHex("A1A2A3A4");
    request.cid = 0x80;
    request.application_cryptogram = FromHex("1122334455667788");
    request.unpredictable_number = FromHex("01020304");
    request.pdol_data = FromHex("0840");
    request.cdol1_data = FromHex("000000001000 0840");
    request.gac_data = pki::GacDataWithoutSdad(response);
    ASSERT_EQ(request.gac_data, FromHex("9F27 01 80 9F36 02 0011 9F26 08 1122334455667788"
                                        " 9F10 02 0A0B"));

    const RsaKey &key = keys::Icc688();
    const Bytes sdad = pki::SignCdaData(backend(), key, request);
    const Bytes block = OpenFrame(backend(), key, sdad, request.unpredictable_number);
    EXPECT_EQ(block[1], 0x05);
    EXPECT_EQ(block[3], 1 + 4 + 1 + 8 + 20);
    EXPECT_EQ(block[4], 4);
    EXPECT_EQ(Slice(block, 5, 4), request.icc_dynamic_number);
    EXPECT_EQ(block[9], 0x80);
    EXPECT_EQ(Slice(block, 10, 8), request.application_cryptogram);
    const Bytes tdhc =
        backend().Sha1(host::Cat({request.pdol_data, request.cdol1_data, request.gac_data}));
    EXPECT_EQ(Slice(block, 18, 20), tdhc);
    EXPECT_EQ(pki::TransactionDataHash(backend(), request.pdol_data, request.cdol1_data,
                                       request.gac_data),
              tdhc);

    const pki::RecoveredDynamicData back =
        pki::RecoverDynamicData(backend(), key.Public(), sdad, request.unpredictable_number);
    EXPECT_EQ(back.cid, 0x80);
    EXPECT_EQ(back.application_cryptogram, request.application_cryptogram);
    EXPECT_EQ(back.transaction_data_hash, tdhc);
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

TEST(Pki, TestKeysHaveTheirNamedLengthsAndWork) {
    const struct {
        const RsaKey &(*key)();
        size_t bytes;
        const char *e;
    } cases[] = {{keys::Ca1152, 144, "03"},     {keys::Ca1024, 128, "010001"},
                 {keys::Issuer1024, 128, "03"}, {keys::Issuer864, 108, "010001"},
                 {keys::Issuer744, 93, "03"},   {keys::Icc1024, 128, "010001"},
                 {keys::Icc768, 96, "03"},      {keys::Icc688, 86, "010001"}};
    const Bytes message = FromHex("0123456789");
    for (const auto &c : cases) {
        const RsaKey &key = c.key();
        ASSERT_EQ(key.Size(), c.bytes);
        EXPECT_GE(key.n[0], 0x80);
        EXPECT_EQ(key.e, FromHex(c.e));
        const Bytes signature = TestPkiBackend().RsaPrivate(key, message);
        const Bytes back = TestPkiBackend().RsaPublic(key, signature);
        EXPECT_EQ(Slice(back, back.size() - 5, 5), message);
    }
}

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
