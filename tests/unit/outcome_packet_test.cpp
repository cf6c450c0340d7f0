// Every outcome row as it reaches the host: the Outcome Parameter Set, the
// UIRDs, the discretionary data and the data record in the outcome packet,
// and the packet's bound.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "baseKernel.h"
#include "checked.hpp"
#include "kernel_fixture.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::ToHex;

void Set(uint32_t tag, const std::string &hex) {
    const Bytes value = FromHex(hex);
    ASSERT_EQ(VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(value.size()), value.data()), 0u);
}

// The card's data every row starts from: language, balance with currency,
// removal timeout, and what the data record picks up.
void CardData() {
    Set(0x5F2D, "656E");
    Set(0x9F50, "000000001000");
    Set(0xCD, "0978");
    Set(0x9F9307, "1E");
    Set(0x9F02, "000000000100");
    Set(0x5F20, "4A4F484E");
    Set(0x9F06, "A0000000031010");
    Set(0x50, "56454C4B");
}

Bytes Packet(uint32_t cap = VELK_IO_BUFFER_MIN_LEN) {
    Bytes io(VELK_IO_BUFFER_MIN_LEN, 0xEE);
    uint32_t len = 0;
    if (cap == VELK_IO_BUFFER_MIN_LEN)
        EXPECT_EQ(VelkCless_Transaction_FinalOutcome_Packet(io.data(), &len), 0u);
    else
        velk::BuildOutcomePacket(io.data(), cap, &len);
    EXPECT_LE(len, cap);
    return Bytes(io.begin(), io.begin() + len);
}

enum Copy { kNone, kLanguage, kAll };

// A 22-byte UIRD in hex.
std::string Uird(const std::string &msgAndStatus, bool hold, Copy copy) {
    std::string hex = msgAndStatus + (hold ? "000013" : "000000");
    hex += copy == kNone ? std::string(16, '0') : "656E" + std::string(12, '0');
    hex += copy == kAll ? "20"
                          "000000001000"
                          "0978"
                        : std::string(18, '0');
    return hex;
}

struct Row {
    const char *name;
    uint32_t (*raise)();
    uint8_t cvm;
    bool d;                   // the card returned data elements (9F71)
    std::string ops;          // DF8129
    std::string uird;         // DF8116; empty: not in the packet
    std::string restartUird;  // 9F8117; empty: not in the packet
    bool discretionary;       // FF8106
    bool record;              // FF8105
};
void PrintTo(const Row &row, std::ostream *os) {
    *os << row.name;
}

const std::string kRestart2102 = Uird("2102", false, kNone);

