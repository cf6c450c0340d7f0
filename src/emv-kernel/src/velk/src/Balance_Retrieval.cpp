// Balance retrieval and the card-read message.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Retrieval_Card_Balance(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
