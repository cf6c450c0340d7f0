// SPDX-License-Identifier: Apache-2.0
// The global record and its accessors.
#include "global.h"

#include <stddef.h>

#include "database.h"

static_assert(sizeof(VELK_GLOBALVALUE_STRUCT) == VELK_LOCAL_PARAM_MIN_LEN,
              "the bound block's minimum size is the record's size");
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(VELK_GLOBALVALUE_STRUCT) == 10204, "the record is 10204 bytes on ILP32");
#endif
static_assert(sizeof(FINAL_OUTCOME) == 8 && sizeof(User_Interface_Request_Data) == 22,
              "outcome records are wire formats");

namespace {
VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}
}  // namespace

extern "C" {

VELK_GLOBALVALUE_STRUCT *pgbVelkGlobalValue;

uint32_t VelkCless_SetTransactionStep(uint32_t uiStep) {
    G().Transaction_Step = uiStep;
    return 0;
}
uint32_t VelkCless_GetTransactionStep(void) {
    return G().Transaction_Step;
}

uint32_t VelkCless_SetCVM(uint8_t ucCVM) {
    G().ucCVM = ucCVM;
    return 0;
}
uint8_t VelkCless_GetCVM(void) {
    return G().ucCVM;
}

uint32_t VelkCless_Set_Terminal_Action_Analysis_Result(uint8_t ucMode) {
    G().ucTAAResult = ucMode;
    return 0;
}
uint8_t VelkCless_Get_Terminal_Action_Analysis_Result(void) {
    return G().ucTAAResult;
}

uint32_t VelkCless_Set_Terminal_Transaction_Result(uint8_t ucTranResult) {
    G().ucTranResult = ucTranResult;
    return 0;
}
uint8_t VelkCless_Get_Terminal_Transaction_Result(void) {
    return G().ucTranResult;
}

uint32_t VelkCless_Set_CDA_Signature_Requested(uint8_t ucIndicator) {
    G().CDA_Signature_Requested = ucIndicator;
    return 0;
}
uint8_t VelkCless_Get_CDA_Signature_Requested(void) {
    return G().CDA_Signature_Requested;
}

uint32_t VelkCless_Set_EchoTransactionIndicator(uint8_t ucIndicator) {
    G().EchoTransactionIndicator = ucIndicator;
    return 0;
}
uint8_t VelkCless_Get_EchoTransactionIndicator(void) {
    return G().EchoTransactionIndicator;
}

uint32_t VelkCless_Set_CommunicationProblemIndicator(uint8_t ucIndicator) {
    G().CommunicationProblemIndicator = ucIndicator;
    return 0;
}
uint8_t VelkCless_Get_CommunicationProblemIndicator(void) {
    return G().CommunicationProblemIndicator;
}

// The selected method also travels in the data record, as 9F9306.
uint32_t VelkCless_Set_Offline_CAM_Selected_Indicator(uint8_t ucIndicator) {
    G().Offline_CAM_Selected_Indicator = ucIndicator;
    (void)VelkDataBase_Set_TAG(0x9F9306, 1, &ucIndicator);
    return 0;
}
uint8_t VelkCless_Get_Offline_CAM_Selected_Indicator(void) {
    return G().Offline_CAM_Selected_Indicator;
}

uint32_t VelkCless_Set_TransactionType(uint8_t ucTransType) {
    if (pgbVelkGlobalValue != nullptr) G().ucTransationType = ucTransType;
    return 0;
}
uint8_t VelkCless_Get_TransactionType(void) {
    return G().ucTransationType;
}

uint32_t VelkCless_Set_ContactlessApplicationNotAllowedindicator(uint8_t ucFlag) {
    if (pgbVelkGlobalValue != nullptr) G().ucContactlessApplicationNotAllowedindicator = ucFlag;
    return 0;
}
uint8_t VelkCless_Get_ContactlessApplicationNotAllowedindicator(void) {
    if (pgbVelkGlobalValue == nullptr) return 0;
    return G().ucContactlessApplicationNotAllowedindicator;
}

// Bits are only ever added during a transaction.
uint32_t VelkCless_Set_Contactless_PreProcessing_Indicators(uint8_t ucSetbit) {
    G().Contactless_Pre_Processing_Indicators |= ucSetbit;
    return 0;
}
uint8_t VelkCless_Get_Contactless_PreProcessing_Indicators(uint8_t ucCheckbit) {
    return G().Contactless_Pre_Processing_Indicators & ucCheckbit;
}

uint32_t VelkCless_Set_ECHO_Command_supported(uint8_t ucSupported) {
    (void)VelkDataBase_Set_TAG(0x9F9304, 1, &ucSupported);
    G().ECHO_Command_supported = ucSupported;
    return 0;
}

// The database copy (9F9304, which the host may also configure) wins over the
// field.
uint8_t VelkCless_Get_ECHO_Command_supported(void) {
    OBJECT_TAG tag = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(0x9F9304, &tag) == 0 && tag.uiLength != 0)
        return tag.pValue[0] != 0 ? 1 : 0;
    return G().ECHO_Command_supported;
}

// Prepares the queue's slot array; clears nothing else.
uint32_t VelkCless_GlobalValue_init(void) {
    G().EmvQueue.pElement = G().SignalMessageList;
    G().EmvQueue.ucMaxElement = 8;
    return 0;
}

}  // extern "C"
