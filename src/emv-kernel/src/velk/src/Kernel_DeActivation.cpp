// Kernel de-activation: the outcome of the first tap.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Kernel_De_Activation(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
