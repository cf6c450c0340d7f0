// Pre-processing: the amount against the reader's contactless limits.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_PreProcess(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
