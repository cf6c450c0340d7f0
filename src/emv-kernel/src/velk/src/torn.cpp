// Torn transaction recovery with the ECHO command.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_RecoveryTrans_TapCard_Processing(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

// Placeholders of the ECHO command and its communication-error recovery: they
// report a communication error until the recovery is built.
uint32_t VelkCless_RecoveryTrans_Send_ECHO_Command(void) {
    return 0x30102;
}

uint32_t VelkCless_Recovery_ECHO_Command_CommunicationProblem_Processing(void) {
    return 0x30102;
}

}  // extern "C"
