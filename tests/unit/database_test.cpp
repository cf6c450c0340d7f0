// The transaction database: storage layout, the setters' rules (single tags,
// in-place overwrite, capacity), the property checks, and the queries over the
// database and the dynamic transaction parameters.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "baseKernel.h"
#include "checked.hpp"
#include "database.h"
#include "kernel_fixture.hpp"
#include "tlv.h"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using host::Tlv;

class Database : public KernelTest {
protected:
    uint8_t *db() { return kernel_.g().ucDataBasebuf; }
    uint32_t used() { return kernel_.g().uiUseBuflen; }
    Bytes content() { return Bytes(db(), db() + TLV_GetTlvTotalLen(db())); }
    uint32_t Set(uint32_t tag, const Bytes &v) {
        return VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(v.size()), v.data());
    }
    Bytes Get(uint32_t tag) {
        OBJECT_TAG o{};
        if (VelkDataBase_GetTagValue(tag, &o) != 0) return FromHex("DEAD");
        return Bytes(o.pValue, o.pValue + o.uiLength);
    }
    // The database is one 7F01 of at most 8192 bytes, well formed, whose
    // direct children are each present once.
    void ExpectWellFormed() {
        const uint32_t total = TLV_GetTlvTotalLen(db());
        ASSERT_LE(total, VELK_DATABASE_LEN);
        EXPECT_EQ(TLV_GetTag(db()), 0x7F01u);
        EXPECT_EQ(velk::WellFormedLen(db(), VELK_DATABASE_LEN), total);
    }
};

// ---- Storage and the setters --------------------------------------------------

TEST_F(Database, InitWritesAnEmpty7F01AndTheFirstSetAppends) {
    EXPECT_EQ(content(), FromHex("7F 01 00"));
    EXPECT_EQ(Set(0x9F02, FromHex("00 00 00 00 01 00")), 0u);
    EXPECT_EQ(content(), FromHex("7F 01 09 9F 02 06 00 00 00 00 01 00"));
    EXPECT_EQ(used(), 12u);
    EXPECT_EQ(Get(0x9F02), FromHex("00 00 00 00 01 00"));
}

TEST_F(Database, ASingleTagIsWrittenOncePerTransactionWhateverTheValue) {
    const Bytes pan = FromHex("54 13 33 00 89 00 00 39");
    ASSERT_EQ(Set(0x5A, pan), 0u);
    EXPECT_EQ(Set(0x5A, pan), 0x31001u);
    EXPECT_EQ(Set(0x5A, FromHex("12 34")), 0x31001u);
    OBJECT_TAG o{0x5A, 2, const_cast<uint8_t *>(pan.data())};
    EXPECT_EQ(VelkDataBase_SetTAG(&o), 0x31001u);
    EXPECT_EQ(Get(0x5A), pan);
    // Deleting first lets it be written again.
    VelkDataBase_Del_TAG(0x5A);
    EXPECT_EQ(Set(0x5A, FromHex("12 34")), 0u);
}

TEST_F(Database, SameLengthOverwritesInPlaceAnotherLengthMovesToTheEnd) {
    Set(0x9F36, FromHex("00 01"));
    Set(0x9F27, FromHex("80"));
    EXPECT_EQ(Set(0x9F36, FromHex("00 02")), 0u);
    EXPECT_EQ(content(), FromHex("7F 01 09 9F 36 02 00 02 9F 27 01 80"));
    OBJECT_TAG o{0x9F36, 2, nullptr};
    const Bytes v = FromHex("00 03");
    o.pValue = const_cast<uint8_t *>(v.data());
    EXPECT_EQ(VelkDataBase_SetTAG(&o), 0x31002u);
    EXPECT_EQ(content(), FromHex("7F 01 09 9F 36 02 00 03 9F 27 01 80"));
    EXPECT_EQ(Set(0x9F36, FromHex("01")), 0u);
    EXPECT_EQ(content(), FromHex("7F 01 08 9F 27 01 80 9F 36 01 01"));
    EXPECT_EQ(used(), 11u);
}

