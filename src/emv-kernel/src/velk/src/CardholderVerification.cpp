// SPDX-License-Identifier: Apache-2.0
// Cardholder verification: the card's CVM choice and CVM List processing.
#include "baseKernel.h"
#include "checked.hpp"
#include "kn_common.h"
#include "reg_std.h"

namespace {

// Internal results of the CVM routines (never returned to the host).
constexpr uint32_t kConditionUnknown = 0x1001;
constexpr uint32_t kConditionNotMet = 0x1002;
constexpr uint32_t kCvmUnrecognised = 0x1004;
constexpr uint32_t kCvmUnsupported = 0x1005;

constexpr uint32_t kOddCvmList = 0x31522;
constexpr uint32_t kCvmListWork = 300;

// CVM field of the outcome.
constexpr uint8_t kCvmNone = 0x00;
constexpr uint8_t kCvmSignature = 0x10;
constexpr uint8_t kCvmOnlinePin = 0x20;
constexpr uint8_t kCvmConfirmationCode = 0x30;
constexpr uint8_t kCvmNotApplicable = 0xF0;

// CVM Results byte 3.
constexpr uint8_t kResultUnknown = 0x00;
constexpr uint8_t kResultFailed = 0x01;
constexpr uint8_t kResultSuccessful = 0x02;

// TVR bits.
constexpr uint8_t kTvr1IccDataMissing = 0x20;
constexpr uint8_t kTvr3NotSuccessful = 0x80;
constexpr uint8_t kTvr3Unrecognised = 0x40;
constexpr uint8_t kTvr3NoPinPad = 0x10;
constexpr uint8_t kTvr3OnlinePinEntered = 0x04;

// ucTTPI: index 0 is byte 1 (reader's CVMs), index 1 byte 2 (CVM required).
constexpr uint8_t kTtpi1Signature = 0x02;
constexpr uint8_t kTtpi1OnlinePin = 0x04;
constexpr uint8_t kTtpi2CvmRequired = 0x40;

constexpr uint8_t kPreProcessingCvmRequired = 0x20;

// Attended / unattended classification of the terminal type.
constexpr uint8_t kAttended = 1;
constexpr uint8_t kUnattended = 0;
constexpr uint8_t kUnknownAttendance = 0xFF;

constexpr uint8_t kCash = 0x01;
constexpr uint8_t kCashback = 0x09;

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

void SetResults(uint8_t code, uint8_t condition, uint8_t result) {
    G().ucCVMResult[0] = code;
    G().ucCVMResult[1] = condition;
    G().ucCVMResult[2] = result;
}

OBJECT_TAG Get(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) obj.uiLength = 0;
    return obj;
}

uint8_t FirstByte(uint32_t tag) {
    const OBJECT_TAG obj = Get(tag);
    return obj.uiLength != 0 ? obj.pValue[0] : 0;
}

bool CvmListPresent() {
    return Get(0x8E).uiLength != 0;
}

// What applying a supported CVM does, by its low six bits.
struct AppliedCvm {
    uint8_t code;
    uint8_t cvm;
    uint8_t result;
    uint8_t tvr3;
};
constexpr AppliedCvm kAppliedCvms[] = {
    {0x00, kCvmNone, kResultFailed, kTvr3NotSuccessful},           // fail CVM processing
    {0x02, kCvmOnlinePin, kResultUnknown, kTvr3OnlinePinEntered},  // enciphered PIN online
    {0x1E, kCvmSignature, kResultUnknown, 0},                      // signature
    {0x1F, kCvmNone, kResultSuccessful, 0},                        // no CVM required
    {0x24, kCvmConfirmationCode, kResultUnknown, 0},               // confirmation code on device
};

// The card's own choice in C5 for signature (S = 1) and online PIN (S = 2).
struct CardChoice {
    uint8_t selection;
    uint8_t code;
    uint8_t readerBit;
    uint8_t cvm;
    uint8_t tvr3;
};
constexpr CardChoice kCardChoices[] = {
    {1, 0x1E, kTtpi1Signature, kCvmSignature, 0},
    {2, 0x02, kTtpi1OnlinePin, kCvmOnlinePin, kTvr3OnlinePinEntered},
};

uint8_t Attendance() {
    const OBJECT_TAG type = Get(0x9F35);
    if (type.uiLength == 0) return kUnknownAttendance;
    const uint8_t t = type.pValue[0];
    const uint8_t high = t >> 4;
    if (high >= 1 && high <= 3) return (t & 0x0C) == 0 ? kAttended : kUnattended;
    // Types 9x: 90 to 94 attended, 95 and above unattended, on purpose.
    if (high == 9) return (t & 0x0F) <= 4 ? kAttended : kUnattended;
    return kUnknownAttendance;
}

void RunCvmList() {
    if (VelkCless_Kernel_Capabilities_IsTrue(0x410) != 0 && CvmListPresent())
        VelkCless_Cardholder_Verification_CVMList();
    else
        G().ucTVR[2] |= kTvr3NotSuccessful;
}

