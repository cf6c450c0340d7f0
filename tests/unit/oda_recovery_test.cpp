// Certificate and public key recovery with real certificates from the test
// PKI: every fixed key combination, each field check with its code, the CA
// key request's counter, the revocation request, expiry and PAN rules, and
// keys or certificates too large for their areas (run under ASan too).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "baseKernel.h"
#include "db_access.hpp"
#include "emv_kernel_global.h"
#include "named_case.hpp"
#include "oda_card.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using host::Tlv;
using host::ToHex;
using pki::RsaKey;
namespace keys = pki::test_keys;

using KeyFn = const RsaKey &(*)();

// Counts the kernel's RSA calls while alive.
class RsaCounter {
public:
    RsaCounter() : saved_(pemv_kn_glb->opt_alg.opt_rsa_encrypt) {
        calls_ = 0;
        real_ = saved_;
        pemv_kn_glb->opt_alg.opt_rsa_encrypt = &Count;
    }
    ~RsaCounter() { pemv_kn_glb->opt_alg.opt_rsa_encrypt = saved_; }
    int calls() const { return calls_; }

private:
    using Fn = int (*)(const uint8_t *, uint32_t, const uint8_t *, uint32_t, const uint8_t *,
                       uint32_t, uint8_t *);
    static int Count(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen,
                     const uint8_t *in, uint32_t inLen, uint8_t *out) {
        ++calls_;
        return real_(n, nLen, e, eLen, in, inLen, out);
    }
    Fn saved_;
    static inline Fn real_ = nullptr;
    static inline int calls_ = 0;
};

class Recovery : public ::testing::Test {
protected:
    void SetUp() override {
        directory.key = keys::Ca1024().Public();
        directory.Install(host);
        Put(0x84, "A0000000031010");
        Put(0x8F, "92");
        Put(0x5A, "5413330089601040");
        Put(0x9A, "250101");
    }

    void StoreIssuer(const RsaKey &ca, const pki::KeyCertificate &cert) {
        Put(0xDF8201, ca.n);
        Put(0xDF8202, ca.e);
        Put(0x9F32, cert.exponent);
        Put(0x90, cert.certificate);
        VelkDataBase_Del_TAG(0x92);
        if (!cert.remainder.empty()) Put(0x92, cert.remainder);
    }

    // The ICC certificate's inputs; the records' data is `oda`, and with 9F4A
    // = 82 the AIP 5900 follows it in what the card signed.
    void StoreIcc(const RsaKey &issuer, const pki::KeyCertificate &cert) {
        Put(0x9F8232, issuer.n);
        Put(0x9F32, issuer.e);
        Put(0x9F46, cert.certificate);
        Put(0x9F47, cert.exponent);
        VelkDataBase_Del_TAG(0x9F48);
        if (!cert.remainder.empty()) Put(0x9F48, cert.remainder);
        Put(0x82, "5900");
        Put(0x9F4A, "82");
        SetOdaData(oda);
    }
    void SetOdaData(const Bytes &data) {
        std::memcpy(host.g().ODA_AuthData, data.data(), data.size());
        host.g().ODA_AuthData_len = static_cast<uint32_t>(data.size());
    }
    Bytes Signed() const { return host::Cat({oda, FromHex("5900")}); }

    ScriptedHost host;
    CaDirectory directory;
    const pki::Backend &backend = TestPkiBackend();
    const Bytes oda = FromHex("5A085413330089601040 5F24033012315F25032001019F0702FF00");
};

// ---- Every fixed key combination ----------------------------------------------------

struct KeyCase : NamedCase {
    KeyFn signer;
    KeyFn subject;
    size_t remainder;
};