TEST_F(Database, CapacityBoundaryAt8192And8193) {
    ASSERT_EQ(Set(0x9F02, Bytes(6)), 0u);
    ASSERT_EQ(used(), 12u);
    const Bytes before = content();
    // 8173 + 12 + 8 = 8193: refused, nothing changes.
    EXPECT_EQ(Set(0xDF01, Bytes(8173, 0xAB)), 0x31003u);
    EXPECT_EQ(content(), before);
    EXPECT_EQ(used(), 12u);
    // 8172 + 12 + 8 = 8192: taken (7F 01 82 1F FA: 8191 bytes).
    EXPECT_EQ(Set(0xDF01, Bytes(8172, 0xAB)), 0u);
    EXPECT_EQ(used(), 8191u);
    ExpectWellFormed();
    EXPECT_EQ(Set(0x9F03, Bytes(6)), 0x31003u);
}

TEST_F(Database, HeaderGrowthNeverTakesThe7F01PastTheArea) {
    // A fresh block: uiUseBuflen is 0, so the 8-byte reserve alone would let
    // 8184 bytes through into an element of 8194.
    ASSERT_EQ(used(), 0u);
    EXPECT_EQ(Set(0xDF01, Bytes(8184)), 0x31003u);
    EXPECT_EQ(content(), FromHex("7F 01 00"));
    EXPECT_EQ(Set(0xDF01, Bytes(8182)), 0u);
    EXPECT_EQ(TLV_GetTlvTotalLen(db()), 8192u);
    ExpectWellFormed();
}

TEST_F(Database, ARefusedSetOfAnotherLengthHasAlreadyLostTheOldValue) {
    Set(0x9F02, Bytes(6));
    Set(0xDF01, Bytes(8000));
    ASSERT_EQ(Set(0x9F02, Bytes(200)), 0x31003u);
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x9F02), 0);
    ExpectWellFormed();
}

TEST_F(Database, InitKeepsUiUseBuflenAndDeleteDoesNotLowerIt) {
    Set(0x9F02, Bytes(6));
    Set(0x9F03, Bytes(6));
    EXPECT_EQ(used(), 21u);
    EXPECT_EQ(VelkDataBase_Del_TAG(0x9F02), 0u);
    EXPECT_EQ(VelkDataBase_Del_TAG(0x9F02), 0u);
    EXPECT_EQ(used(), 21u);
    EXPECT_EQ(content(), FromHex("7F 01 09 9F 03 06 00 00 00 00 00 00"));
    VelkDataBase_Init();
    EXPECT_EQ(content(), FromHex("7F 01 00"));
    EXPECT_EQ(used(), 21u);
    Set(0x9C, FromHex("00"));
    EXPECT_EQ(used(), 6u);
}

TEST_F(Database, GettersCopyOrPointAndReportAbsence) {
    Set(0x9F1A, FromHex("02 50"));
    uint32_t len = 77;
    EXPECT_EQ(VelkDataBase_Get_TagValue(0x9F1A, &len, nullptr), 0u);
    EXPECT_EQ(len, 2u);
    uint8_t out[4] = {};
    EXPECT_EQ(VelkDataBase_Get_TagValue(0x9F1A, &len, out), 0u);
    EXPECT_EQ(Bytes(out, out + 2), FromHex("02 50"));
    len = 77;
    EXPECT_EQ(VelkDataBase_Get_TagValue(0x5F2A, &len, out), 0x31004u);
    EXPECT_EQ(len, 77u);
    OBJECT_TAG o{1, 2, nullptr};
    EXPECT_EQ(VelkDataBase_GetTagValue(0x5F2A, &o), 0x31004u);
    EXPECT_EQ(o.uiTag, 1u);
    Set(0x9F27, Bytes());
    EXPECT_EQ(VelkDataBase_GetTagValue(0x9F27, &o), 0u);
    EXPECT_EQ(o.uiLength, 0u);
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x9F27), 1);
    EXPECT_EQ(VelkDataBase_Tag_IsNotPresent(0x9F27), 0);
    EXPECT_EQ(VelkDataBase_Tag_IsNotPresent(0x9F26), 1);
    // DbGet copies at most cap bytes.
    Set(0x9F10, FromHex("01 02 03 04 05"));
    uint8_t small[3] = {};
    EXPECT_EQ(velk::DbGet(0x9F10, small, 3, &len), 0u);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(Bytes(small, small + 3), FromHex("01 02 03"));
    len = 9;
    EXPECT_EQ(velk::DbGet(0x9F26, small, 3, &len), 0x31004u);
    EXPECT_EQ(len, 9u);
}

