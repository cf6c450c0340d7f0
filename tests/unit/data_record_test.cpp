// Data records, discretionary data and the online-context record built from
// the database: list order, the doubled 5F20, host tag lists, and the bound
// of the 1024-byte work area.
#include <gtest/gtest.h>

#include <cstdint>
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

constexpr uint32_t kUntouched = 0xA5A5A5A5u;

class DataRecord : public KernelTest {
protected:
    void Set(uint32_t tag, const Bytes &v) {
        ASSERT_EQ(VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(v.size()), v.data()), 0u);
    }
    // The container as built, checked to fit its length variable.
    Bytes Built() {
        const uint32_t total = TLV_GetTlvTotalLen(work_.data());
        EXPECT_LE(total, VELK_RECORD_WORK_LEN);
        if (len_ != kUntouched) {
            EXPECT_EQ(len_, total);
        }
        Bytes built(work_.begin(), work_.begin() + total);
        EXPECT_NO_THROW(host::ParseTlv(built, false));
        return built;
    }
    std::vector<uint32_t> Tags() {
        std::vector<uint32_t> tags;
        for (uint8_t *c = TLV_GetFirstChildTag(work_.data()); c != nullptr;
             c = TLV_GetNextChildTag(work_.data()))
            tags.push_back(TLV_GetTag(c));
        return tags;
    }
    void Authentication() {
        Set(0x9F9302, FromHex("10"));
        Set(0x9F9309, FromHex("78"));
        Set(0x9F9301, FromHex("00 00 00 40"));
        VelkCless_Set_TransactionType(0x78);
    }
    std::vector<uint8_t> work_ = std::vector<uint8_t>(VELK_RECORD_WORK_LEN, 0);
    uint32_t len_ = kUntouched;
};

TEST_F(DataRecord, AnEmptyDatabaseGivesAnEmptyContainerAndLeavesTheLengthAlone) {
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Built(), FromHex("FF 81 05 00"));
    EXPECT_EQ(len_, kUntouched);
}

TEST_F(DataRecord, ListOrderWithTheCardholderNameTwice) {
    Set(0x50, FromHex("56 49 53 41"));
    Set(0x5F20, FromHex("41 2F 42"));
    Set(0x9F02, FromHex("00 00 00 00 10 00"));
    Set(0x9F27, Bytes());
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Built(), Tlv(0xFF8105, {FromHex("9F 02 06 00 00 00 00 10 00"), FromHex("9F 27 00"),
                                      FromHex("5F 20 03 41 2F 42"), FromHex("5F 20 03 41 2F 42"),
                                      FromHex("50 04 56 49 53 41")}));
}

TEST_F(DataRecord, ModeZeroAppendsToTheContainerAlreadyThere) {
    TLV_New(work_.data(), 0x7F15, nullptr, 0);
    Set(0x82, FromHex("19 80"));
    VelkCless_Create_DataRecord(0, work_.data(), &len_);
    EXPECT_EQ(Built(), FromHex("7F 15 04 82 02 19 80"));
}

TEST_F(DataRecord, HostListAddsAbsentTagsEmptyAndNothingTwice) {
    Set(0x9F02, FromHex("00 00 00 00 10 00"));
    Set(0x9F9311, FromHex("9F 02 DF 83 01 DF 83 01 FF 81 05"));
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Built(),
              Tlv(0xFF8105, {FromHex("9F 02 06 00 00 00 00 10 00"), FromHex("DF 83 01 00")}));
}

TEST_F(DataRecord, ApplicationAuthenticationUsesItsOwnListsAndTheSecondHostList) {
    Authentication();
    Set(0x95, FromHex("00 00 00 00 00"));
    Set(0x9F02, FromHex("00 00 00 00 10 00"));
    Set(0x9F9313, FromHex("9F 02"));
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Tags(), (std::vector<uint32_t>{0x95, 0x9F02}));
    // Without the kernel capability the full list is used, the second host
    // list still follows the option and the transaction type.
    VelkDataBase_Del_TAG(0x9F9301);
    Set(0x9F9313, FromHex("DF 01"));
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Tags(), (std::vector<uint32_t>{0x9F02, 0x95, 0xDF01}));
}