std::vector<Row> Rows() {
    return {
        {"SelectNext", VelkCless_Transaction_FinalOutcome_SelectNext, 0, false, "5020F0F000F0FF00",
         "", "", false, false},
        {"TryAnotherInterface", VelkCless_Transaction_FinalOutcome_TryAnotherInterface, 0, false,
         "60F0F0F08000FF00", Uird("1D05", false, kNone), "", false, false},
        {"EndApplication", VelkCless_Transaction_FinalOutcome_EndApplication, 0, false,
         "40F0F0F080F0FF00", Uird("1C05", false, kNone), "", false, false},
        {"RestartCommError", VelkCless_Transaction_FinalOutcome_EndApplication_RestartCommuError, 0,
         false, "7010F0F000F0FF00", "", "", false, false},
        {"RestartOnDeviceCvm",
         VelkCless_Transaction_FinalOutcome_EndApplication_Restart_On_Device_CVM, 0, true,
         "4010F0F0C0F01300", Uird("2005", true, kNone), kRestart2102, false, false},
        {"OnDeviceCvmRequestedWithD",
         VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested, 0, true,
         "4010F0F0D0F01300", Uird("2005", true, kNone), kRestart2102, true, false},
        {"ApprovedNoCvm", VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC, 0x00,
         false, "10F0F000A0F0FF00", Uird("0304", false, kAll), "", false, true},
        {"ApprovedSignatureWithD",
         VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC, 0x10, true,
         "10F0F010B8F0FF00", Uird("1A04", false, kAll), "", true, true},
        {"OnlineApprovedNoCvm",
         VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC, 0x00, false,
         "10F0F000A0F0FF00", Uird("B004", false, kAll), "", false, true},
        {"OnlineApprovedSignature",
         VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC, 0x10, false,
         "10F0F010A8F0FF00", Uird("1A04", false, kAll), "", false, true},
        {"DeclinedAfterRecords",
         [] { return VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(0); }, 0x10,
         false, "20F0F0F0A0F0FF00", Uird("0704", false, kAll), "", false, true},
        {"DeclinedWithoutRecordsWithD",
         [] { return VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(1); }, 0x00,
         true, "20F0F0F090F0FF00", Uird("0704", false, kAll), "", true, false},
        {"OnlineRequestOnlinePin", VelkCless_Financial_Transaction_Completed_Online_Request, 0x20,
         false, "30F0F020A0F0FF00", Uird("0904", false, kAll), "", false, true},
        {"OnlineRequestNoCvmWithD", VelkCless_Financial_Transaction_Completed_Online_Request, 0x00,
         true, "30F0F000B0F0FF00", Uird("1B04", false, kAll), "", true, true},
        {"LongTap", VelkCless_Financial_Transaction_Completed_Online_Request_LongTap, 0x00, false,
         "30300400E0F0FF1E", Uird("1B04", false, kAll), Uird("1603", false, kNone), false, true},
        {"OnlineTapOnlinePinWithD",
         VelkCless_Financial_Transaction_Completed_Online_Request_OnlineTap, 0x20, true,
         "30100320F0F0FF00", Uird("0904", false, kAll), kRestart2102, true, true},
        {"ErroneousReactivationNoRecord",
         [] {
             return VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(
                 0);
         },
         0x00, true, "40F0F0F000F0FF00", "", "", false, false},
        {"ErroneousReactivationAfterRecords",
         [] {
             return VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(
                 1);
         },
         0x00, false, "40F0F0F020F0FF00", "", "", false, true},
        {"TryOtherInterface", VelkCless_Financial_Transaction_Completed_Try_Other_Interface, 0x10,
         false, "60F0F0F08001FF00", Uird("1802", false, kLanguage), "", false, false},
        {"TryOtherInterfaceWithDIsOnlyDiscretionaryData",
         VelkCless_Financial_Transaction_Completed_Try_Other_Interface, 0x10, true,
         "60F0F0F01001FF00", "", "", true, false},
        {"CompletedOnError", VelkCless_Transaction_Completed_on_Error, 0x10, true,
         "5020F0F000F0FF00", "", "", false, false},
        {"CommErrorNotCompleted", VelkCless_Communication_Errors_PaymentTransactionNotCompleted,
         0x10, true, "7010F0F0C0F01300", Uird("2105", true, kNone), kRestart2102, false, false},
        {"CommErrorUnknownResult", VelkCless_Communication_Errors_Unknown_Payment_Result, 0x10,
         true, "7010F0F0C0F01300", Uird("2105", true, kNone), kRestart2102, false, false},
        {"CancelledByReader", VelkCless_Transaction_Cancellation_by_Contactless_Reader, 0x10, true,
         "40F0F0F080F0FF00", Uird("1C05", false, kNone), "", false, false},
        {"RetrievalWithoutDiscretionary",
         [] { return VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements(0); },
         0x00, true, "40F0F0F080F0FF00", Uird("1004", false, kNone), "", false, false},
        {"RetrievalWithDiscretionary",
         [] { return VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements(1); },
         0x00, true, "40F0F0F090F0FF00", Uird("1004", false, kNone), "", true, false},
        {"UpdateWithDiscretionary",
         [] { return VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update(1); }, 0x00,
         true, "40F0F0F090F0FF00", Uird("1004", false, kNone), "", true, false},
        {"OfflineAuthentication",
         [] { return VelkCless_NonFinancial_Transaction_completed_Offline_Authentication(0); },
         0x00, true, "40F0F0F0A0F0FF00", Uird("1004", false, kNone), "", false, true},
        {"OfflineAuthenticationWithDiscretionary",
         [] { return VelkCless_NonFinancial_Transaction_completed_Offline_Authentication(1); },
         0x00, true, "40F0F0F0B0F0FF00", Uird("1004", false, kNone), "", true, true},
    };
}

class OutcomeRow : public KernelTest, public ::testing::WithParamInterface<Row> {};

TEST_P(OutcomeRow, ReachesTheHostByteForByte) {
    const Row &row = GetParam();
    CardData();
    if (row.d) Set(0x9F71, "0102");
    VelkCless_SetCVM(row.cvm);
    EXPECT_EQ(row.raise(), 0u);

    const OutcomePacket packet(Packet());
    EXPECT_EQ(ToHex(packet.ops), row.ops);
    EXPECT_EQ(packet.uird ? ToHex(*packet.uird) : "", row.uird);
    EXPECT_EQ(packet.restartUird ? ToHex(*packet.restartUird) : "", row.restartUird);
    EXPECT_EQ(packet.discretionary.has_value(), row.discretionary);
    EXPECT_EQ(packet.record.has_value(), row.record);
    std::vector<uint32_t> order = {0xDF8129};
    if (!row.uird.empty()) order.push_back(0xDF8116);
    if (!row.restartUird.empty()) order.push_back(0x9F8117);
    if (row.discretionary) order.push_back(0xFF8106);
    if (row.record) order.push_back(0xFF8105);
    EXPECT_EQ(packet.order, order);
}