TEST_F(Database, StoredTemplatesDoNotConfuseTheDatabasesOwnElements) {
    // The FCI handler stores nested elements and then their template: 50
    // occurs as a direct child and inside A5.
    Set(0x50, FromHex("41 42"));
    Set(0xA5, FromHex("50 02 41 42 87 01 01"));
    // Another length twice: the second time the template comes first.
    EXPECT_EQ(Set(0x50, FromHex("41")), 0u);
    EXPECT_EQ(Set(0x50, FromHex("41 42 43")), 0u);
    ExpectWellFormed();
    EXPECT_EQ(Get(0x50), FromHex("41 42 43"));
    EXPECT_EQ(Get(0xA5), FromHex("50 02 41 42 87 01 01"));
    VelkDataBase_Del_TAG(0x50);
    ExpectWellFormed();
    EXPECT_EQ(Get(0xA5), FromHex("50 02 41 42 87 01 01"));
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x50), 0);
}

TEST_F(Database, AValueTakenFromTheDatabaseItselfSurvivesTheMove) {
    Set(0x9F06, FromHex("A0 00 00 00 04"));
    Set(0x84, FromHex("A0 00 00 00 04 10 10"));
    OBJECT_TAG df{};
    ASSERT_EQ(VelkDataBase_GetTagValue(0x84, &df), 0u);
    EXPECT_EQ(VelkDataBase_Set_TAG(0x9F06, df.uiLength, df.pValue), 0u);
    EXPECT_EQ(Get(0x9F06), FromHex("A0 00 00 00 04 10 10"));
    ASSERT_EQ(VelkDataBase_GetTagValue(0x9F06, &df), 0u);
    EXPECT_EQ(VelkDataBase_Set_TAG(0x9F06, 3, df.pValue + 2), 0u);  // its own bytes
    EXPECT_EQ(Get(0x9F06), FromHex("00 00 04"));
    ExpectWellFormed();
}

TEST_F(Database, AnAreaNeverInitialisedHoldsAndTakesNothing) {
    std::memset(db(), 0, 8);
    EXPECT_EQ(Set(0x9F02, Bytes(6)), 0x31003u);
    EXPECT_EQ(VelkDataBase_Tag_IsPresent(0x9F02), 0);
    EXPECT_EQ(VelkCless_Check_MandatoryDataIsMissing(), 1);
}

// ---- The property table -------------------------------------------------------------

TEST(TagProperties, LengthRangesSourcesAndFormats) {
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x9F02, 5), 1);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x9F02, 6), 0);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x9F02, 7), 1);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x9F02, 0), 0);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0xDF8129, 200), 0);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x5F50, 999), 0);
    EXPECT_EQ(VelkCless_Check_Tag_Length(0x5F50, 1000), 1);
    EXPECT_EQ(VelkCless_Check_DataResoure_NotAllow(0x02000000, 0x9F02), 1);
    EXPECT_EQ(VelkCless_Check_DataResoure_NotAllow(0x02000000, 0x5A), 0);
    EXPECT_EQ(VelkCless_Check_DataResoure_NotAllow(0x02000000, 0x9F4E), 0);
    EXPECT_EQ(VelkCless_Check_DataResoure_NotAllow(0x08000000, 0x91), 0);
    EXPECT_EQ(VelkCless_Check_DataResoure_NotAllow(0x0A000000, 0x91), 1);
    EXPECT_EQ(VelkCless_Check_IsMultiTagForbidden(0x5A), 1);
    EXPECT_EQ(VelkCless_Check_IsMultiTagForbidden(0x9F36), 0);
    EXPECT_EQ(VelkCless_Check_IsMultiTagForbidden(0x9F80), 1);
    EXPECT_EQ(VelkCless_Check_IsMultiTagForbidden(0xDF8129), 0);
    EXPECT_EQ(VelkCless_Get_Tag_Format(0x5A), TAG_FMT_CN);
    EXPECT_EQ(VelkCless_Get_Tag_Format(0x9F02), TAG_FMT_N);
    EXPECT_EQ(VelkCless_Get_Tag_Format(0x50), TAG_FMT_ANS);
    EXPECT_EQ(VelkCless_Get_Tag_Format(0x9F4E), 0u);
    EXPECT_EQ(gbTagPropreity[0].tag, 0x42u);
    EXPECT_EQ(gbTagPropreity[VELK_TAG_PROPERTY_ROWS - 1].tag, 0x9F80u);
}