class IssuerKeys : public Recovery, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(IssuerKeys, RecoversTheIssuerModulusAndAsksTheRevocationList) {
    const RsaKey &ca = GetParam().signer();
    const RsaKey &issuer = GetParam().subject();
    const pki::KeyCertificate cert = pki::MakeIssuerCertificate(backend, ca, issuer);
    ASSERT_EQ(cert.remainder.size(), GetParam().remainder);
    StoreIssuer(ca, cert);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0u);
    EXPECT_EQ(Db(0x9F8232), ToHex(issuer.n));
    const std::vector<Message> e9 = host.MessagesFor(VELK_CMD_REVOCATION);
    ASSERT_EQ(e9.size(), 1u);
    EXPECT_EQ(ToHex(e9[0].payload),
              "9F0605A000000003"
              "8F0192"
              "DF810803000001");
}

INSTANTIATE_TEST_SUITE_P(
    Combinations, IssuerKeys,
    ::testing::Values(KeyCase{{"Ca1152e3_Issuer744"}, keys::Ca1152, keys::Issuer744, 0},
                      KeyCase{{"Ca1152e3_Issuer864_ExactFit"}, keys::Ca1152, keys::Issuer864, 0},
                      KeyCase{{"Ca1152e3_Issuer1024"}, keys::Ca1152, keys::Issuer1024, 20},
                      KeyCase{{"Ca1024e65537_Issuer744_OneByte"}, keys::Ca1024, keys::Issuer744, 1},
                      KeyCase{{"Ca1024e65537_Issuer864"}, keys::Ca1024, keys::Issuer864, 16},
                      KeyCase{{"Ca1024e65537_Issuer1024"}, keys::Ca1024, keys::Issuer1024, 36}),
    CaseName());

class IccKeys : public Recovery, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(IccKeys, RecoversTheIccModulusOverTheStaticData) {
    const RsaKey &issuer = GetParam().signer();
    const RsaKey &icc = GetParam().subject();
    pki::IccCertificateRequest request;
    request.pan = "5413330089601040";
    request.static_data = Signed();
    const pki::KeyCertificate cert = pki::MakeIccCertificate(backend, issuer, icc, request);
    ASSERT_EQ(cert.remainder.size(), GetParam().remainder);
    StoreIcc(issuer, cert);
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0u);
    EXPECT_EQ(Db(0x9F8233), ToHex(icc.n));
}

INSTANTIATE_TEST_SUITE_P(
    Combinations, IccKeys,
    ::testing::Values(KeyCase{{"Issuer1024e3_Icc688_ExactFit"}, keys::Issuer1024, keys::Icc688, 0},
                      KeyCase{{"Issuer1024e3_Icc768"}, keys::Issuer1024, keys::Icc768, 10},
                      KeyCase{{"Issuer1024e3_Icc1024"}, keys::Issuer1024, keys::Icc1024, 42},
                      KeyCase{{"Issuer864e65537_Icc688"}, keys::Issuer864, keys::Icc688, 20},
                      KeyCase{{"Issuer744e3_Icc768e3"}, keys::Issuer744, keys::Icc768, 45}),
    CaseName());

TEST_F(Recovery, HandMadeCertificatesEqualThePkisOwn) {
    const RsaKey &ca = keys::Ca1024();
    const RsaKey &issuer = keys::Issuer864();
    const pki::KeyCertificate ours = SignKeyCertificate(backend, ca, issuer, {});
    const pki::KeyCertificate theirs = pki::MakeIssuerCertificate(backend, ca, issuer);
    EXPECT_EQ(ToHex(ours.certificate), ToHex(theirs.certificate));
    EXPECT_EQ(ToHex(ours.remainder), ToHex(theirs.remainder));
}

// ---- Issuer certificate: each check with its code, in order -------------------------

struct Fault : NamedCase {
    std::function<void(CertificateFields &, BlockFaults &)> sign;
    std::function<void(pki::KeyCertificate &)> store;
    uint32_t code;
};
void None(CertificateFields &, BlockFaults &) {}
void Keep(pki::KeyCertificate &) {}

