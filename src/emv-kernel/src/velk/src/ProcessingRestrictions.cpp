// SPDX-License-Identifier: Apache-2.0
// Processing restrictions: application versions, usage control and dates.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"

namespace {

// Small result codes of the calendar helpers (not failure codes of the
// kernel's 0x3GGNN family).
constexpr uint32_t kDateNoOutput = 161;
constexpr uint32_t kDateNotLeap = 162;
constexpr uint32_t kDateBadNibble = 163;
constexpr uint32_t kDateBadYear = 164;
constexpr uint32_t kDateBadMonth = 165;
constexpr uint32_t kDateBadDay = 166;

constexpr uint32_t kInvalidDate = 0x31517;

// TVR byte 2.
constexpr uint8_t kTvrVersionsDiffer = 0x80;
constexpr uint8_t kTvrExpired = 0x40;
constexpr uint8_t kTvrNotYetEffective = 0x20;
constexpr uint8_t kTvrServiceNotAllowed = 0x10;

void SetTvrByte2(uint8_t bit) {
    pgbVelkGlobalValue->ucTVR[1] |= bit;
}

// A view of a database element; absent reads as empty.
OBJECT_TAG Get(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) obj.uiLength = 0;
    return obj;
}

uint8_t ByteAt(const OBJECT_TAG &obj, uint32_t i) {
    return i < obj.uiLength ? obj.pValue[i] : 0;
}

// 4-byte BCD date CC YY MM DD from a 3-byte YY MM DD: years 50 to 99 are of
// the 20th century, 00 to 49 of the 21st.
void WithCentury(const uint8_t *yymmdd, uint8_t *out) {
    out[0] = yymmdd[0] > 0x4F ? 0x19 : 0x20;
    Memcpy_(out + 1, yymmdd, 3);
}

uint32_t BcdByte(uint8_t b) {
    return (b >> 4) * 10u + (b & 0x0F);
}

// Which AUC bit a transaction type needs: index 0 international, 1 domestic.
struct UsageRule {
    uint8_t type;
    uint8_t byteIndex;
    uint8_t mask[2];
};
constexpr UsageRule kUsageRules[] = {
    {0x00, 0, {0x10 | 0x04, 0x20 | 0x08}},  // goods and services
    {0x01, 0, {0x40, 0x80}},                // cash
    {0x09, 1, {0x40, 0x80}},                // cashback
};

}  // namespace

