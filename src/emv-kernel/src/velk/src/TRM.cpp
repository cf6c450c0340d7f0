// SPDX-License-Identifier: Apache-2.0
// Terminal risk management: exception file, random selection, velocity.
#include "baseKernel.h"
#include "checked.hpp"
#include "kn_common.h"
#include "tlv.h"

namespace {

constexpr uint32_t kListedOnExceptionFile = 0x30803;

// TVR and TSI bits (index = byte number - 1).
constexpr uint8_t kTvr1IccDataMissing = 0x20;
constexpr uint8_t kTvr1ExceptionFile = 0x10;
constexpr uint8_t kTvr2NewCard = 0x08;
constexpr uint8_t kTvr4FloorLimitExceeded = 0x80;
constexpr uint8_t kTvr4LowerLimitExceeded = 0x40;
constexpr uint8_t kTvr4UpperLimitExceeded = 0x20;
constexpr uint8_t kTvr4RandomlySelected = 0x10;
constexpr uint8_t kTsi1RiskManagementDone = 0x08;

// A GET DATA answer for a 2-byte counter is 7 bytes; longer answers are
// refused by the exchange and count as no data.
constexpr uint32_t kGetDataWork = 32;

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

OBJECT_TAG Get(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) obj.uiLength = 0;
    return obj;
}

// One BCD byte as a percentage: high digit * 10 + low digit, so A0 reads as
// 100. An absent tag reads as 0.
uint32_t Percentage(uint32_t tag) {
    const OBJECT_TAG obj = Get(tag);
    if (obj.uiLength == 0) return 0;
    return (obj.pValue[0] >> 4) * 10u + (obj.pValue[0] & 0x0F);
}

bool IsStopOrCommunicationError(uint32_t rc) {
    return rc == 0x30101 || rc == 0x30102 || rc == 0x30103;
}

enum class Counter { kOk, kMissing, kRefused };

// GET DATA for a 2-byte counter. kRefused: the card answered, but not 9000.
// *rc receives the exchange's result.
Counter ReadCounter(uint32_t tag, uint32_t *value, uint32_t *rc) {
    uint8_t resp[kGetDataWork] = {};
    uint32_t len = sizeof resp;
    *rc = VelkCless_APDU_GetData(tag, resp, &len);
    if (*rc != 0) return Counter::kMissing;
    if (!velk::StatusIs9000(resp, len)) return Counter::kRefused;
    const uint32_t dataLen = len - 2;
    const uint32_t total = velk::DeclaredLen(resp, dataLen);
    if (total == 0 || total > dataLen || TLV_GetTag(resp) != tag || TLV_GetLen(resp) != 2)
        return Counter::kMissing;
    const uint8_t *v = velk::ElementValue(resp);
    *value = (static_cast<uint32_t>(v[0]) << 8) | v[1];
    return Counter::kOk;
}

}  // namespace