// The issuer certificate under CA 1024 (16-byte remainder) or the ICC
// certificate under issuer 864 (20-byte remainder), signed with the case's
// faults, stored, and recovered.
class CertificateChecks : public Recovery, public ::testing::WithParamInterface<Fault> {
protected:
    uint32_t Run(bool icc) {
        CertificateFields fields;
        if (icc) {
            fields.format = 0x04;
            fields.identity = pki::PadDigits("5413330089601040", 10);
        }
        BlockFaults faults;
        GetParam().sign(fields, faults);
        const RsaKey &signer = icc ? keys::Issuer864() : keys::Ca1024();
        const RsaKey &subject = icc ? keys::Icc688() : keys::Issuer864();
        pki::KeyCertificate cert =
            SignKeyCertificate(backend, signer, subject, fields, icc ? Signed() : Bytes{}, faults);
        GetParam().store(cert);
        if (!icc) {
            StoreIssuer(signer, cert);
            return VelkCless_Retrieve_IssuerPubKey();
        }
        StoreIcc(signer, cert);
        return VelkCless_Retrieve_ICC_PubKey();
    }
};
class IssuerChecks : public CertificateChecks {};
class IccChecks : public CertificateChecks {};

TEST_P(IssuerChecks, Code) {
    EXPECT_EQ(Run(false), GetParam().code);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Issuer, IssuerChecks,
    ::testing::Values(
        Fault{{"Accepted"}, None, Keep, 0},
        Fault{{"Trailer"}, [](auto &, auto &b) { b.trailer = 0xBD; }, Keep, 0x31302},
        Fault{{"Header"}, [](auto &, auto &b) { b.header = 0x6B; }, Keep, 0x31301},
        Fault{{"TrailerBeforeHeader"}, [](auto &, auto &b) { b.header = 0x6B, b.trailer = 0xBD; }, Keep, 0x31302},
        Fault{{"Format"}, [](auto &f, auto &) { f.format = 0x04; }, Keep, 0x31303},
        Fault{{"RemainderMissing"}, None, [](auto &c) { c.remainder.clear(); }, 0x31314},
        Fault{{"RemainderShort"}, None, [](auto &c) { c.remainder.pop_back(); }, 0x31308},
        Fault{{"RemainderLong"}, None, [](auto &c) { c.remainder.push_back(0); }, 0x31308},
        Fault{{"HashMismatch"}, [](auto &, auto &b) { b.wrongHash = true; }, Keep, 0x31307},
        Fault{{"PanMismatch"}, [](auto &f, auto &) { f.identity = FromHex("541334FF"); }, Keep, 0x31305},
        Fault{{"FourDigitIdentifier"}, [](auto &f, auto &) { f.identity = FromHex("5413FFFF"); }, Keep, 0},
        Fault{{"FiveDigitIdentifier"}, [](auto &f, auto &) { f.identity = FromHex("54133FFF"); }, Keep, 0},
        Fault{{"FifthDigitDiffers"}, [](auto &f, auto &) { f.identity = FromHex("54134FFF"); }, Keep, 0x31305},
        Fault{{"EightDigitIdentifier"}, [](auto &f, auto &) { f.identity = FromHex("54133300"); }, Keep, 0},
        Fault{{"Expired"}, [](auto &f, auto &) { f.expiry = "1224"; }, Keep, 0x31304},
        Fault{{"ExpiryBeforeAlgorithms"}, [](auto &f, auto &) { f.expiry = "1224", f.hashAlgorithm = 2; }, Keep, 0x31304},
        Fault{{"HashAlgorithm"}, [](auto &f, auto &) { f.hashAlgorithm = 0x02; }, Keep, 0x31309},
        Fault{{"KeyAlgorithm"}, [](auto &f, auto &) { f.keyAlgorithm = 0x02; }, Keep, 0x31311},
        Fault{{"CertificateShorterThanTheCaKey"}, None, [](auto &c) { c.certificate.pop_back(); }, 0x31219}),
    CaseName());
// clang-format on

