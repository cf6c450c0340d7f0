// SDA, DDA and CDA signature checks on blocks signed by hand, and INTERNAL
// AUTHENTICATE against a scripted card. The CAM selection and checking rules
// are the rows of unit/cam.data.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "baseKernel.h"
#include "db_access.hpp"
#include "named_case.hpp"
#include "oda_card.hpp"
#include "scripted_host.hpp"
#include "tlv.h"

namespace velk::test {
namespace {

using host::Bytes;
using host::Cat;
using host::FromHex;
using host::Tlv;
using host::ToHex;
namespace keys = pki::test_keys;

const Bytes kNumber = FromHex("0102030405060708");
const Bytes kAc = FromHex("A1A2A3A4A5A6A7A8");
const Bytes kUn = FromHex("11223344");

class Signatures : public ::testing::Test {
protected:
    void SetOdaData(const Bytes &data) {
        std::memcpy(host.g().ODA_AuthData, data.data(), data.size());
        host.g().ODA_AuthData_len = static_cast<uint32_t>(data.size());
    }
    // The ICC key of the dynamic signatures.
    void StoreIccKey() {
        Put(0x9F8233, keys::Icc688().n);
        Put(0x9F47, keys::Icc688().e);
    }
    // 6A 05 01 LDD dynamic ... with `ldd` in place of the true length when given.
    Bytes Sdad(const Bytes &dynamic, const Bytes &terminalData, const BlockFaults &faults = {},
               uint8_t format = 0x05, uint8_t hashAlgorithm = 0x01,
               std::optional<uint8_t> ldd = {}) const {
        Bytes body = {format, hashAlgorithm, ldd.value_or(static_cast<uint8_t>(dynamic.size()))};
        body.insert(body.end(), dynamic.begin(), dynamic.end());
        return SealBlock(backend, keys::Icc688(), body, terminalData, faults);
    }

    ScriptedHost host;
    const pki::Backend &backend = TestPkiBackend();
};

// ---- SDA ----------------------------------------------------------------------------------

struct SdaCase : NamedCase {
    BlockFaults faults;
    uint8_t format;
    uint8_t hashAlgorithm;
    const char *tagList;  // 9F4A; "" absent
    bool aipSigned;
    uint32_t code;
};

class Sda : public Signatures, public ::testing::WithParamInterface<SdaCase> {};

TEST_P(Sda, Code) {
    const SdaCase &c = GetParam();
    const Bytes oda = FromHex("5A0854133300896010405F2403301231");
    const Bytes signedData = c.aipSigned ? Cat({oda, FromHex("5800")}) : oda;
    Put(0x9F8232, keys::Issuer864().n);
    Put(0x9F32, keys::Issuer864().e);
    Put(0x82, "5800");
    if (*c.tagList != '\0') Put(0x9F4A, c.tagList);
    SetOdaData(oda);
    Put(0x93, SealBlock(backend, keys::Issuer864(), {c.format, c.hashAlgorithm, 0xDA, 0xC1},
                        signedData, c.faults));
    EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), c.code);
    EXPECT_EQ(Db(0x9F45), c.code == 0 ? "DAC1" : "absent");
}

INSTANTIATE_TEST_SUITE_P(
    Checks, Sda,
    ::testing::Values(SdaCase{{"Accepted"}, {}, 0x03, 0x01, "82", true, 0},
                      SdaCase{{"AcceptedWithoutTagList"}, {}, 0x03, 0x01, "", false, 0},
                      SdaCase{{"Header"}, {0x6B, 0xBC, false}, 0x03, 0x01, "82", true, 0x31201},
                      SdaCase{{"Trailer"}, {0x6A, 0xB0, false}, 0x03, 0x01, "82", true, 0x31201},
                      SdaCase{{"Format"}, {}, 0x04, 0x01, "82", true, 0x31202},
                      SdaCase{{"HashAlgorithm"}, {}, 0x03, 0x02, "82", true, 0x31203},
                      SdaCase{
                          {"HashMismatch"}, {0x6A, 0xBC, true}, 0x03, 0x01, "82", true, 0x31417},
                      SdaCase{{"AipNotSigned"}, {}, 0x03, 0x01, "82", false, 0x31417},
                      // Stricter than the ICC certificate, on purpose.
                      SdaCase{{"TagList8200"}, {}, 0x03, 0x01, "8200", true, 0x31416},
                      SdaCase{{"TagListOther"}, {}, 0x03, 0x01, "9F02", true, 0x31416}),
    CaseName());

