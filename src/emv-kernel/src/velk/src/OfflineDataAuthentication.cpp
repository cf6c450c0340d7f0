// Offline data authentication: CAM selection and checking, SDA, DDA and CDA verification.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_ODA_CAM_Selection(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_ODA_CAM_Checking(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