TEST_F(Recovery, TheIssuerModulusIsStoredBeforeTheHashIsChecked) {
    BlockFaults faults;
    faults.wrongHash = true;
    const pki::KeyCertificate cert =
        SignKeyCertificate(backend, keys::Ca1024(), keys::Issuer864(), {}, {}, faults);
    StoreIssuer(keys::Ca1024(), cert);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31307u);
    EXPECT_EQ(Db(0x9F8232), ToHex(keys::Issuer864().n));
}

TEST_F(Recovery, AMissingRemainderMarksIccDataMissingOnlyForDda) {
    pki::KeyCertificate cert =
        pki::MakeIssuerCertificate(backend, keys::Ca1024(), keys::Issuer864());
    cert.remainder.clear();
    StoreIssuer(keys::Ca1024(), cert);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31314u);
    EXPECT_EQ(Tvr(), "0000000000");
    VelkCless_Set_Offline_CAM_Selected_Indicator(3);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31314u);
    EXPECT_EQ(Tvr(), "2000000000");
}

TEST_F(Recovery, ThePanComesFrom5AElseTrack2AndIsNeededOutsideDda) {
    StoreIssuer(keys::Ca1024(),
                pki::MakeIssuerCertificate(backend, keys::Ca1024(), keys::Issuer864()));
    VelkDataBase_Del_TAG(0x5A);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31315u);
    VelkCless_Set_Offline_CAM_Selected_Indicator(3);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0u);
    VelkCless_Set_Offline_CAM_Selected_Indicator(1);
    Put(0x57, "5413330089601040D30122010000000000000F");
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0u);
    Put(0x57, "5414330089601040D30122010000000000000F");
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31305u);
    // A PAN shorter than the certificate's digits is not read past its end.
    Put(0x5A, "5413");
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31305u);
}

// ---- Revocation ---------------------------------------------------------------------------

TEST_F(Recovery, TheRevocationAnswerIsItsFirstByte) {
    const uint8_t rid[5] = {0xA0, 0x00, 0x00, 0x00, 0x03};
    const uint8_t index = 0x92;
    const uint8_t serial[3] = {0x12, 0x34, 0x56};
    using Case = std::pair<std::vector<Bytes>, uint32_t>;
    for (const auto &[reply, expected] : std::vector<Case>{{{FromHex("DF8109 01 00")}, 0},
                                                           {{FromHex("DF8109 01 05")}, 5},
                                                           {{FromHex("DF8109 02 0700")}, 7},
                                                           {{FromHex("DF8109 00")}, 0},
                                                           {{}, 0}}) {
        host.On(VELK_CMD_REVOCATION,
                [reply = reply](const Message &) { return Answer::Reply(reply); });
        EXPECT_EQ(VelkCless_IPK_Cert_Revocation(rid, &index, serial), expected)
            << ToHex(host::Cat({}));
    }
    EXPECT_EQ(ToHex(host.MessagesFor(VELK_CMD_REVOCATION).back().raw),
              "7F0116DF0001E9"
              "9F0605A000000003"
              "8F0192"
              "DF8108"
              "03123456");
    // A host that cannot answer has not cleared the certificate.
    host.On(VELK_CMD_REVOCATION, [](const Message &) { return Answer::Fail(0x7001); });
    EXPECT_EQ(VelkCless_IPK_Cert_Revocation(rid, &index, serial), 0x7001u);
}

TEST_F(Recovery, TheRevocationRequestNeedsTheIndexAndZeroFillsAShortRid) {
    StoreIssuer(keys::Ca1024(),
                pki::MakeIssuerCertificate(backend, keys::Ca1024(), keys::Issuer864()));
    Put(0x84, "A00000");
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0u);
    EXPECT_EQ(ToHex(host.MessagesFor(VELK_CMD_REVOCATION).at(0).payload),
              "9F0605A0000000008F0192DF810803000001");
    VelkDataBase_Del_TAG(0x8F);
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0u);
    EXPECT_EQ(host.MessagesFor(VELK_CMD_REVOCATION).size(), 1u);
}