TEST_F(Signatures, SdaInputsAndTheirTvrBits) {
    struct Case {
        uint32_t absent;
        uint32_t code;
        const char *tvr;
    };
    for (const Case &c : {Case{0x93, 0x31204, "2000000000"}, Case{0x9F32, 0x31205, "2000000000"},
                          Case{0x9F8232, 0x31206, "0000000000"}}) {
        std::memset(host.g().ucTVR, 0, 5);
        Put(0x93, Bytes(108, 0x01));
        Put(0x9F32, "03");
        Put(0x9F8232, keys::Issuer864().n);
        Put(c.absent, Bytes{});  // empty counts as missing
        EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), c.code);
        EXPECT_EQ(Tvr(), c.tvr);
        VelkDataBase_Del_TAG(c.absent);
        EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), c.code);
    }
}

TEST_F(Signatures, SdaRefusesIncompleteStaticData) {
    const Bytes oda = FromHex("5F24033012315F2503200101");
    Put(0x9F8232, keys::Issuer864().n);
    Put(0x9F32, keys::Issuer864().e);
    SetOdaData(oda);
    Put(0x93, SealBlock(backend, keys::Issuer864(), {0x03, 0x01, 0xDA, 0xC1}, oda));
    EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), 0u);
    host.g().ODA_Data_From_Record_NOK = 1;
    EXPECT_EQ(VelkCless_Verify_Signed_Data_SDA(), 0x31417u);
}

// ---- DDA ----------------------------------------------------------------------------------

struct DynamicCase : NamedCase {
    Bytes dynamic;
    BlockFaults faults;
    uint8_t format;
    uint8_t hashAlgorithm;
    std::optional<uint8_t> ldd;
    uint32_t code;
};

class Dda : public Signatures, public ::testing::WithParamInterface<DynamicCase> {};

TEST_P(Dda, Code) {
    const DynamicCase &c = GetParam();
    StoreIccKey();
    Put(0x9F9315, kUn);
    Put(0x9F4B, Sdad(c.dynamic, kUn, c.faults, c.format, c.hashAlgorithm, c.ldd));
    EXPECT_EQ(VelkCless_ODA_DDA_Dynamic_Signature_Verification(), c.code);
    if (c.code != 0) {
        EXPECT_EQ(Db(0x9F4C), "absent");
    } else {
        EXPECT_EQ(Db(0x9F4C),
                  ToHex(Bytes(c.dynamic.begin() + 1, c.dynamic.begin() + 1 + c.dynamic[0])));
    }
}

const Bytes kDdaDynamic = pki::DdaDynamicData(kNumber);

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Checks, Dda,
    ::testing::Values(
        DynamicCase{{"Accepted"}, kDdaDynamic, {}, 0x05, 0x01, {}, 0},
        DynamicCase{{"Header"}, kDdaDynamic, {0x6B, 0xBC, false}, 0x05, 0x01, {}, 0x44452},
        DynamicCase{{"HeaderBeforeTrailer"}, kDdaDynamic, {0x00, 0x00, false}, 0x05, 0x01, {}, 0x44452},
        DynamicCase{{"Trailer"}, kDdaDynamic, {0x6A, 0x00, false}, 0x05, 0x01, {}, 0x44453},
        DynamicCase{{"Format"}, kDdaDynamic, {}, 0x03, 0x01, {}, 0x44454},
        DynamicCase{{"HashAlgorithm"}, kDdaDynamic, {}, 0x05, 0x02, {}, 0x44454},
        DynamicCase{{"HashMismatch"}, kDdaDynamic, {0x6A, 0xBC, true}, 0x05, 0x01, {}, 0x44455},
        DynamicCase{{"DynamicNumberOf9"}, FromHex("09 010203040506070809"), {}, 0x05, 0x01, {}, 0x44456},
        DynamicCase{{"DynamicDataIntoTheHash"}, kDdaDynamic, {}, 0x05, 0x01, 0xFF, 0x31224},
        DynamicCase{{"DynamicNumberPastTheData"}, FromHex("08 0102"), {}, 0x05, 0x01, {}, 0x31224},
        DynamicCase{{"NoDynamicData"}, Bytes{}, {}, 0x05, 0x01, {}, 0x31224},
        DynamicCase{{"EmptyDynamicNumber"}, FromHex("00"), {}, 0x05, 0x01, {}, 0x00}),
    CaseName());
// clang-format on