extern "C" {

uint32_t VelkCless_DATE_LeapYearInt(uint32_t year) {
    uint32_t by400 = 0;
    uint32_t by100 = 0;
    (void)udivmod_(year, 400, &by400);
    (void)udivmod_(year, 100, &by100);
    const bool leap = by400 == 0 || ((year & 3u) == 0 && by100 != 0);
    return leap ? 0 : kDateNotLeap;
}

uint32_t VelkCless_DATE_MonthDaysInt(uint32_t year, uint32_t month, uint32_t *days) {
    if (days == nullptr) return kDateNoOutput;
    switch (month) {
        case 1:
        case 3:
        case 5:
        case 7:
        case 8:
        case 10:
        case 12:
            *days = 31;
            return 0;
        case 4:
        case 6:
        case 9:
        case 11:
            *days = 30;
            return 0;
        case 2:
            *days = VelkCless_DATE_LeapYearInt(year) == 0 ? 29 : 28;
            return 0;
        default:
            return kDateBadMonth;
    }
}

uint32_t VelkCless_DATE_ValidDateInt(uint32_t year, uint32_t month, uint32_t day) {
    if (year < 1900 || year > 2500) return kDateBadYear;
    uint32_t days = 0;
    const uint32_t rc = VelkCless_DATE_MonthDaysInt(year, month, &days);
    if (rc != 0) return rc;
    if (day == 0 || day > days) return kDateBadDay;
    return 0;
}

uint32_t VelkCless_CheckDateValid(const uint8_t *date) {
    for (uint32_t i = 0; i < 4; ++i)
        if ((date[i] >> 4) > 9 || (date[i] & 0x0F) > 9) return kDateBadNibble;
    return VelkCless_DATE_ValidDateInt(BcdByte(date[0]) * 100 + BcdByte(date[1]), BcdByte(date[2]),
                                       BcdByte(date[3]));
}

// VelkCless_GetCardExpDateFromTrack2 is not built: no step reads the expiry
// date from Track 2, and its month-to-day lookup was wrong for months 10 to 12.

uint32_t VelkCless_ProRestrictions_Check_Application_Version(void) {
    const OBJECT_TAG terminal = Get(0x9F09);
    const OBJECT_TAG card = Get(0x9F08);
    if (VelkDataBase_Tag_IsNotPresent(0x9F09) != 0 || VelkDataBase_Tag_IsNotPresent(0x9F08) != 0)
        return 0;
    if (terminal.uiLength == card.uiLength &&
        (terminal.uiLength == 0 ||
         Memcmp_(terminal.pValue, card.pValue, static_cast<int>(terminal.uiLength)) == 0))
        return 0;
    SetTvrByte2(kTvrVersionsDiffer);
    return 0;
}

uint32_t VelkCless_Application_Usage_Control_Check(void) {
    const OBJECT_TAG auc = Get(0x9F07);
    if (auc.uiLength == 0) return 0;
    // Bytes an AUC of one byte lacks read as 0: the services they would allow
    // are not allowed.
    bool failed = false;
    const uint8_t terminalType = ByteAt(Get(0x9F35), 0);
    const uint8_t atmBit = (terminalType >> 4) == 1 ? 0x02 : 0x01;
    if ((ByteAt(auc, 0) & atmBit) == 0) failed = true;

    const OBJECT_TAG terminalCountry = Get(0x9F1A);
    if (VelkDataBase_Tag_IsNotPresent(0x9F1A) != 0) return 0x30602;
    // The issuer country is compared over its own length; one longer than the
    // terminal's cannot be the same country.
    const OBJECT_TAG issuerCountry = Get(0x5F28);
    const bool domestic =
        issuerCountry.uiLength <= terminalCountry.uiLength &&
        (issuerCountry.uiLength == 0 || Memcmp_(issuerCountry.pValue, terminalCountry.pValue,
                                                static_cast<int>(issuerCountry.uiLength)) == 0);

    const OBJECT_TAG type = Get(0x9C);
    for (const UsageRule &rule : kUsageRules) {
        if (type.uiLength == 0 || ByteAt(type, 0) != rule.type) continue;
        if ((ByteAt(auc, rule.byteIndex) & rule.mask[domestic ? 1 : 0]) == 0) failed = true;
    }
    if (failed) SetTvrByte2(kTvrServiceNotAllowed);
    return 0;
}

uint32_t VelkCless_Application_Date_Check(void) {
    uint8_t today[4] = {};
    uint32_t len = 0;
    velk::DbGet(0x9A, today + 1, 3, &len);
    WithCentury(today + 1, today);

    // The application is valid on its expiration day and on its effective day.
    uint8_t date[4] = {};
    const OBJECT_TAG expiry = Get(0x5F24);
    if (expiry.uiLength == 3) {
        WithCentury(expiry.pValue, date);
        if (VelkCless_CheckDateValid(date) != 0) return kInvalidDate;
        if (Memcmp_(today, date, 4) > 0) SetTvrByte2(kTvrExpired);
    }
    const OBJECT_TAG effective = Get(0x5F25);
    if (effective.uiLength != 3) return 0;
    WithCentury(effective.pValue, date);
    if (VelkCless_CheckDateValid(date) != 0) return kInvalidDate;
    if (Memcmp_(today, date, 4) < 0) SetTvrByte2(kTvrNotYetEffective);
    return 0;
}

uint32_t VelkCless_Processing_Restrictions(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    // The whole step is skipped unless both the card (AIP byte 1 bit 0x08)
    // and the reader (capability byte 5 bit 0x08) ask for it.
    const OBJECT_TAG aip = Get(0x82);
    if ((ByteAt(aip, 0) & 0x08) == 0 || VelkCless_Kernel_Capabilities_IsTrue(0x408) == 0) {
        VelkCless_SetTransactionStep(0x1800);
        return 0;
    }
    uint32_t rc = VelkCless_ProRestrictions_Check_Application_Version();
    if (rc != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        VelkCless_SetTransactionStep(0);
        return rc;
    }
    rc = VelkCless_Application_Usage_Control_Check();
    if (rc != 0) {
        if (rc == 0x30602 || rc == 0x30902) VelkCless_Transaction_FinalOutcome_EndApplication();
        VelkCless_SetTransactionStep(0);
        return rc;
    }
    if (VelkCless_Application_Date_Check() != 0) return velk::EndOnError();
    VelkCless_SetTransactionStep(0x1800);
    return 0;
}

}  // extern "C"
