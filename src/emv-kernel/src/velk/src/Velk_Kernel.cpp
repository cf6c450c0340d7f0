// SPDX-License-Identifier: Apache-2.0
// The VELK_Kernel_ layer under the entry functions, the binding of the host's
// block and the one call into the host.
#include "baseKernel.h"
#include "database.h"
#include "global.h"

extern "C" {

VELK_INTERFACE gbVelkInterface;
VELK_INTERFACE *pgbVelkInterface;

uint32_t VelkLocalInit(uint8_t *puchPointer, uint32_t uiLength) {
    if (uiLength < VELK_LOCAL_PARAM_MIN_LEN) return VELK_ERR_BLOCK_TOO_SMALL;
    // The record is accessed field by field in place: a block that is not
    // aligned for it is refused rather than read misaligned.
    if (reinterpret_cast<uintptr_t>(puchPointer) % alignof(VELK_GLOBALVALUE_STRUCT) != 0)
        return VELK_ERR_BLOCK_MISALIGNED;
    pgbVelkGlobalValue = static_cast<VELK_GLOBALVALUE_STRUCT *>(static_cast<void *>(puchPointer));
    return 0;
}

uint32_t VelkCless_initMemery(void) {
    return 0;
}

uint32_t VelkCless_initInterface(void) {
    pgbVelkInterface = &gbVelkInterface;
    return 0;
}

uint32_t VelkCless_Init_MemorySpace(uint8_t *pbuffer, uint32_t uiLength) {
    (void)pbuffer;
    (void)uiLength;
    return 0;
}

uint32_t VELK_Kernel_Load_Callback_Function(pCallback_Function pcallbackfun, uint8_t *pCallbackbuf,
                                            uint32_t uiMaxCallBackBuflen) {
    VelkCless_initInterface();
    pgbVelkInterface->CallbackFucntion = pcallbackfun;
    pgbVelkInterface->pCallback_Exchange_Buffer = pCallbackbuf;
    pgbVelkInterface->uiMaxCallback_Exchange_BufferLen = uiMaxCallBackBuflen;
    return 0;
}

uint32_t VELK_Kernel_Init(uint8_t *pInData, uint32_t uiInDatalen) {
    (void)pInData;
    (void)uiInDatalen;
    (void)VelkCless_GlobalValue_init();
    (void)VelkDataBase_Init();
    return 0;
}

uint32_t VELK_Kernel_StartTransaction(uint8_t *pInOutData, uint32_t *puiInOutDatalen) {
    return VelkCless_Start_Transaction(pInOutData, puiInOutDatalen);
}

uint32_t VELK_Kernel_SendMessage(uint8_t *pMessage) {
    return VelkCless_Kernel_WriteSignal(pMessage);
}

uint32_t VELK_Kernel_Init_ExMemorySpace(uint8_t *pExMemorySpaceAdr, uint32_t uiMaxLength) {
    return VelkCless_Init_MemorySpace(pExMemorySpaceAdr, uiMaxLength);
}

uint32_t VELK_CallBack_Application(uint8_t *pInOutData, uint32_t *puiInOutDatalen) {
    return pgbVelkInterface->CallbackFucntion(pInOutData, puiInOutDatalen);
}

}  // extern "C"