// ---- ICC certificate -------------------------------------------------------------------

TEST_P(IccChecks, Code) {
    EXPECT_EQ(Run(true), GetParam().code);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Icc, IccChecks,
    ::testing::Values(
        Fault{{"Accepted"}, None, Keep, 0},
        Fault{{"Trailer"}, [](auto &, auto &b) { b.trailer = 0x00; }, Keep, 0x31404},
        Fault{{"Header"}, [](auto &, auto &b) { b.header = 0x00; }, Keep, 0x31403},
        Fault{{"Format"}, [](auto &f, auto &) { f.format = 0x02; }, Keep, 0x31405},
        Fault{{"RemainderMissing"}, None, [](auto &c) { c.remainder.clear(); }, 0x31414},
        Fault{{"RemainderLong"}, None, [](auto &c) { c.remainder.push_back(0); }, 0x31415},
        Fault{{"HashAlgorithmBeforeTheHash"}, [](auto &f, auto &b) { f.hashAlgorithm = 0x02, b.wrongHash = true; }, Keep, 0x31412},
        Fault{{"HashMismatch"}, [](auto &, auto &b) { b.wrongHash = true; }, Keep, 0x31417},
        Fault{{"PanMismatch"}, [](auto &f, auto &) { f.identity = pki::PadDigits("5413330089601041", 10); }, Keep, 0x31305},
        Fault{{"Expired"}, [](auto &f, auto &) { f.expiry = "1224"; }, Keep, 0x31406},
        Fault{{"KeyAlgorithm"}, [](auto &f, auto &) { f.keyAlgorithm = 0x02; }, Keep, 0x31413},
        Fault{{"CertificateShorterThanTheIssuerKey"}, None, [](auto &c) { c.certificate.pop_back(); }, 0x31402}),
    CaseName());
// clang-format on

// Each input taken away in turn from a complete set, in the order they are
// looked for.
TEST_F(Recovery, InputsAreLookedForInOrder) {
    pki::IccCertificateRequest request;
    request.static_data = Signed();
    const pki::KeyCertificate issuer =
        pki::MakeIssuerCertificate(backend, keys::Ca1024(), keys::Issuer864());
    const pki::KeyCertificate icc =
        pki::MakeIccCertificate(backend, keys::Issuer864(), keys::Icc688(), request);
    struct Case {
        uint32_t tag;
        uint32_t issuerCode;
        uint32_t iccCode;
    };
    for (const Case &c :
         {Case{0xDF8201, 0x31211, 0}, Case{0xDF8202, 0x31212, 0}, Case{0x90, 0x31215, 0},
          Case{0x9F47, 0, 0x31217}, Case{0x9F46, 0, 0x31218}, Case{0x9F8232, 0, 0x31213},
          Case{0x9F32, 0x31214, 0x31214}}) {
        StoreIssuer(keys::Ca1024(), issuer);
        StoreIcc(keys::Issuer864(), icc);
        VelkDataBase_Del_TAG(c.tag);
        // 0: not an input of that recovery.
        if (c.issuerCode != 0) {
            EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), c.issuerCode) << std::hex << c.tag;
        }
        if (c.iccCode != 0) {
            EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), c.iccCode) << std::hex << c.tag;
        }
    }
}

// The tag list names the AIP by its first byte only in the ICC certificate.
TEST_F(Recovery, TheIccCertificateLooksAtTheTagListsFirstByte) {
    pki::IccCertificateRequest request;
    request.pan = "5413330089601040";
    request.static_data = Signed();
    const pki::KeyCertificate cert =
        pki::MakeIccCertificate(backend, keys::Issuer864(), keys::Icc688(), request);
    StoreIcc(keys::Issuer864(), cert);
    Put(0x9F4A, "8200");
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0u);
    Put(0x9F4A, "9F02");
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0x31416u);
    Put(0x9F4A, Bytes{});
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0x31416u);
}

