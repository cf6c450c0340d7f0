// Card action analysis: the first GENERATE AC and its response.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Card_Action_Analysis_1st_Processing(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
