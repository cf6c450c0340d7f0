// Processing restrictions: calendar helpers, dates, usage control, versions.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"

namespace velk::test {
namespace {

TEST(CalendarHelpers, LeapYears) {
    EXPECT_EQ(VelkCless_DATE_LeapYearInt(2024), 0u);
    EXPECT_EQ(VelkCless_DATE_LeapYearInt(2000), 0u);
    EXPECT_EQ(VelkCless_DATE_LeapYearInt(1900), 162u);
    EXPECT_EQ(VelkCless_DATE_LeapYearInt(2023), 162u);
}

TEST(CalendarHelpers, MonthLengthsAndTheirCodes) {
    uint32_t days = 0;
    const uint32_t expected[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (uint32_t m = 1; m <= 12; ++m) {
        EXPECT_EQ(VelkCless_DATE_MonthDaysInt(2023, m, &days), 0u);
        EXPECT_EQ(days, expected[m]) << m;
    }
    EXPECT_EQ(VelkCless_DATE_MonthDaysInt(2024, 2, &days), 0u);
    EXPECT_EQ(days, 29u);
    EXPECT_EQ(VelkCless_DATE_MonthDaysInt(2024, 13, &days), 165u);
    EXPECT_EQ(VelkCless_DATE_MonthDaysInt(2024, 0, &days), 165u);
    EXPECT_EQ(VelkCless_DATE_MonthDaysInt(2024, 1, nullptr), 161u);
}

TEST(CalendarHelpers, ValidDates) {
    EXPECT_EQ(VelkCless_DATE_ValidDateInt(1899, 1, 1), 164u);
    EXPECT_EQ(VelkCless_DATE_ValidDateInt(2501, 1, 1), 164u);
    EXPECT_EQ(VelkCless_DATE_ValidDateInt(2500, 12, 31), 0u);
    EXPECT_EQ(VelkCless_DATE_ValidDateInt(2024, 4, 31), 166u);
    EXPECT_EQ(VelkCless_DATE_ValidDateInt(2024, 4, 0), 166u);
    const uint8_t leapDay[4] = {0x20, 0x24, 0x02, 0x29};
    const uint8_t notLeap[4] = {0x20, 0x23, 0x02, 0x29};
    const uint8_t badNibble[4] = {0x20, 0x2A, 0x01, 0x01};
    const uint8_t badMonth[4] = {0x20, 0x24, 0x13, 0x01};
    EXPECT_EQ(VelkCless_CheckDateValid(leapDay), 0u);
    EXPECT_EQ(VelkCless_CheckDateValid(notLeap), 166u);
    EXPECT_EQ(VelkCless_CheckDateValid(badNibble), 163u);
    EXPECT_EQ(VelkCless_CheckDateValid(badMonth), 165u);
}

class Restrictions : public KernelTest {
protected:
    void SetUp() override {
        Put(0x82, "0800");
        Put(0x9F9301, "0000000008");  // byte 5 bit 0x08
        Put(0x9F1A, "0978");
        Put(0x5F28, "0978");
        Put(0x9C, "00");
        Put(0x9F35, "22");
        Put(0x9A, "240615");
    }
    uint32_t Run() { return VelkCless_Processing_Restrictions(nullptr, nullptr); }
    uint8_t Byte2() const { return pgbVelkGlobalValue->ucTVR[1]; }
};

TEST_F(Restrictions, SkippedWithoutTheAipBitOrTheCapability) {
    Put(0x9F07, "0000");  // would fail usage control
    Put(0x82, "0000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1800u);
    EXPECT_EQ(Byte2(), 0);
    Put(0x82, "0800");
    Put(0x9F9301, "0000000000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Byte2(), 0);
    Put(0x9F9301, "0000000008");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1800u);
    EXPECT_EQ(Byte2(), 0x10);
}

struct DateCase : NamedCase {
    const char *today;
    const char *expiry;     // nullptr: absent
    const char *effective;  // nullptr: absent
    uint8_t tvr;
};

class RestrictionDates : public Restrictions, public ::testing::WithParamInterface<DateCase> {};

TEST_P(RestrictionDates, ExpiryAndEffectiveDates) {
    const DateCase &c = GetParam();
    Put(0x9A, c.today);
    if (c.expiry != nullptr) Put(0x5F24, c.expiry);
    if (c.effective != nullptr) Put(0x5F25, c.effective);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0x1800u);
    EXPECT_EQ(Byte2(), c.tvr);
}

INSTANTIATE_TEST_SUITE_P(
    Dates, RestrictionDates,
    ::testing::Values(DateCase{"ValidOnExpiryDay", "251231", "251231", nullptr, 0x00},
                      DateCase{"ExpiredTheDayAfter", "260101", "251231", nullptr, 0x40},
                      DateCase{"CenturySplit1950", "500101", "491231", nullptr, 0x00},
                      DateCase{"CenturySplit2049", "491231", "500101", nullptr, 0x40},
                      DateCase{"LeapDayExpiry", "240229", "240229", nullptr, 0x00},
                      DateCase{"ValidOnEffectiveDay", "240615", nullptr, "240615", 0x00},
                      DateCase{"NotYetEffective", "240614", nullptr, "240615", 0x20},
                      DateCase{"ShortExpiryIgnored", "240615", "2401", nullptr, 0x00},
                      DateCase{"Both", "240615", "230101", "250101", 0x60}),
    CaseName());

TEST_F(Restrictions, InvalidDatesEndTheTransactionOnError) {
    for (const char *bad : {"230229", "241301", "2A0101"}) {
        Put(0x5F24, bad);
        EXPECT_EQ(Run(), 0u);
        EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
        EXPECT_EQ(Outcome(), "5020F0F000F0FF00") << bad;
    }
    Put(0x5F24, "251231");
    Put(0x5F25, "240230");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
}

struct UsageCase : NamedCase {
    const char *auc;
    const char *type;
    const char *terminalType;
    const char *issuerCountry;
    bool fails;
};

class RestrictionUsage : public Restrictions, public ::testing::WithParamInterface<UsageCase> {};

TEST_P(RestrictionUsage, ApplicationUsageControl) {
    const UsageCase &c = GetParam();
    Put(0x9F07, c.auc);
    Put(0x9C, c.type);
    Put(0x9F35, c.terminalType);
    Put(0x5F28, c.issuerCountry);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Byte2(), c.fails ? 0x10 : 0x00);
}

INSTANTIATE_TEST_SUITE_P(
    Services, RestrictionUsage,
    ::testing::Values(UsageCase{"DomesticPurchase", "FF00", "00", "22", "0978", false},
                      UsageCase{"DomesticPurchaseWithout28", "D700", "00", "22", "0978", true},
                      UsageCase{"DomesticGoodsOnly", "2100", "00", "22", "0978", false},
                      UsageCase{"DomesticServicesOnly", "0900", "00", "22", "0978", false},
                      UsageCase{"InternationalPurchase", "1500", "00", "22", "0840", false},
                      UsageCase{"InternationalWithDomesticOnly", "2900", "00", "22", "0840", true},
                      UsageCase{"AtmNeedsBit02", "FD00", "01", "14", "0978", true},
                      UsageCase{"AtmAllowed", "8200", "01", "14", "0978", false},
                      UsageCase{"NonAtmNeedsBit01", "FE00", "00", "22", "0978", true},
                      UsageCase{"DomesticCash", "8100", "01", "22", "0978", false},
                      UsageCase{"InternationalCash", "8100", "01", "22", "0840", true},
                      UsageCase{"DomesticCashback", "0180", "09", "22", "0978", false},
                      UsageCase{"InternationalCashback", "0180", "09", "22", "0840", true},
                      UsageCase{"CashbackOneByteAuc", "FF", "09", "22", "0978", true},
                      UsageCase{"OtherTypesFree", "01", "20", "22", "0840", false}),
    CaseName());

TEST_F(Restrictions, MissingTerminalCountryEndsTheApplication) {
    Put(0x9F07, "FF00");
    VelkDataBase_Del_TAG(0x9F1A);
    EXPECT_EQ(Run(), 0x30602u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
    EXPECT_EQ(pgbVelkGlobalValue->FinalOutCome.ucStatus, 0x40);
}

TEST_F(Restrictions, ApplicationVersions) {
    Put(0x9F09, "0002");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Byte2(), 0x00);  // card version absent: no check
    Put(0x9F08, "0002");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Byte2(), 0x00);
    Put(0x9F08, "000002");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Byte2(), 0x80);
}

}  // namespace
}  // namespace velk::test