TEST_F(Recovery, IncompleteStaticDataNeverAuthenticates) {
    pki::IccCertificateRequest request;
    request.pan = "5413330089601040";
    request.static_data = Signed();
    StoreIcc(keys::Issuer864(),
             pki::MakeIccCertificate(backend, keys::Issuer864(), keys::Icc688(), request));
    host.g().ODA_Data_From_Record_NOK = 1;
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0x31417u);
}

// ---- The CA public key request -----------------------------------------------------------

TEST_F(Recovery, TheCaKeyMustBeDeliveredExactlyOnce) {
    const Bytes n = Tlv(0xDF8201, keys::Ca1024().n);
    const Bytes e = Tlv(0xDF8202, keys::Ca1024().e);
    for (const auto &[reply, expected] :
         std::vector<std::pair<std::vector<Bytes>, uint32_t>>{{{n, e}, 0},
                                                              {{e, FromHex("9F2201 92"), n}, 0},
                                                              {{n, n}, 0x31101},
                                                              {{e}, 0x31101},
                                                              {{n, e, e}, 0x31101},
                                                              {{}, 0x31101}}) {
        VelkDataBase_Init();
        host.On(VELK_CMD_CA_KEY, [reply = reply](const Message &) { return Answer::Reply(reply); });
        EXPECT_EQ(VelkCless_Get_CAPulicKey_Parameters(), expected) << reply.size();
    }
    // Without 84 and 8F the request carries the command alone.
    EXPECT_EQ(ToHex(host.MessagesFor(VELK_CMD_CA_KEY).back().raw), "7F0104DF0001D4");
    host.On(VELK_CMD_CA_KEY, [](const Message &) { return Answer::Fail(0x7002); });
    EXPECT_EQ(VelkCless_Get_CAPulicKey_Parameters(), 0x7002u);
    host.On(VELK_CMD_CA_KEY,
            [](const Message &) { return Answer::Raw(FromHex("7F01 83 00 10 00")); });
    EXPECT_EQ(VelkCless_Get_CAPulicKey_Parameters(), 0x30104u);
}

// ---- Expiry and PAN rules ------------------------------------------------------------------

TEST_F(Recovery, ExpiryUsesTheCenturyOfEachYear) {
    struct Case {
        const char *expiry;  // MMYY
        const char *date;    // 9A, YYMMDD; "" absent
        uint32_t code;
    };
    for (const Case &c :
         {Case{"1249", "491231", 0}, Case{"1249", "500101", 0}, Case{"1224", "250101", 0x31313},
          Case{"0125", "250131", 0}, Case{"0125", "250201", 0x31313},
          Case{"1250", "491231", 0x31313}, Case{"1299", "991231", 0}, Case{"0100", "991231", 0},
          Case{"0100", "", 0}, Case{"1249", "49", 0}}) {
        VelkDataBase_Del_TAG(0x9A);
        if (*c.date != '\0') Put(0x9A, c.date);
        const Bytes expiry = FromHex(c.expiry);
        EXPECT_EQ(VelkCless_Check_Cert_ExpDate(expiry.data(), 2), c.code)
            << c.expiry << " on " << c.date;
    }
}

TEST(DataCompare, DigitsEndAtTheFirstF) {
    struct Case {
        const char *field;
        const char *pan;
        uint32_t code;
    };
    for (const Case &c :
         {Case{"5413FFFF", "5413330089", 0}, Case{"54133FFF", "5413330089", 0},
          Case{"54134FFF", "5413330089", 0x31312}, Case{"5413F3FF", "5413000000", 0},
          Case{"54133300", "5413330089", 0}, Case{"54133301", "5413330089", 0x31312},
          // A field starting with F counts as all its digits.
          Case{"FFFFFFFF", "FFFFFFFF", 0}, Case{"F4133300", "54133300", 0x31312},
          Case{"5F000000", "5000", 0}, Case{"5F000000", "6000", 0x31312}}) {
        const Bytes field = FromHex(c.field);
        const Bytes pan = FromHex(c.pan);
        EXPECT_EQ(
            VelkCless_Data_Compare(field.data(), static_cast<uint32_t>(field.size()), pan.data()),
            c.code)
            << c.field << " / " << c.pan;
    }
}