extern "C" {

uint32_t VelkCless_Terminal_Exception_File_Check(void) {
    const OBJECT_TAG enabled = Get(0x9F8227);
    if (enabled.uiLength == 0 || enabled.pValue[0] == 0) return 0;

    velk::MsgBegin(VELK_CMD_EXCEPTION_FILE);
    static constexpr uint32_t kSent[] = {0x5A, 0x5F34};
    for (const uint32_t tag : kSent) {
        const OBJECT_TAG obj = Get(tag);
        if (VelkDataBase_Tag_IsPresent(tag) != 0) velk::MsgAdd(tag, obj.pValue, obj.uiLength);
    }
    // The host's status is not looked at: no usable answer means "not listed".
    if (velk::MsgCall() != 0) return 0;
    uint8_t *reply = velk::MsgReply();
    uint8_t *listed = velk::FindInSequence(reply, TLV_GetTlvTotalLen(reply), 0xDF05);
    if (listed == nullptr || TLV_GetLen(listed) == 0 || velk::ElementValue(listed)[0] == 0)
        return 0;
    G().ucTVR[0] |= kTvr1ExceptionFile;
    VelkCless_Set_Terminal_Transaction_Result(0);
    return kListedOnExceptionFile;
}

uint32_t VelkCless_Random_Transaction_Select(void) {
    if ((G().ucTVR[3] & kTvr4FloorLimitExceeded) != 0) return 0;

    const uint32_t ucTargetPercent = Percentage(0x9F8243);
    const uint32_t ucMaxTargetPercent = Percentage(0x9F8242);
    const OBJECT_TAG threshold = Get(0x9F8244);
    const uint32_t ulThreshold = Bcd_To_Long(threshold.pValue, threshold.uiLength * 2);
    const OBJECT_TAG floor = Get(0x9F1B);
    const uint32_t ulFloorLimit = Hex_To_Long(floor.pValue, floor.uiLength);
    OBJECT_TAG amount{};
    const uint32_t amountStatus = VelkDataBase_GetTagValue(0x9F02, &amount);
    const uint32_t uiTransAmount =
        amountStatus == 0 ? Bcd_To_Long(amount.pValue, amount.uiLength * 2) : 0;

    if (ucTargetPercent > 99) return 0x31517;
    if (ucMaxTargetPercent > 99) return 0x31518;
    if (ucMaxTargetPercent < ucTargetPercent) return 0x31519;
    if (ulThreshold > ulFloorLimit) return 0x31520;

    // A host that gives no number leaves the byte 0: R is then 1.
    uint8_t random = 0;
    VelkCless_GetUnpredictableNumber(&random, 1);
    uint32_t ucRandNum = 0;
    (void)udivmod_(random, 99, &ucRandNum);
    ++ucRandNum;

    bool bRandomSelect = false;
    if (uiTransAmount < ulThreshold) {
        bRandomSelect = ucTargetPercent >= ucRandNum;
    } else if (uiTransAmount < ulFloorLimit) {
        // The quotient is cut to 8 bits before the addition and the sum kept
        // in 8 bits, as the reader always computed it. F > T here, so the
        // division is never by zero.
        const uint8_t step = static_cast<uint8_t>(
            udivmod_((ucMaxTargetPercent - ucTargetPercent) * (uiTransAmount - ulThreshold),
                     ulFloorLimit - ulThreshold, nullptr));
        const uint8_t ucTransTragetPercent = static_cast<uint8_t>(ucTargetPercent + step);
        bRandomSelect = ucTransTragetPercent >= ucRandNum;
    }
    if (bRandomSelect) G().ucTVR[3] |= kTvr4RandomlySelected;
    // A missing amount ends the application, on purpose.
    return amountStatus;
}

uint32_t VelkCelss_TRM_CheckVelocity(void) {
    const OBJECT_TAG lower = Get(0x9F14);
    const OBJECT_TAG upper = Get(0x9F23);
    if (lower.uiLength == 0 || upper.uiLength == 0) return 0;
    const uint32_t LowerConsecutiveOfflineLimit = lower.pValue[0];
    const uint32_t UpperConsecutiveOfflineLimit = upper.pValue[0];

    uint32_t rc = 0;
    uint32_t uiATC = 0;
    bool missing = false;
    switch (ReadCounter(0x9F36, &uiATC, &rc)) {
        case Counter::kOk:
            break;
        case Counter::kRefused:
            // Counted as ATC 0; the register is still asked for.
            G().ucTVR[0] |= kTvr1IccDataMissing;
            uiATC = 0;
            break;
        case Counter::kMissing:
            if (IsStopOrCommunicationError(rc)) return rc;
            missing = true;
            break;
    }
    uint32_t uiOnlineATC = 0;
    if (!missing) {
        const Counter c = ReadCounter(0x9F13, &uiOnlineATC, &rc);
        if (IsStopOrCommunicationError(rc)) return rc;
        if (c != Counter::kOk)
            missing = true;
        else if (uiOnlineATC == 0)
            G().ucTVR[1] |= kTvr2NewCard;
    }
    if (missing) G().ucTVR[0] |= kTvr1IccDataMissing;
    if (!missing && uiATC > uiOnlineATC) {
        const uint32_t d = uiATC - uiOnlineATC;
        if (d > UpperConsecutiveOfflineLimit) G().ucTVR[3] |= kTvr4UpperLimitExceeded;
        if (d > LowerConsecutiveOfflineLimit) G().ucTVR[3] |= kTvr4LowerLimitExceeded;
        return 0;
    }
    G().ucTVR[3] |= kTvr4LowerLimitExceeded | kTvr4UpperLimitExceeded;
    return 0;
}

uint32_t VelkCless_TRM_Process(void) {
    const OBJECT_TAG aip = Get(0x82);
    if (aip.uiLength == 0 || (aip.pValue[0] & 0x08) == 0 ||
        VelkCless_Kernel_Capabilities_IsTrue(0x408) == 0) {
        VelkCless_SetTransactionStep(0x2000);
        return 0;
    }
    G().ucTSI[0] |= kTsi1RiskManagementDone;
    VelkCless_Terminal_Exception_File_Check();

    uint32_t rc = VelkCless_Random_Transaction_Select();
    if (rc != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        return rc;
    }
    rc = VelkCelss_TRM_CheckVelocity();
    if (rc == 0x30102 || rc == 0x30103) return velk::EndCommunicationError();
    if (rc == 0x30101) return velk::EndStopped();
    VelkCless_SetTransactionStep(0x2000);
    return 0;
}

}  // extern "C"
