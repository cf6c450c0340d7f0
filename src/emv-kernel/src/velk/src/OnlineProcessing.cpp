// Online processing: long tap, online tap and the issuer's response.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Online_Processing_Long_Tap(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Online_Processing_Online_Tap(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Online_Response_Processing_and_Kernel_DeActivation(uint8_t *pTlvData,
                                                                      uint32_t *pTlvDatalen) {
    (void)pTlvData;
    (void)pTlvDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