// ---- Keys and certificates too large or too small for their areas ------------------------

TEST_F(Recovery, KeysOutsideTheirAreasAreRefusedBeforeAnyRsaCall) {
    struct Case {
        const char *name;
        uint32_t modulusTag, certificateTag;
        size_t length;
        std::function<uint32_t()> run;
        uint32_t code;
    };
    const std::vector<Case> cases = {
        {"CaKeyOver256", 0xDF8201, 0x90, 257, VelkCless_Retrieve_IssuerPubKey, 0x31220},
        {"CaKey2048", 0xDF8201, 0x90, 2048, VelkCless_Retrieve_IssuerPubKey, 0x31220},
        {"CaKeyUnder36", 0xDF8201, 0x90, 35, VelkCless_Retrieve_IssuerPubKey, 0x31220},
        {"IssuerKeyOver512", 0x9F8232, 0x9F46, 513, VelkCless_Retrieve_ICC_PubKey, 0x31221},
        {"IssuerKeyUnder42", 0x9F8232, 0x9F46, 41, VelkCless_Retrieve_ICC_PubKey, 0x31221},
        {"IccKeyOver300Dda", 0x9F8233, 0x9F4B, 301,
         VelkCless_ODA_DDA_Dynamic_Signature_Verification, 0x31222},
        {"IccKeyUnder25Cda", 0x9F8233, 0x9F4B, 24, VelkCless_ODA_CDA_Dynamic_Signature_Verification,
         0x31222},
        {"SignedStaticDataOver300", 0x9F8232, 0x93, 301, VelkCless_Verify_Signed_Data_SDA, 0x31221},
    };
    for (const Case &c : cases) {
        VelkDataBase_Init();
        Put(0xDF8202, "03");
        Put(0x9F32, "03");
        Put(0x9F47, "03");
        Put(0x9F37, "11223344");
        Put(c.modulusTag, Bytes(c.length, 0xC5));
        Put(c.certificateTag, Bytes(c.length, 0x5C));
        RsaCounter rsa;
        EXPECT_EQ(c.run(), c.code) << c.name;
        EXPECT_EQ(rsa.calls(), 0) << c.name;
    }
}

TEST_F(Recovery, SignedStaticDataOutsideItsAreaIsRefused) {
    Put(0x9F32, "03");
    Put(0x9F8232, keys::Issuer864().n);
    for (const size_t length : {size_t{301}, size_t{25}}) {
        Put(0x93, Bytes(length, 0x5C));
        RsaCounter rsa;
        EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), 0x31223u) << length;
        EXPECT_EQ(rsa.calls(), 0);
    }
}

// A hash input that would pass the exchange buffer is refused without a byte
// written past it (ASan watches the buffer's end).
TEST_F(Recovery, AHashInputLongerThanTheExchangeBufferIsRefused) {
    StoreIssuer(keys::Ca1024(),
                pki::MakeIssuerCertificate(backend, keys::Ca1024(), keys::Issuer864()));
    Put(0x9F32, Bytes(2000, 0x03));
    EXPECT_EQ(VelkCless_Retrieve_IssuerPubKey(), 0x31006u);

    pki::IccCertificateRequest request;
    request.static_data = Signed();
    StoreIcc(keys::Issuer864(),
             pki::MakeIccCertificate(backend, keys::Issuer864(), keys::Icc688(), request));
    SetOdaData(Bytes(1024, 0x70));
    Put(0x9F47, Bytes(1000, 0x01));
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0x31006u);
    // The tag list is judged before the length, as the checks run in order.
    Put(0x9F4A, "9F02");
    EXPECT_EQ(VelkCless_Retrieve_ICC_PubKey(), 0x31416u);
}

}  // namespace
}  // namespace velk::test