// The card chose the CVM itself (C5 present).
void ApplyCardSelection(uint8_t selection) {
    const bool cvmRequired = (G().ucTTPI[1] & kTtpi2CvmRequired) != 0;
    switch (selection) {
        case 0:
            // A card that asks for no CVM when the reader requires one fails
            // verification, on purpose.
            if (!cvmRequired) return;
            SetResults(0x1F, 0x00, kResultUnknown);
            VelkCless_SetCVM(kCvmNone);
            G().ucTVR[2] |= kTvr3NotSuccessful;
            return;
        case 3:
            RunCvmList();
            return;
        case 5:
            SetResults(0x24, 0x00, kResultSuccessful);
            VelkCless_SetCVM(kCvmConfirmationCode);
            return;
        default:
            break;
    }
    for (const CardChoice &c : kCardChoices) {
        if (c.selection != selection) continue;
        if ((G().ucTTPI[0] & c.readerBit) != 0) {
            G().ucTVR[2] |= c.tvr3;
            SetResults(c.code, 0x00, kResultUnknown);
            VelkCless_SetCVM(c.cvm);
        } else {
            SetResults(c.code, 0x00, kResultFailed);
            G().ucTVR[2] |= kTvr3NotSuccessful;
        }
    }
    // S = 4, 6 and 7 change nothing.
}

}  // namespace

