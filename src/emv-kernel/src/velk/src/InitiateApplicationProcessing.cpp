// Initiate application processing: GET PROCESSING OPTIONS and the DOL builder.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Initiate_Application_Processing(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