TEST_F(Database, MandatoryDataIsMissingUntilAllSixArePresent) {
    const uint32_t mandatory[] = {0x57, 0x82, 0x9F10, 0x9F26, 0x9F36, 0x9F38};
    for (uint32_t tag : mandatory) {
        EXPECT_EQ(VelkCless_Check_MandatoryDataIsMissing(), 1) << std::hex << tag;
        Set(tag, Bytes(2));
    }
    EXPECT_EQ(VelkCless_Check_MandatoryDataIsMissing(), 0);
}

// ---- Queries over the transaction's data ------------------------------------------------

class Queries : public Database {
protected:
    // The dynamic transaction parameters as the kernel start builds them.
    void Dynamic(const Bytes &children) {
        VELK_GLOBALVALUE_STRUCT &g = kernel_.g();
        const Bytes dyn = Tlv(0x7F01, children);
        std::memcpy(g.ucDynamicTransactionParameters, dyn.data(), dyn.size());
        g.uiDynamicTransactionParametersLen = static_cast<uint32_t>(dyn.size());
    }
};

TEST_F(Queries, ValuePredicatesNeedANonEmptyValue) {
    EXPECT_EQ(VelkCless_CheckTagValue_IsZero(0x9F9304), 0);
    EXPECT_EQ(VelkCless_CheckTagValue_IsTrue(0x9F9304), 0);
    Set(0x9F9304, Bytes());
    EXPECT_EQ(VelkCless_CheckTagValue_IsZero(0x9F9304), 0);
    EXPECT_EQ(VelkCless_CheckTagValue_IsTrue(0x9F9304), 0);
    Set(0x9F9304, FromHex("00"));
    EXPECT_EQ(VelkCless_CheckTagValue_IsZero(0x9F9304), 1);
    Set(0x9F9304, FromHex("02"));
    EXPECT_EQ(VelkCless_CheckTagValue_IsTrue(0x9F9304), 1);
    EXPECT_EQ(VelkCless_CheckTagValue_IsZero(0x9F9304), 0);
}

TEST_F(Queries, KernelCapabilitiesYieldTheAndItselfAndBytesBeyondTheValueReadZero) {
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x0208), 0);
    Set(0x9F9301, FromHex("00 00 0C 40"));
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x0208), 8);
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x020C), 0x0C);
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x0210), 0);
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x0340), 0x40);
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0x04FF), 0);
    EXPECT_EQ(VelkCless_Kernel_Capabilities_IsTrue(0xFF01), 0);
    EXPECT_EQ(VelkCless_Check_ImplementationOption_IsTrue(0x10), 0);
    Set(0x9F9302, FromHex("30 FF"));
    EXPECT_EQ(VelkCless_Check_ImplementationOption_IsTrue(0x10), 1);
    EXPECT_EQ(VelkCless_Check_ImplementationOption_IsTrue(0x01), 0);
}

TEST_F(Queries, TransactionTypeOfApplicationAuthentication) {
    VelkCless_Set_TransactionType(0x78);
    EXPECT_EQ(VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli(), 0);
    Set(0x9F9309, FromHex("00 78"));
    EXPECT_EQ(VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli(), 1);
    VelkCless_Set_TransactionType(0x20);
    EXPECT_EQ(VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli(), 0);
}

TEST_F(Queries, DynamicParametersAreSearchedAmongTheDirectChildren) {
    EXPECT_EQ(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x9C), 0);
    EXPECT_EQ(VelkCless_Check_Tag_isNotPresent_InDynamic_TransactionParam(0x9C), 1);
    Dynamic(host::Cat({FromHex("9C 01 00"), Tlv(0x71, {FromHex("86 02 84 24")})}));
    EXPECT_EQ(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x9C), 1);
    EXPECT_EQ(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x71), 1);
    EXPECT_EQ(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x86), 0);
    EXPECT_EQ(VelkCless_Check_Tag_isNotPresent_InDynamic_TransactionParam(0x9C), 0);
    // A header that claims more than was recorded is not trusted.
    kernel_.g().uiDynamicTransactionParametersLen = 4;
    EXPECT_EQ(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x9C), 0);
}