extern "C" {

uint32_t VelkCless_CVM_CheckAmount(const uint8_t *ThresholdAmount, uint8_t Checkflag) {
    const OBJECT_TAG transactionCurrency = Get(0x5F2A);
    const OBJECT_TAG applicationCurrency = Get(0x9F42);
    const OBJECT_TAG amount = Get(0x9F02);
    if (transactionCurrency.uiLength != 2 || applicationCurrency.uiLength != 2) {
        return kConditionNotMet;
    }
    if (Memcmp_(transactionCurrency.pValue, applicationCurrency.pValue, 2) != 0)
        return kConditionNotMet;
    if (VelkDataBase_Tag_IsNotPresent(0x9F02) != 0) return kConditionNotMet;
    const uint32_t authorised = Bcd_To_Long(amount.pValue, amount.uiLength * 2);
    const uint32_t rule = Hex_To_Long(ThresholdAmount, 4);
    const bool met = Checkflag == 0 ? authorised < rule : authorised > rule;
    return met ? 0 : kConditionNotMet;
}

uint32_t VelkCless_CVM_Code_recognized(uint8_t CV_Rule) {
    const uint8_t c = CV_Rule & 0x3F;
    if (c <= 0x05 || c == 0x1E || c == 0x1F || c == 0x24) return 0;
    return kCvmUnrecognised;
}

uint32_t VelkCless_CVM_Terminal_IsSupport(uint8_t CV_Rule, uint8_t ucCondition) {
    const uint8_t c = CV_Rule & 0x3F;
    if (c > 0x24) return kCvmUnrecognised;
    switch (c) {
        case 0x00:
            return 0;
        case 0x01:
        case 0x03:
        case 0x04:
        case 0x05:
            return kCvmUnsupported;  // no offline PIN in this kernel
        case 0x02:
            if (VelkCless_Kernel_Capabilities_IsTrue(0x004) != 0) return 0;
            // Only a rule that insists on online PIN reports the missing PIN
            // pad; "if terminal supports the CVM" just passes on.
            if (ucCondition != 0x03) G().ucTVR[2] |= kTvr3NoPinPad;
            return kCvmUnsupported;
        case 0x1E:
            return VelkCless_Kernel_Capabilities_IsTrue(0x002) != 0 ? 0 : kCvmUnsupported;
        case 0x1F:
            return VelkCless_Get_Contactless_PreProcessing_Indicators(kPreProcessingCvmRequired) ==
                           0
                       ? 0
                       : kCvmUnsupported;
        case 0x24:
            return VelkCless_Kernel_Capabilities_IsTrue(0x240) != 0 ? 0 : kCvmUnsupported;
        default:
            return kCvmUnrecognised;
    }
}

uint32_t VelkCless_CVM_checkCondition(const uint8_t *XAmount, const uint8_t *YAmount,
                                      uint8_t CV_Rule, uint8_t ucCondition) {
    const uint8_t attendance = Attendance();
    const uint8_t type = FirstByte(0x9C);
    bool met = false;
    switch (ucCondition) {
        case 0x00:
            met = true;
            break;
        case 0x01:
            met = attendance == kUnattended && type == kCash;
            break;
        case 0x02:
            met = type != kCash && type != kCashback;
            break;
        case 0x03:
            return VelkCless_CVM_Terminal_IsSupport(CV_Rule, 0x03);
        case 0x04:
            met = type == kCash;
            break;
        case 0x05:
            met = type == kCashback;
            break;
        case 0x06:
            return VelkCless_CVM_CheckAmount(XAmount, 0);
        case 0x07:
            return VelkCless_CVM_CheckAmount(XAmount, 1);
        case 0x08:
            return VelkCless_CVM_CheckAmount(YAmount, 0);
        case 0x09:
            return VelkCless_CVM_CheckAmount(YAmount, 1);
        default:
            return kConditionUnknown;
    }
    return met ? 0 : kConditionNotMet;
}

uint32_t VelkCless_CVM_List_Processing(const uint8_t *pCVMList, uint32_t uiCVMListlen,
                                       uint8_t *pCVMResult) {
    if (uiCVMListlen < 8) return 0;
    const uint8_t *x = pCVMList;
    const uint8_t *y = pCVMList + 4;
    uint32_t lastFailure = 0;
    // A half rule at the end of a list of odd length is never read.
    for (uint32_t i = 8; i + 2 <= uiCVMListlen; i += 2) {
        const uint8_t code = pCVMList[i];
        const uint8_t condition = pCVMList[i + 1];
        uint32_t rc = VelkCless_CVM_checkCondition(x, y, code, condition);
        if (rc != 0) {
            lastFailure = rc;
            continue;
        }
        pCVMResult[2] = 0xFF;
        // Bit 0x40 of the code (apply the next rule if this one fails) is not
        // consulted: an unrecognised or unsupported CVM always passes on.
        rc = VelkCless_CVM_Code_recognized(code);
        if (rc != 0) {
            G().ucTVR[2] |= kTvr3Unrecognised;
            lastFailure = rc;
            continue;
        }
        rc = VelkCless_CVM_Terminal_IsSupport(code, condition);
        if (rc != 0) {
            lastFailure = rc;
            continue;
        }
        for (const AppliedCvm &a : kAppliedCvms) {
            if (a.code != (code & 0x3F)) continue;
            VelkCless_SetCVM(a.cvm);
            pCVMResult[2] = a.result;
            G().ucTVR[2] |= a.tvr3;
        }
        pCVMResult[0] = code;
        pCVMResult[1] = condition;
        return 0;
    }
    if (lastFailure == 0) return 0;
    G().ucTVR[2] |= kTvr3NotSuccessful;
    pCVMResult[0] = 0x3F;
    pCVMResult[1] = 0x00;
    pCVMResult[2] = kResultFailed;
    return lastFailure;
}

uint32_t VelkCless_Cardholder_Verification_CVMList(void) {
    // The list is worked on over its first 300 bytes; the card's own length
    // still decides whether it is well formed (an odd length is not).
    const uint32_t fullLen = Get(0x8E).uiLength;
    uint8_t list[kCvmListWork] = {};
    uint32_t len = 0;
    velk::DbGet(0x8E, list, sizeof list, &len);
    if (fullLen % 2 != 0) {
        // Written into the outcome and dropped by the callers: a later
        // outcome of the transaction replaces it, on purpose.
        VelkCless_Transaction_FinalOutcome_EndApplication();
        return kOddCvmList;
    }
    if (len > 8) return VelkCless_CVM_List_Processing(list, len, G().ucCVMResult);
    G().ucTVR[0] |= kTvr1IccDataMissing;
    SetResults(0x3F, 0x00, kResultUnknown);
    VelkCless_SetCVM(kCvmNotApplicable);
    return 0;
}

uint32_t VelkCless_Cardholder_Verification_CheckCVMListIsMissing(void) {
    if (Get(0x8E).uiLength <= 8) G().ucTVR[0] |= kTvr1IccDataMissing;
    return 0;
}

uint32_t VelkCless_CVM_Process(void) {
    SetResults(0x3F, 0x00, kResultUnknown);
    const OBJECT_TAG c5 = Get(0xC5);
    if (c5.uiLength != 0) {
        ApplyCardSelection(c5.pValue[0] & 0x07);
    } else if ((G().ucTTPI[1] & kTtpi2CvmRequired) != 0) {
        if ((FirstByte(0x82) & 0x10) != 0)
            RunCvmList();
        else
            G().ucTVR[2] |= kTvr3NotSuccessful;
    }
    VelkDataBase_Set_TAG(0x9F34, 3, G().ucCVMResult);
    return 0;
}

uint32_t VelkCless_Cardholder_Verification(void) {
    static constexpr uint8_t kNoCvmPerformed[3] = {0x3F, 0x00, 0x00};
    VelkDataBase_Set_TAG(0x9F34, 3, kNoCvmPerformed);
    VelkCless_Cardholder_Verification_CheckCVMListIsMissing();
    VelkCless_SetCVM(kCvmNotApplicable);
    VelkCless_CVM_Process();
    // Also after a failed verification or an odd CVM List: risk management
    // and action analysis decide on it.
    VelkCless_SetTransactionStep(0x1900);
    return 0;
}

}  // extern "C"
