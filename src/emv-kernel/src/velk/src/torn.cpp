// Torn transaction recovery with the ECHO command.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_RecoveryTrans_TapCard_Processing(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