INSTANTIATE_TEST_SUITE_P(Rows, OutcomeRow, ::testing::ValuesIn(Rows()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(KernelTest, TheDataRecordKeepsItsListOrderWithTheCardholderNameTwice) {
    CardData();
    Set(0x9F71, "0102");
    Set(0x9F74, "");
    VelkCless_Financial_Transaction_Completed_Online_Request();
    const OutcomePacket packet(Packet());
    ASSERT_TRUE(packet.record && packet.discretionary);
    EXPECT_EQ(OutcomePacket::Tags(*packet.record),
              (std::vector<uint32_t>{0x9F02, 0x5F20, 0x5F20, 0x9F06, 0x9F50, 0x50}));
    // An empty 9F74 is left out of the discretionary data.
    EXPECT_EQ(ToHex(packet.discretionary->value), "9F71020102");
}

TEST_F(KernelTest, TheRestartUirdIsWrittenOnlyByRestartOutcomesAndClearedByNone) {
    VelkCless_Financial_Transaction_Completed_Online_Request_LongTap();
    VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC();
    EXPECT_EQ(ToHex({reinterpret_cast<const uint8_t *>(&kernel_.g().UIRD_Restart), 2}), "1603");
    EXPECT_FALSE(OutcomePacket(Packet()).restartUird.has_value());
    VelkCless_Communication_Errors_PaymentTransactionNotCompleted();
    EXPECT_EQ(OutcomePacket(Packet()).restartUird, FromHex(kRestart2102));
}

TEST_F(KernelTest, TheCommunicationErrorTryAgainSetsAUirdItsPresenceDoesNotAnnounce) {
    VelkCless_Transaction_FinalOutcome_EndApplication_RestartCommuError();
    const auto *uird = reinterpret_cast<const uint8_t *>(&kernel_.g().UIRD);
    EXPECT_EQ(ToHex({uird, 22}), Uird("2105", true, kNone));
    EXPECT_FALSE(OutcomePacket(Packet()).uird.has_value());
}

TEST_F(KernelTest, TheRemovalTimeoutIsTheFirstByteOf9F9307AndZeroWithoutIt) {
    for (const std::string value : {"", "05FF"}) {
        VelkDataBase_Init();
        if (!value.empty()) Set(0x9F9307, value);
        VelkCless_Financial_Transaction_Completed_Online_Request_LongTap();
        EXPECT_EQ(kernel_.g().FinalOutCome.ucRemoval_Timeout, value.empty() ? 0 : 5);
    }
    Set(0x9F9307, "");
    VelkCless_Financial_Transaction_Completed_Online_Request_LongTap();
    EXPECT_EQ(kernel_.g().FinalOutCome.ucRemoval_Timeout, 0);
}

TEST_F(KernelTest, TheBalanceNeeds9F50AndTakesNoMoreThanItsFieldsHold) {
    Set(0xCD, "0978");
    VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC();
    EXPECT_EQ(ToHex(*OutcomePacket(Packet()).uird), Uird("0304", false, kNone));

    VelkDataBase_Init();
    Set(0x5F2D, "656E667264656573");  // eight bytes: the whole field
    Set(0x9F50, "000000001000FFFF");  // longer than the six-byte value
    VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC();
    EXPECT_EQ(ToHex(*OutcomePacket(Packet()).uird),
              "030400000065"
              "6E667264656573"
              "20"
              "000000001000"
              "0000");
}

TEST_F(KernelTest, TheReaderFlagEndsThePacketWith9F8211) {
    CardData();
    kernel_.g().ucVelkReader = 1;
    VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC();
    const OutcomePacket packet(Packet());
    EXPECT_EQ(packet.order.back(), 0x9F8211u);
    EXPECT_EQ(packet.reader, FromHex("01"));
    kernel_.g().ucVelkReader = 2;
    EXPECT_FALSE(OutcomePacket(Packet()).reader.has_value());
}

// The exchange buffer that carries the packet on a restart is smaller than a
// full packet can be: what does not fit is left out whole.
TEST_F(KernelTest, AnElementThatWouldPassTheBoundIsLeftOutAndThePacketStaysWellFormed) {
    CardData();
    Set(0x9F1F, std::string(2 * 900, 'A'));  // a data record of about a kilobyte
    Set(0x9F71, "0102");
    kernel_.g().ucVelkReader = 1;
    VelkCless_Financial_Transaction_Completed_Online_Request();
    const Bytes full = Packet();
    const OutcomePacket all(full);
    ASSERT_TRUE(all.record.has_value());

    const uint32_t withoutRecord = static_cast<uint32_t>(full.size() - all.record->size);
    const OutcomePacket cut(Packet(withoutRecord));
    EXPECT_EQ(cut.order, (std::vector<uint32_t>{0xDF8129, 0xDF8116, 0xFF8106, 0x9F8211}));

    const OutcomePacket tiny(Packet(8));
    EXPECT_EQ(tiny.order, std::vector<uint32_t>{0x9F8211});
    EXPECT_EQ(Packet(2), Bytes{});
}

}  // namespace
}  // namespace velk::test
