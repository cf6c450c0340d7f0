// SPDX-License-Identifier: Apache-2.0
// The base-kernel layer: its own 5-byte TVR, separate from the transaction's.
#include "global.h"
#include "reg_std.h"

extern "C" {

uint8_t gbTVR[5];

uint32_t BaseKernel_GetTVR(uint8_t *pTVR) {
    Memcpy_(pTVR, gbTVR, sizeof gbTVR);
    return 0;
}

uint32_t BaseKernel_SetTVR(const uint8_t *pTVR) {
    Memcpy_(gbTVR, pTVR, sizeof gbTVR);
    return 0;
}

uint32_t BaseKernel_Init(uint8_t *pInData, uint32_t uiInDataLen) {
    (void)pInData;
    (void)uiInDataLen;
    return 0;
}

}  // extern "C"
