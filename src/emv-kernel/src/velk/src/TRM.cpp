// Terminal risk management: exception file, random selection, velocity.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_TRM_Process(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
