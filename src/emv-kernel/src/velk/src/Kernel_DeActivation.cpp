// SPDX-License-Identifier: Apache-2.0
// Kernel de-activation: the outcome of the first tap.
#include "baseKernel.h"

namespace {

constexpr uint8_t kAac = 0x00;
constexpr uint8_t kTc = 0x40;
constexpr uint8_t kArqc = 0x80;
constexpr uint8_t kNotAllowed = 0xC0;

uint32_t Finish(uint32_t (*outcome)(void)) {
    outcome();
    VelkCless_SetTransactionStep(0);
    return 0;
}

bool OnlineTapAsked() {
    OBJECT_TAG ccid{};
    return VelkDataBase_GetTagValue(0x9F9316, &ccid) == 0 && ccid.uiLength != 0 &&
           (ccid.pValue[0] & 0x08) != 0;
}

}  // namespace

extern "C" {

uint32_t VelkCless_Kernel_De_Activation(void) {
    if (VelkCless_Check_ImplementationOption_IsTrue(0x10) != 0 &&
        VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() != 0 &&
        VelkCless_Kernel_Capabilities_IsTrue(0x340) != 0) {
        VelkCless_NonFinancial_Transaction_completed_Offline_Authentication(
            static_cast<uint8_t>(VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent()));
        VelkCless_SetTransactionStep(0);
        return 0;
    }
    OBJECT_TAG cid{};
    if (VelkDataBase_GetTagValue(0x9F27, &cid) != 0 || cid.uiLength == 0 ||
        (cid.pValue[0] & 0xC0) == kNotAllowed)
        return Finish(VelkCless_Transaction_FinalOutcome_EndApplication);

    const uint8_t requested = VelkCless_Get_Terminal_Action_Analysis_Result();
    switch (cid.pValue[0] & 0xC0) {
        case kTc:
            // A TC given when ARQC or AAC was asked for is refused.
            if (requested != kArqc && requested != kAac)
                return Finish(VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC);
            return Finish(VelkCless_Transaction_FinalOutcome_EndApplication);
        case kAac:
            VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(0);
            VelkCless_SetTransactionStep(0);
            return 0;
        default:
            break;
    }
    // ARQC.
    if (requested == kAac) return Finish(VelkCless_Transaction_FinalOutcome_EndApplication);
    if (OnlineTapAsked() && VelkCless_Check_ImplementationOption_IsTrue(0x02) != 0 &&
        VelkCless_Kernel_Capabilities_IsTrue(0x280) != 0) {
        VelkCless_Read_Card_OK();
        VelkCless_SetTransactionStep(0x2220);
        return 0;
    }
    // The long tap keeps the card in the field: no card-read message here.
    if (VelkCless_Check_ImplementationOption_IsTrue(0x04) != 0 &&
        VelkCless_Kernel_Capabilities_IsTrue(0x210) != 0) {
        VelkCless_SetTransactionStep(0x2210);
        return 0;
    }
    return Finish(VelkCless_Financial_Transaction_Completed_Online_Request);
}

}  // extern "C"