const Bytes kFciWithEcho = FromHex("6F 0E 84 02 A0 01 A5 08 BF 0C 05 9F 75 02 01 02");
const Bytes kFciWithout = FromHex("6F 08 84 02 A0 01 A5 02 50 00");

TEST_F(Queries, EchoCardIdentifierInTheDynamicFciOrAfterAnOnlineResponseTheStoredOne) {
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 0);
    Set(0x9F8201, kFciWithEcho);
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 0);  // no 8A
    Dynamic(FromHex("8A 02 30 30"));
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 1);
    // A dynamic FCI wins, also when it lacks 9F75.
    Dynamic(host::Cat({FromHex("8A 02 30 30"), Tlv(0x9F8201, kFciWithout)}));
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 0);
    Dynamic(Tlv(0x9F8201, kFciWithEcho));
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 1);
}

TEST_F(Queries, AMalformedStoredFciIsNotSearched) {
    Dynamic(FromHex("8A 02 30 30"));
    const Bytes lying = FromHex("6F 7F 84 02 A0 01 A5 08 BF 0C 05 9F 75 02 01 02");
    Set(0x9F8201, lying);
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 0);
    VelkDataBase_Del_TAG(0x9F8201);
    Set(0x9F8201, FromHex("6F 05 BF 0C 02 9F 75"));  // 9F75 cut
    EXPECT_EQ(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(), 0);
}

TEST_F(Queries, FciComparison) {
    EXPECT_EQ(VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(), 0);
    Set(0x9F8201, kFciWithEcho);
    Dynamic(Tlv(0x9F8201, kFciWithEcho));
    EXPECT_EQ(VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(), 1);
    Bytes other = kFciWithEcho;
    other.back() = 0x03;
    Dynamic(Tlv(0x9F8201, other));
    EXPECT_EQ(VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(), 0);
    Dynamic(Tlv(0x9F8201, kFciWithout));
    EXPECT_EQ(VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(), 0);
}

TEST(DolQueries, TagPresenceWalksEntriesAndNeverReadsPastTheDol) {
    const Bytes pdol = FromHex("9F 66 04 9F 02 06 9F 37 04 5F 2A 02");
    EXPECT_EQ(VelkCless_TAG_IsPresent_DOL(0x9F37, pdol.data(), 12), 1);
    EXPECT_EQ(VelkCless_TAG_IsPresent_DOL(0x5F2A, pdol.data(), 12), 1);
    EXPECT_EQ(VelkCless_TAG_IsPresent_DOL(0x9A, pdol.data(), 12), 0);
    EXPECT_EQ(VelkCless_TAG_IsPresent_DOL(0x5F2A, pdol.data(), 11), 0);  // entry cut
    EXPECT_EQ(VelkCless_TAG_IsPresent_DOL(0x9F02, nullptr, 12), 0);
    const char *hostile[] = {"9F", "DF 81", "DF 81 82 83", "DF 81 82 83 82 01"};
    for (const char *hex : hostile) {
        const Bytes src = FromHex(hex);
        std::vector<uint8_t> d(src.begin(), src.end());
        EXPECT_EQ(
            VelkCless_TAG_IsPresent_DOL(0xDF818283, d.data(), static_cast<uint32_t>(d.size())),
            d.size() >= 5)
            << hex;
    }
}

TEST(DataElement, FillsTheViewAndRefusesTagZero) {
    Bytes e = FromHex("9F 02 06 00 00 00 00 01 00");
    OBJECT_TAG o{};
    EXPECT_EQ(VelkCless_Get_TLV_DataElement(e.data(), &o), 0u);
    EXPECT_EQ(o.uiTag, 0x9F02u);
    EXPECT_EQ(o.uiLength, 6u);
    EXPECT_EQ(o.pValue, e.data() + 3);
    Bytes z = FromHex("00 02 01 02");
    OBJECT_TAG untouched{1, 1, nullptr};
    EXPECT_EQ(VelkCless_Get_TLV_DataElement(z.data(), &untouched), 0x31005u);
    EXPECT_EQ(untouched.uiTag, 1u);
    EXPECT_EQ(VelkCless_Get_TLV_DataElement(nullptr, &o), 0x31005u);
}

}  // namespace
}  // namespace velk::test
