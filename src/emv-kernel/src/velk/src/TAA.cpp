// Terminal action analysis: the cryptogram type to ask for.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Terminal_Action_Analysis(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
