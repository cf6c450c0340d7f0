// Cardholder verification: the card's CVM choice and CVM List processing.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Cardholder_Verification(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
