// Data element retrieval and update in the card's memory.
#include "baseKernel.h"

extern "C" {

uint32_t VelkCless_Retrieval_of_Data_Element_values_in_EEPROM(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_GPO_command(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