TEST_F(DataRecord, HostListsAreBoundedByTheirWorkListAndTheirOwnLength) {
    // 128 two-byte tags fill the 256-byte work list; the 129th is beyond it.
    Bytes list;
    for (uint32_t i = 0; i < 129; ++i) {
        list.push_back(0xDF);
        list.push_back(static_cast<uint8_t>(i == 128 ? 0x7F : 1 + (i % 0x7E)));
    }
    Set(0x9F9311, list);
    Set(0xDF7F, FromHex("01"));
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    const std::vector<uint32_t> tags = Tags();
    EXPECT_EQ(tags.size(), 0x7Eu);
    EXPECT_EQ(TLV_FindTag(work_.data(), 0xDF7F), nullptr);
    // A list walked directly stops at a tag cut by its end; 00 is filler.
    const Bytes cut = FromHex("00 9F 36 9F");
    std::vector<uint8_t> l(cut.begin(), cut.end());
    TLV_New(work_.data(), 0xFF8105, nullptr, 0);
    len_ = kUntouched;
    EXPECT_EQ(VelkCless_Add_Taglist_Data_To_DataRecord(l.data(), 4, work_.data(), &len_), 0u);
    EXPECT_EQ(Built(), FromHex("FF 81 05 03 9F 36 00"));
}

TEST_F(DataRecord, ElementsThatWouldPassTheWorkAreaAreLeftOutWhole) {
    Set(0x9F02, FromHex("00 00 00 00 10 00"));
    Set(0x9F1F, Bytes(600, 0x31));
    Set(0x9F77, Bytes(500, 0x32));  // would pass 1024 after 9F1F
    Set(0x50, FromHex("56 49 53 41"));
    Set(0x9F9311, FromHex("DF 01 DF 02"));
    VelkCless_Create_DataRecord(1, work_.data(), &len_);
    EXPECT_EQ(Tags(), (std::vector<uint32_t>{0x9F02, 0x9F1F, 0x50, 0xDF01, 0xDF02}));
    Built();
}

TEST_F(DataRecord, DiscretionaryDataLeavesOutEmptyAndAbsentElements) {
    Set(0x9F71, Bytes());
    VelkCless_Create_DiscretionaryData(work_.data(), &len_);
    EXPECT_EQ(Built(), FromHex("FF 81 06 00"));
    EXPECT_EQ(len_, kUntouched);
    Set(0x9F74, FromHex("01"));
    VelkCless_Create_DiscretionaryData(work_.data(), &len_);
    EXPECT_EQ(Built(), FromHex("FF 81 06 04 9F 74 01 01"));
}

TEST_F(DataRecord, ErrorDataKeepsEmptyValues) {
    Set(0x9B, Bytes());
    Set(0x95, FromHex("00 00 00 80 00"));
    VelkCless_Create_ErrorOutData(work_.data(), &len_);
    EXPECT_EQ(Built(), FromHex("FF 81 05 09 95 05 00 00 00 80 00 9B 00"));
}

TEST_F(DataRecord, OnlineRecordNeverCarriesTheCryptogramData) {
    for (uint32_t tag : {0x9F26u, 0x9F27u, 0x9F10u, 0x9F36u})
        Set(tag, FromHex("01 02"));
    Set(0x9F02, FromHex("00 00 00 00 10 00"));
    Set(0x5F20, FromHex("41"));
    TLV_New(work_.data(), 0x7F15, nullptr, 0);
    VelkCless_Create_2ndGAC_OnlineData_DataRecord(work_.data(), &len_);
    EXPECT_EQ(Built(), Tlv(0x7F15, {FromHex("9F 02 06 00 00 00 00 10 00"), FromHex("5F 20 01 41"),
                                    FromHex("5F 20 01 41")}));
    // With an explicit capacity an element that does not fit is left out.
    TLV_New(work_.data(), 0x7F15, nullptr, 0);
    len_ = kUntouched;
    velk::CreateOnlineRecord(work_.data(), 14, &len_);
    EXPECT_EQ(Built(), FromHex("7F 15 09 9F 02 06 00 00 00 00 10 00"));
}

}  // namespace
}  // namespace velk::test
