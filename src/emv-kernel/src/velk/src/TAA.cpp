// SPDX-License-Identifier: Apache-2.0
// Terminal action analysis: the cryptogram type to ask for.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"

namespace {

constexpr uint8_t kAac = 0x00;
constexpr uint8_t kTc = 0x40;
constexpr uint8_t kArqc = 0x80;
constexpr uint8_t kRefund = 0x20;
constexpr uint8_t kCdaSelected = 2;
constexpr uint8_t kTtpi2CdaRequest = 0x04;  // ucTTPI[1] is byte 2

using ActionCode = uint8_t[5];

// An action code read from the database, or its default when absent.
void ReadActionCode(uint32_t tag, uint8_t fallback, uint8_t *out) {
    Memset_(out, fallback, 5);
    uint32_t len = 0;
    velk::DbGet(tag, out, 5, &len);
}

struct ActionCodes {
    ActionCode iacDenial, iacOnline, iacDefault;
    ActionCode tacDenial, tacOnline, tacDefault;
};

void ReadActionCodes(ActionCodes &c) {
    // Issuer codes missing: deny on nothing, go online and default on anything.
    ReadActionCode(0x9F0E, 0x00, c.iacDenial);
    ReadActionCode(0x9F0F, 0xFF, c.iacOnline);
    ReadActionCode(0x9F0D, 0xFF, c.iacDefault);
    ReadActionCode(0x9F8246, 0x00, c.tacDenial);
    ReadActionCode(0x9F8247, 0x00, c.tacOnline);
    ReadActionCode(0x9F8245, 0x00, c.tacDefault);
}

}  // namespace

extern "C" {

uint8_t VelkCless_TAC_IAC_TVR(const uint8_t *pTVR, const uint8_t *pTAC, const uint8_t *pIAC) {
    for (uint32_t i = 0; i < 5; ++i)
        if ((pTVR[i] & (pTAC[i] | pIAC[i])) != 0) return 1;
    return 0;
}

uint32_t VelkCless_Terminal_Action_Analysis(void) {
    if (VelkCless_Get_TransactionType() == kRefund) {
        // No CDA for a refund: it is declined offline by the card anyway.
        VelkCless_Set_Terminal_Action_Analysis_Result(kAac);
        VelkCless_Set_Offline_CAM_Selected_Indicator(0);
        VelkCless_SetTransactionStep(0x2100);
        return 0;
    }
    ActionCodes c{};
    ReadActionCodes(c);
    uint8_t tvr[5];
    Memcpy_(tvr, pgbVelkGlobalValue->ucTVR, 5);

    if (VelkCless_TAC_IAC_TVR(tvr, c.tacDenial, c.iacDenial) != 0) {
        VelkCless_Set_Terminal_Action_Analysis_Result(kAac);
    } else {
        uint8_t terminalType = 0;
        uint32_t len = 0;
        velk::DbGet(0x9F35, &terminalType, 1, &len);
        switch (terminalType & 0x0F) {
            case 1:
            case 4:  // online only
                VelkCless_Set_Terminal_Action_Analysis_Result(kArqc);
                break;
            case 2:
            case 5:  // offline with online capability
                VelkCless_Set_Terminal_Action_Analysis_Result(
                    VelkCless_TAC_IAC_TVR(tvr, c.tacOnline, c.iacOnline) != 0 ? kArqc : kTc);
                break;
            case 3:
            case 6:  // offline only
                VelkCless_Set_Terminal_Action_Analysis_Result(
                    VelkCless_TAC_IAC_TVR(tvr, c.tacDefault, c.iacDefault) != 0 ? kAac : kTc);
                break;
            default:  // the result keeps the value it had
                break;
        }
    }
    // An ARQC or AAC request carries CDA only when the reader's processing
    // indicators ask for it; a TC request always does when CDA was selected.
    if (VelkCless_Get_Offline_CAM_Selected_Indicator() == kCdaSelected &&
        ((pgbVelkGlobalValue->ucTTPI[1] & kTtpi2CdaRequest) != 0 ||
         VelkCless_Get_Terminal_Action_Analysis_Result() == kTc))
        VelkCless_Set_CDA_Signature_Requested(1);
    VelkCless_SetTransactionStep(0x2100);
    return 0;
}

}  // extern "C"