TEST_F(Signatures, DdaHashesTheDdolDataWhenThereIsSome) {
    StoreIccKey();
    Put(0x9F4B, Sdad(kDdaDynamic, {}));
    EXPECT_EQ(VelkCless_ODA_DDA_Dynamic_Signature_Verification(), 0u);
    Put(0x9F9315, kUn);
    EXPECT_EQ(VelkCless_ODA_DDA_Dynamic_Signature_Verification(), 0x44455u);
}

TEST_F(Signatures, DynamicSignatureInputs) {
    StoreIccKey();
    const Bytes sdad = Sdad(kDdaDynamic, kUn);
    Put(0x9F37, kUn);
    Put(0x9F4B, Cat({sdad, FromHex("00")}));
    EXPECT_EQ(VelkCless_ODA_DDA_Dynamic_Signature_Verification(), 0x31516u);
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x31516u);
    for (const auto &[tag, dda, cda] :
         std::vector<std::tuple<uint32_t, uint32_t, uint32_t>>{{0x9F4B, 0x44459, 0x44459},
                                                               {0x9F37, 0, 0x44460},
                                                               {0x9F47, 0x31217, 0x31217},
                                                               {0x9F8233, 0x31216, 0x31216}}) {
        StoreIccKey();
        Put(0x9F37, kUn);
        Put(0x9F9315, kUn);
        Put(0x9F4B, sdad);
        VelkDataBase_Del_TAG(tag);
        EXPECT_EQ(VelkCless_ODA_DDA_Dynamic_Signature_Verification(), dda) << std::hex << tag;
        EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), cda) << std::hex << tag;
    }
}

// ---- CDA ----------------------------------------------------------------------------------

class Cda : public Signatures {
protected:
    void SetUp() override {
        StoreIccKey();
        Put(0x9F37, kUn);
        Put(0x9F8210, "000000000100 0978 11223344");
        Put(0x9F8211, "000000000100 8000000000 11223344");
        Put(0x9F8214, "9F270140 9F36020001 9F100801");
        Put(0x9F27, "40");
    }
    Bytes TransactionHash() const {
        return TransactionDataHash(FromHex("000000000100 0978 11223344"),
                                   FromHex("000000000100 8000000000 11223344"),
                                   FromHex("9F270140 9F36020001 9F100801"));
    }
    Bytes TransactionDataHash(const Bytes &pdol, const Bytes &cdol1, const Bytes &gac) const {
        return pki::TransactionDataHash(backend, pdol, cdol1, gac);
    }
    void Sign(const Bytes &dynamic) { Put(0x9F4B, Sdad(dynamic, kUn)); }
};

TEST_F(Cda, AcceptedSignatureStoresTheCryptogramAndDynamicNumber) {
    Sign(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()));
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0u);
    EXPECT_EQ(Db(0x9F26), ToHex(kAc));
    EXPECT_EQ(Db(0x9F4C), ToHex(kNumber));
    EXPECT_EQ(Db(0x9F27), "40");
}

TEST_F(Cda, ASignedCidOtherThan9F27ReplacesItAndFails) {
    Put(0x9F27, "80");
    Sign(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()));
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x44457u);
    EXPECT_EQ(Db(0x9F27), "40");
    EXPECT_EQ(Db(0x9F26), "absent");
}

// Without a stored CID the signed CID byte is not skipped, on purpose: the
// cryptogram is read from the CID's place.
TEST_F(Cda, WithoutAStoredCidTheCryptogramIsReadFromTheCidsPlace) {
    VelkDataBase_Del_TAG(0x9F27);
    const Bytes noCid = Cat({pki::DdaDynamicData(kNumber), kAc, TransactionHash()});
    Sign(noCid);
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0u);
    EXPECT_EQ(Db(0x9F26), ToHex(kAc));
    Sign(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()));
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x44455u);
    EXPECT_EQ(Db(0x9F26), "40A1A2A3A4A5A6A7");
    EXPECT_EQ(Db(0x9F27), "absent");
}

TEST_F(Cda, DynamicDataTooShortForItsFields) {
    const Bytes hash = TransactionHash();
    const Bytes shortHash(hash.begin(), hash.end() - 1);
    for (const Bytes &dynamic :
         {Cat({pki::DdaDynamicData(kNumber), FromHex("40"), kAc, shortHash}),
          Cat({pki::DdaDynamicData(kNumber), FromHex("40"), FromHex("A1A2A3")}),
          pki::DdaDynamicData(kNumber)}) {
        Sign(dynamic);
        EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x44458u) << ToHex(dynamic);
        EXPECT_EQ(Db(0x9F27), "40");
    }
}

