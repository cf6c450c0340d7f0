// Processing restrictions: application versions, usage control and dates.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Processing_Restrictions(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