TEST_F(Cda, TheTransactionDataHashCoversPdolCdol1AndTheResponse) {
    Sign(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()));
    for (const uint32_t tag : {0x9F8210u, 0x9F8211u, 0x9F8214u}) {
        SetUp();
        Sign(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()));
        Put(tag, "00");
        EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x44455u) << std::hex << tag;
    }
    // Absent or empty data counts as none.
    SetUp();
    Put(0x9F8210, Bytes{});
    VelkDataBase_Del_TAG(0x9F8211);
    Sign(pki::CdaDynamicData(kNumber, 0x40, kAc,
                             TransactionDataHash({}, {}, FromHex("9F270140 9F36020001 9F100801"))));
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0u);
}

TEST_F(Cda, TheFirstHashIsOverTheUnpredictableNumber) {
    Put(0x9F4B,
        Sdad(pki::CdaDynamicData(kNumber, 0x40, kAc, TransactionHash()), FromHex("11223345")));
    EXPECT_EQ(VelkCless_ODA_CDA_Dynamic_Signature_Verification(), 0x44455u);
}

// ---- INTERNAL AUTHENTICATE ------------------------------------------------------------------

class InternalAuthenticate : public Signatures {
protected:
    void SetUp() override { Put(0x9F37, kUn); }
};

TEST_F(InternalAuthenticate, TheDefaultDdolSendsTheUnpredictableNumber) {
    host.card = {Respond(FromHex("0088000004 11223344 00"), FromHex("8003AABBCC 9000"))};
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0u);
    EXPECT_EQ(Db(0x9F4B), "AABBCC");
    EXPECT_EQ(Db(0x9F9315), "11223344");
}

TEST_F(InternalAuthenticate, TheCardsDdolComesBeforeTheReadersAndTheDefault) {
    Put(0x9F02, "000000000100");
    Put(0x9F9314, "9F3704");
    Put(0x9F49, "9F3704 9F0206");
    host.card = {Respond(FromHex("008800000A 11223344 000000000100 00"), FromHex("8001AA 9000")),
                 Respond(FromHex("0088000004 11223344 00"), FromHex("8001AA 9000"))};
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0u);
    VelkDataBase_Del_TAG(0x9F49);
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0u);
}

TEST_F(InternalAuthenticate, ADdolWithoutTheUnpredictableNumberIsNotSent) {
    Put(0x9F49, "9F0206");
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0x31210u);
    EXPECT_EQ(Tvr(), "0800000000");
    EXPECT_EQ(Hex(host.g().ucTSI, 2), "8000");
    EXPECT_TRUE(host.capdus.empty());
}

TEST_F(InternalAuthenticate, Responses) {
    struct Case {
        const char *response;
        uint32_t code;
        const char *sdad;
    };
    for (const Case &c :
         {Case{"8000 9000", 0x31211, "absent"}, Case{"6985", 0x31213, "absent"},
          Case{"90", 0x31213, "absent"}, Case{"", 0x31213, "absent"},
          Case{"8003AABB 9000", 0x31212, "absent"}, Case{"8001AABB 9000", 0x31212, "absent"},
          Case{"7705 9F4B02AABB 9000", 0, "AABB"}, Case{"7703 9F4B00 9000", 0x31211, "absent"},
          Case{"7704 9F4B03AA 9000", 0x31212, "absent"},
          Case{"7003 9F4B00 9000", 0x31211, "absent"}, Case{"9000", 0x31211, "absent"}}) {
        VelkDataBase_Del_TAG(0x9F4B);
        host.card.push_back(Respond(FromHex("0088000004 11223344 00"), FromHex(c.response)));
        EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), c.code) << c.response;
        EXPECT_EQ(Db(0x9F4B), c.sdad) << c.response;
    }
}

TEST_F(InternalAuthenticate, ResponseObjectsAreStoredUnderTheDatabasesRules) {
    Put(0x5A, "5413330089601040");
    host.card = {
        Respond(FromHex("0088000004 11223344 00"), FromHex("7709 9F4B02AABB 5A021234 9000"))};
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0x31001u);
    EXPECT_EQ(Db(0x5A), "5413330089601040");
}

TEST_F(InternalAuthenticate, AResponseLongerThanItsBufferIsRefused) {
    host.card = {Respond(FromHex("0088000004 11223344 00"),
                         Cat({Tlv(0x80, Bytes(297, 0x5D)), FromHex("9000")}))};
    EXPECT_EQ(VelkCless_ODA_DDA_Get_SDDA(), 0x30105u);
    EXPECT_EQ(Db(0x9F4B), "absent");
}

}  // namespace
}  // namespace velk::test
